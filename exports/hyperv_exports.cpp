// Exported Hyper-V book-keeping: disk chain, mark files, recovery
// information, snapshot deletion and the pending-delete record.
#include "KestrixHA/hyperv.h"
#include "hyperv/boot_volume.h"
#include "hyperv/mark_files.h"
#include "hyperv/recovery_paths.h"
#include "hyperv/snapshot_delete.h"

namespace h = kx::hyperv;

KXHA_API DWORD GetDirOfMarkFile_HyperV(const std::wstring& root, const std::wstring& markFile, std::wstring& dir) {
    return h::GetDirOfMarkFile_HyperV(root, markFile, dir);
}

KXHA_API DWORD GetDirOfMarkFileByVm_HyperV(const std::wstring& vmGuid, const std::wstring& markFile,
                                           std::wstring& dir) {
    return h::GetDirOfMarkFileByVm_HyperV(vmGuid, markFile, dir);
}

KXHA_API DWORD GetOffcopySize_HyperV(const wchar_t* root, ULONGLONG* totalSize) {
    return h::GetOffcopySize_HyperV(root, totalSize);
}

KXHA_API DWORD GetDrInfoLocalCopyPathForSnapNow_HyperV(const wchar_t* vmName, const wchar_t* vmGuid, wchar_t* buffer,
                                                       DWORD* chars) {
    return h::GetDrInfoLocalCopyPathForSnapNow_HyperV(vmName, vmGuid, buffer, chars);
}

KXHA_API DWORD GetAdrInfoCLocalCopyPathForSnapNow_HyperV(const wchar_t* vmName, const wchar_t* vmGuid,
                                                         wchar_t* buffer, DWORD* chars) {
    return h::GetAdrInfoCLocalCopyPathForSnapNow_HyperV(vmName, vmGuid, buffer, chars);
}

KXHA_API DWORD GetIVMAdrConfigLocalCopyPathForSnapNow_HyperV(const wchar_t* vmName, const wchar_t* vmGuid,
                                                             const wchar_t* folder) {
    return h::GetIVMAdrConfigLocalCopyPathForSnapNow_HyperV(vmName, vmGuid, folder);
}

KXHA_API DWORD BeginDeleteSnapshot_HyperV(const wchar_t* vmGuid, const wchar_t* snapshotGuid,
                                          SnapshotDeleteHandle** handle) {
    return h::BeginDeleteSnapshot_HyperV(vmGuid, snapshotGuid, handle);
}

KXHA_API DWORD EndDeleteSnapshot_HyperV(SnapshotDeleteHandle* handle, bool snapshotDeleted) {
    return h::EndDeleteSnapshot_HyperV(handle, snapshotDeleted);
}

KXHA_API DWORD CleanUselessVirtualDisk(const wchar_t* vmGuid, const wchar_t* folder) {
    return h::CleanUselessVirtualDisk(vmGuid, folder);
}

KXHA_API DWORD KxReadPendingDelRecord(const wchar_t* vmGuid, const wchar_t* dataFolder,
                                      std::vector<std::wstring>& folders, std::vector<PendingDiskPair>& pairs) {
    return h::ReadPendingDelete(vmGuid, dataFolder, folders, pairs);
}

KXHA_API DWORD KxAddPendingDelRecord(const wchar_t* vmGuid, const wchar_t* dataFolder,
                                     const std::vector<std::wstring>& folders,
                                     const std::vector<PendingDiskPair>& pairs) {
    return h::AddPendingDelete(vmGuid, dataFolder, folders, pairs);
}

KXHA_API DWORD KxReplayPendingDelRecord(const wchar_t* vmGuid, const wchar_t* dataFolder, bool withoutHyperV,
                                        DWORD* removed, DWORD* pending) {
    h::ReplayCounts counts;
    const DWORD rc = h::ReplayPendingDelete(vmGuid, dataFolder, withoutHyperV, &counts);
    if (removed) *removed = counts.removed;
    if (pending) *pending = counts.pending;
    return rc;
}

KXHA_API DWORD AdjustVolumeBootCode_HyperV(const wchar_t* vmGuid, const wchar_t* snapshotGuid, DWORD diskSignature) {
    return h::AdjustVolumeBootCode_HyperV(vmGuid, snapshotGuid, diskSignature);
}
