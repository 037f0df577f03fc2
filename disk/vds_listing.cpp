#include "disk/vds_listing.h"

#include "common/unique_resource.h"
#include "common/wstring_format.h"
#include "disk/vds_session.h"
#include "log/call_frame.h"
#include "log/debug_log.h"

namespace kx::disk {

namespace {

constexpr DWORD kFileDeviceDisk = 7;  // FILE_DEVICE_DISK

HRESULT ReadDisks(CVdsService& service, std::vector<VdsDiskRecord>& out) {
    Log(2, L"begin GetOnlineDisks");
    Log(4, L"begin vds.GetAllDisks");
    std::vector<CVdsDisk> disks;
    HRESULT hr = service.GetAllDisks(&disks);
    Log(4, L"finish vds.GetAllDisks");
    if (FAILED(hr)) return hr;
    for (const CVdsDisk& disk : disks) {
        Log(4, L"begin pVdsDisk->GetProperties()");
        const std::optional<DiskProperties> p = disk.GetProperties();
        Log(4, L"finish pVdsDisk->GetProperties()");
        if (!p || p->status != VDS_DS_ONLINE || p->deviceType != kFileDeviceDisk) continue;
        VdsDiskRecord record;
        record.size = p->size;
        record.diskNumber = p->Number();
        record.partitionStyle = p->style;
        record.signature = p->signature;
        record.diskGuid = GuidText(p->diskGuid);
        Log(2, L"get disk, size=%lld, guid=%s, signature=%u, partition=%d, diskNo=%u", record.size,
            record.diskGuid.c_str(), record.signature, static_cast<int>(record.partitionStyle), record.diskNumber);
        Log(4, L"begin pVdsDisk->GetDiskExtents");
        std::vector<VDS_DISK_EXTENT> extents;
        hr = disk.GetDiskExtents(&extents);
        Log(4, L"finish pVdsDisk->GetDiskExtents");
        if (FAILED(hr)) return hr;
        for (const VDS_DISK_EXTENT& e : extents) {
            record.extents.push_back({e.ullOffset, GuidText(e.volumeId)});
            Log(4, L"get extent, volGuid=%s, offset=%lld", record.extents.back().volumeGuid.c_str(), e.ullOffset);
        }
        out.push_back(std::move(record));
    }
    Log(2, L"finish GetOnlineDisks, disk count = %d", static_cast<int>(out.size()));
    return S_OK;
}

HRESULT ReadVolumes(CVdsService& service, std::vector<VdsVolumeRecord>& out) {
    Log(2, L"begin GetOnlineVolumes");
    Log(4, L"begin vds.GetAllPacks");
    std::vector<CVdsPack> packs;
    HRESULT hr = service.GetAllPacks(&packs);
    Log(4, L"finish vds.GetAllPacks");
    if (FAILED(hr)) return hr;
    for (const CVdsPack& pack : packs) {
        Log(4, L"begin (*itrPack)->GetVolumes");
        std::vector<CVdsVolume> volumes;
        hr = pack.GetVolumes(&volumes);
        Log(4, L"finish (*itrPack)->GetVolumes");
        if (FAILED(hr)) return hr;
        for (const CVdsVolume& volume : volumes) {
            const std::optional<VolumeProperties> p = volume.GetProperties();
            if (!p || p->status != VDS_VS_ONLINE) continue;
            VdsVolumeRecord record{GuidText(p->id), p->letter, p->flags, p->dynamic ? 1 : 0};
            Log(2, L"get volume, guid=%s, letter=%s, flag=%u, isDynamic=%d", record.volumeGuid.c_str(),
                record.letter.c_str(), record.flags, record.dynamic);
            out.push_back(std::move(record));
        }
    }
    Log(2, L"finish GetOnlineVolumes, vol count = %d", static_cast<int>(out.size()));
    return S_OK;
}

// Whether a disk on line carries one of `identities`.
bool SameIdentityMounted(CVdsService& service, const std::vector<std::wstring>& identities) {
    std::vector<CVdsDisk> disks;
    if (FAILED(service.GetAllDisks(&disks))) return true;  // unknown: not safe to attach
    for (const CVdsDisk& disk : disks) {
        const std::optional<DiskProperties> p = disk.GetProperties();
        if (!p) continue;
        if (p->status == VDS_DS_OFFLINE) {
            Log(2, L"Disk %s is offline, ignore it.", p->name.c_str());
            continue;
        }
        const std::wstring identity = p->Identity();
        if (identity.empty()) continue;
        for (const std::wstring& wanted : identities) {
            if (!EqualsNoCase(identity, wanted)) continue;
            Log(1, L"Disk %s with same signature %s has been mounted.", p->name.c_str(), wanted.c_str());
            return true;
        }
    }
    return false;
}

}  // namespace

DWORD GetOnlineDisks(std::vector<VdsDiskRecord>& disks) {
    return RunExport<kGetOnlineDisks>([&](auto&) -> DWORD {
        disks.clear();
        VdsSession session;
        if (DWORD rc = session.Open(VdsStart::kFull)) return rc;
        const HRESULT hr = ReadDisks(session.Service(), disks);
        if (FAILED(hr)) Log(0, L"GetOnlineDisks, get disks failed, rc = %d", static_cast<int>(hr));
        return static_cast<DWORD>(hr);
    });
}

DWORD GetOnlineVolumes(std::vector<VdsVolumeRecord>& volumes) {
    return RunExport<kGetOnlineVolumes>([&](auto&) -> DWORD {
        volumes.clear();
        VdsSession session;
        if (DWORD rc = session.Open(VdsStart::kFull)) return rc;
        const HRESULT hr = ReadVolumes(session.Service(), volumes);
        if (FAILED(hr)) Log(0, L"GetOnlineVolumes, get volume failed, rc = %d", static_cast<int>(hr));
        return static_cast<DWORD>(hr);
    });
}

DWORD GetOnlineDisksAndVolumes(std::vector<VdsDiskRecord>& disks, std::vector<VdsVolumeRecord>& volumes) {
    return RunExport<kGetOnlineDisksAndVolumes>([&](auto& frame) -> DWORD {
        disks.clear();
        volumes.clear();
        VdsSession session;
        if (DWORD rc = session.Open(VdsStart::kFull)) return frame.WithoutEndLine(rc);
        HRESULT hr = ReadDisks(session.Service(), disks);
        if (FAILED(hr)) {
            Log(0, L"GetOnlineDisksAndVolumes, get disks failed, rc = %d", static_cast<int>(hr));
            return static_cast<DWORD>(hr);
        }
        hr = ReadVolumes(session.Service(), volumes);
        if (FAILED(hr)) Log(0, L"GetOnlineDisksAndVolumes, get volume failed, rc = %d", static_cast<int>(hr));
        return static_cast<DWORD>(hr);
    });
}

DWORD CheckDiskSignatureConflict(const std::vector<std::wstring>& identities) {
    return RunExport<kCheckDiskSignatureConflict>([&](auto&) -> DWORD {
        if (identities.empty()) return 1;
        unique_handle mutex(::CreateMutexW(nullptr, FALSE, kDiskOperationMutex));
        if (!mutex) {
            Log(0, L"Failed to create mutex lock for checking disk signature, error %d.",
                static_cast<int>(::GetLastError()));
            return 0;
        }
        VdsSession session;  // closed after the mutex is released
        mutex_release owned = acquire_mutex(mutex.get(), kDiskOperationWaitMs);
        if (!owned) {
            Log(0, L"Failed to get ownership of mutex lock for checking disk signature.");
            return 0;
        }
        DWORD ok = 0;
        if (session.Open(VdsStart::kServiceOnly) == ERROR_SUCCESS) {
            session.Service().DisableAutoMountVolumes();
            ok = SameIdentityMounted(session.Service(), identities) ? 0 : 1;
        }
        Log(2, L"VcmDiskOperation::CheckSameSignatureDisk, bCheckRet = %d.", static_cast<int>(ok));
        return ok;
    });
}

}  // namespace kx::disk
