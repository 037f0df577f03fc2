// Deleting a snapshot of a standby VM, and the disk files of a VM that
// nothing uses any more. The design is written out in the public header
// (include/KestrixHA/hyperv.h); in short:
//   Begin  replays the VM's pending-delete record, then notes the disks of
//          the snapshot about to go;
//   (the caller deletes the snapshot through Hyper-V)
//   End    removes the session folders and zero-GUID disk pairs that only
//          that snapshot used; what is still open elsewhere goes into the
//          record for the next deletion.
// Nothing that the VM's running state or a remaining snapshot lists (or the
// base disk such a listed differencing disk is named after) is removed.
#pragma once

#include <windows.h>

#include <set>
#include <string>
#include <vector>

#include "hyperv/pending_delete.h"
#include "platform/hyperv_ops.h"

struct SnapshotDeleteHandle;

namespace kx::hyperv {

// The disk files a VM still uses, and what follows from them.
class UsedDisks {
public:
    void Add(const std::wstring& image);
    bool Uses(const std::wstring& file) const;
    // Some used file lies inside `folder` (at any depth).
    bool UsesFolder(const std::wstring& folder) const;
    size_t size() const { return files_.size(); }

private:
    std::set<std::wstring> files_;  // upper case
};

// The running state's disks and every snapshot's, with their base disks.
DWORD CollectUsedDisks(platform::HyperVVm& vm, UsedDisks& used);

// "<stem>_<GUID>.avhd" -> "<stem>.vhd" (".avhdx" -> ".vhdx"); empty for
// any other name.
std::wstring BaseDiskOf(const std::wstring& differencing);
// "<stem>_00000000-0000-0000-0000-000000000000.avhd(x)".
bool IsZeroGuidDifferencing(const std::wstring& path);

struct ReplayCounts {
    DWORD removed = 0;  // folders and pairs gone (or already missing)
    DWORD pending = 0;  // still recorded
};

// Tries every entry of the record and writes back what is still there.
// `used` (may be null: then only files held open protect themselves) keeps
// entries the VM lists. 0 or the record's code.
DWORD ReplayPendingDelRecord(const PendingDelContext& context, const UsedDisks* used, ReplayCounts* counts);

[[nodiscard]] DWORD BeginDeleteSnapshot_HyperV(const wchar_t* vmGuid, const wchar_t* snapshotGuid,
                                               SnapshotDeleteHandle** handle);
[[nodiscard]] DWORD EndDeleteSnapshot_HyperV(SnapshotDeleteHandle* handle, bool snapshotDeleted);
[[nodiscard]] DWORD CleanUselessVirtualDisk(const wchar_t* vmGuid, const wchar_t* folder);

// The record of a VM read and added to on its own (kxha); the data folder
// from Hyper-V when `dataFolder` is null. Added pairs must have one of the
// accepted shapes (87 otherwise); pairs already recorded are not repeated.
[[nodiscard]] DWORD ReadPendingDelete(const wchar_t* vmGuid, const wchar_t* dataFolder,
                                      std::vector<std::wstring>& folders, std::vector<DiskPair>& pairs);
[[nodiscard]] DWORD AddPendingDelete(const wchar_t* vmGuid, const wchar_t* dataFolder,
                                     const std::vector<std::wstring>& folders, const std::vector<DiskPair>& pairs);

// The record's replay on its own (kxha): the data folder from Hyper-V when
// `dataFolder` is null; without Hyper-V only when `withoutHyperV` is set.
[[nodiscard]] DWORD ReplayPendingDelete(const wchar_t* vmGuid, const wchar_t* dataFolder, bool withoutHyperV,
                                        ReplayCounts* counts);

}  // namespace kx::hyperv
