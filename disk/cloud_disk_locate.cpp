#include "disk/cloud_disk_locate.h"

#include <optional>
#include <vector>

#include "common/result_codes.h"
#include "disk/vds_session.h"
#include "log/debug_log.h"
#include "platform/process_runner.h"

namespace kx::disk {

namespace {

constexpr int kRounds = 120;
constexpr DWORD kRoundPauseMs = 1000;
constexpr DWORD kFixedMedia = 12;  // MEDIA_TYPE FixedMedia

// Whether `p` is the disk asked for; logs the match.
bool Matches(const CloudDiskQuery& q, const DiskProperties& p) {
    if (p.mediaType != kFixedMedia || p.size != q.size) return false;
    const auto size = static_cast<long long>(p.size);
    switch (q.partitionStyle) {
        case 0:
            if (p.style != VDS_PST_UNKNOWN) return false;
            Log(2, L"Locate the new created disk %s with size %I64d.", p.name.c_str(), size);
            return true;
        case 1:
            if (p.style != VDS_PST_MBR || p.signature != q.signature) return false;
            break;
        case 2:
            if (p.style != VDS_PST_GPT || !IsEqualGUID(p.diskGuid, q.diskGuid)) return false;
            break;
        default:
            return false;
    }
    Log(2, L"Locate the disk %s with size %I64d.", p.name.c_str(), size);
    Log(2, L"Locate the disk %s with same signature %s.", p.name.c_str(), p.Identity().c_str());
    return true;
}

}  // namespace

DWORD LocateCloudDisk(const CloudDiskQuery& q, LocatedCloudDisk* out) {
    VdsSession session;
    if (DWORD rc = session.Open(VdsStart::kServiceOnly)) return rc;
    for (int round = 1; round <= kRounds; ++round) {
        Log(2, L"Check whether attached disk is shown in disk manager, acquired disk changes round %d.", round);
        std::vector<CVdsDisk> disks;
        if (q.unallocatedOnly)
            session.Service().GetUnallocatedDisks(&disks);
        else
            session.Service().GetAllDisks(&disks);
        for (const CVdsDisk& disk : disks) {
            const std::optional<DiskProperties> p = disk.GetProperties();
            if (!p || !Matches(q, *p)) continue;
            Log(2, L"Offline the disk %s.", p->name.c_str());
            if (TakeDiskOffline(disk) != ERROR_SUCCESS) Log(0, L"Offline the disk %s failed.", p->name.c_str());
            out->devicePath = p->name;
            out->partitionStyle = p->style;
            out->diskNumber = p->Number();
            return ERROR_SUCCESS;
        }
        platform::Pauses().For(kRoundPauseMs);
    }
    Log(0, L"Can't locate the new created disk with size %I64d after %d seconds.", static_cast<long long>(q.size),
        kRounds);
    return kFailNoCode;
}

}  // namespace kx::disk
