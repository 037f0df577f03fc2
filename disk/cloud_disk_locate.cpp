#include "disk/cloud_disk_locate.h"

#include <optional>
#include <vector>

#include "KestrixHA/disk_checks.h"
#include "common/result_codes.h"
#include "disk/raw_layout.h"
#include "disk/vds_session.h"
#include "log/call_frame.h"
#include "log/debug_log.h"
#include "platform/process_runner.h"

namespace kx::disk {

namespace {

constexpr int kRounds = 120;
constexpr DWORD kRoundPauseMs = 1000;
constexpr DWORD kFixedMedia = 12;  // MEDIA_TYPE FixedMedia

// Whether `p` is the disk asked for; logs the match. A raw disk (no
// partition table yet) is the platform's new disk whatever identity is
// asked for: it is matched by its size alone and gets the identity later.
// An initialised disk must carry the identity of the style asked for.
bool Matches(const CloudDiskQuery& q, const DiskProperties& p) {
    if (p.mediaType != kFixedMedia || p.size != q.size) return false;
    const auto size = static_cast<long long>(p.size);
    switch (p.style) {
        case VDS_PST_UNKNOWN:
            Log(2, L"Locate the new created disk %s with size %I64d.", p.name.c_str(), size);
            return true;
        case VDS_PST_MBR:
            if (q.partitionStyle != 1 || p.signature != q.signature) return false;
            break;
        case VDS_PST_GPT:
            if (q.partitionStyle != 2 || !IsEqualGUID(p.diskGuid, q.diskGuid)) return false;
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

DWORD GetDiskPathforCloudDisk(CloudDiskLocateRequest* request) {
    return RunExport<kGetDiskPathforCloudDisk>([&](auto& frame) -> DWORD {
        if (!request || request->cbSize != sizeof(*request) ||
            (request->partitionStyle != kStyleMbr && request->partitionStyle != kStyleGpt))
            return frame.InvalidParameter();
        request->diskPath[0] = L'\0';
        const CloudDiskQuery q{request->diskSize, request->partitionStyle, request->signature, request->diskGuid,
                               request->unallocatedOnly != 0};
        LocatedCloudDisk found;
        if (const DWORD rc = LocateCloudDisk(q, &found)) return rc;
        if (found.devicePath.size() >= MAX_PATH) {
            Log(0, L"GetDiskPathforCloudDisk, disk path too long: %s", found.devicePath.c_str());
            return ERROR_FILENAME_EXCED_RANGE;
        }
        // A raw disk gets the asked identity before anyone sees it; it is
        // off line already, so no volume of it can be mounted meanwhile.
        if (found.partitionStyle == VDS_PST_UNKNOWN)
            if (const DWORD rc = WriteNewPartitionTable(found.devicePath, request->partitionStyle,
                                                        request->signature, request->diskGuid))
                return rc;
        wcscpy_s(request->diskPath, found.devicePath.c_str());
        return ERROR_SUCCESS;
    }, request ? static_cast<long long>(request->diskSize) : 0LL);
}

}  // namespace kx::disk
