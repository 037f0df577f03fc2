#include "hyperv/snapshot_delete.h"

#include <algorithm>
#include <cwctype>
#include <memory>

#include "common/dest_layout.h"
#include "common/dir_list.h"
#include "common/wstring_format.h"
#include "hyperv/disk_chain.h"
#include "log/call_frame.h"
#include "platform/folder_ops.h"

// What Begin hands out and End takes back.
struct SnapshotDeleteHandle {
    kx::hyperv::PendingDelContext record;
    std::wstring snapshotGuid;
    std::vector<std::wstring> images;  // the snapshot's disks when Begin ran
};

namespace kx::hyperv {

namespace {

constexpr const wchar_t* kZeroGuid = L"00000000-0000-0000-0000-000000000000";

std::wstring Upper(std::wstring s) {
    for (auto& c : s) c = static_cast<wchar_t>(std::towupper(c));
    return s;
}

bool IsGuidText(const std::wstring& s) {
    if (s.size() != 36) return false;
    for (size_t i = 0; i < s.size(); ++i) {
        const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
        if (dash ? s[i] != L'-' : !std::iswxdigit(s[i])) return false;
    }
    return true;
}

bool Exists(const std::wstring& path) { return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

// Deletes a file; one that is already gone counts as deleted.
DWORD RemoveFile(const std::wstring& path) {
    if (::DeleteFileW(path.c_str())) return 0;
    const DWORD rc = LastErrorOr();
    return rc == ERROR_FILE_NOT_FOUND || rc == ERROR_PATH_NOT_FOUND ? 0 : rc;
}

// Deletes a folder with everything in it; one already gone counts as deleted.
DWORD RemoveFolder(const std::wstring& folder) {
    if (!Exists(folder)) return 0;
    return DestroyDirectory(folder.c_str());
}

// The differencing disk first: a base disk must outlive the disks on it.
DWORD RemovePair(const DiskPair& pair) {
    if (DWORD rc = RemoveFile(pair.second)) return rc;
    return RemoveFile(pair.first);
}

void AddUnique(std::vector<std::wstring>& list, const std::wstring& item) {
    for (const auto& x : list)
        if (EqualsNoCase(x, item)) return;
    list.push_back(item);
}

bool SamePair(const DiskPair& a, const DiskPair& b) {
    return EqualsNoCase(a.first, b.first) && EqualsNoCase(a.second, b.second);
}

// Adds pairs to the record's pair list, each once.
DWORD AddPairs(const PendingDelContext& context, const std::vector<DiskPair>& pairs) {
    if (pairs.empty()) return 0;
    std::vector<DiskPair> recorded;
    if (DWORD rc = _ReadPendingDelPair(context, recorded)) return rc;
    for (const auto& pair : pairs)
        if (std::none_of(recorded.begin(), recorded.end(), [&](const DiskPair& r) { return SamePair(r, pair); }))
            recorded.push_back(pair);
    return _WritePendingDelPair(context, recorded);
}

DWORD OpenVm(const wchar_t* vmGuid, std::unique_ptr<platform::HyperVOperation>& operation,
             std::unique_ptr<platform::HyperVVm>& vm, const wchar_t* fn) {
    if (platform::HyperV().OpenHyperVOperation(L"", L"", L"", &operation) != 0 || !operation) {
        Log(0, L"%s() failed to open the Hyper-V operations", fn);
        return kNoHyperVOperation;
    }
    vm = operation->GetVmByGuid(vmGuid);
    if (!vm) {
        Log(0, L"%s() failed: no VM %s on this host", fn, vmGuid);
        return kNoVmOrImage;
    }
    return 0;
}

}  // namespace

std::wstring BaseDiskOf(const std::wstring& differencing) {
    const bool v2 = EndsWithNoCase(differencing, L".avhdx");
    if (!v2 && !EndsWithNoCase(differencing, L".avhd")) return L"";
    const size_t dot = differencing.rfind(L'.');
    // "_" + 36 characters of GUID before the extension.
    if (dot < 37 || differencing[dot - 37] != L'_') return L"";
    if (!IsGuidText(differencing.substr(dot - 36, 36))) return L"";
    return differencing.substr(0, dot - 37) + (v2 ? L".vhdx" : L".vhd");
}

bool IsZeroGuidDifferencing(const std::wstring& path) {
    const std::wstring zero = std::wstring(L"_") + kZeroGuid;
    return EndsWithNoCase(path, zero + L".avhd") || EndsWithNoCase(path, zero + L".avhdx");
}

void UsedDisks::Add(const std::wstring& image) {
    files_.insert(Upper(image));
    const std::wstring base = BaseDiskOf(image);
    if (!base.empty()) files_.insert(Upper(base));
}

bool UsedDisks::Uses(const std::wstring& file) const { return files_.count(Upper(file)) != 0; }

bool UsedDisks::UsesFolder(const std::wstring& folder) const {
    std::wstring prefix = Upper(folder);
    if (prefix.empty()) return false;
    if (prefix.back() != L'\\') prefix += L'\\';
    const auto it = files_.lower_bound(prefix);
    return it != files_.end() && it->compare(0, prefix.size(), prefix) == 0;
}

DWORD CollectUsedDisks(platform::HyperVVm& vm, UsedDisks& used) {
    std::vector<std::wstring> images;
    if (DWORD rc = vm.GetDiskImages(images)) {
        Log(0, L"Fail to list the disks of VM %s, rc = %d", vm.Guid().c_str(), rc);
        return rc;
    }
    for (const auto& image : images) used.Add(image);
    std::vector<std::unique_ptr<platform::HyperVSnapshot>> snapshots;
    if (DWORD rc = vm.GetSnapshotList(snapshots)) {
        Log(0, L"Fail to list the snapshots of VM %s, rc = %d", vm.Guid().c_str(), rc);
        return rc;
    }
    for (const auto& snapshot : snapshots) {
        images.clear();
        if (DWORD rc = snapshot->GetDiskImages(images)) {
            Log(0, L"Fail to list the disks of snapshot %s, rc = %d", snapshot->Guid().c_str(), rc);
            return rc;
        }
        for (const auto& image : images) used.Add(image);
    }
    return 0;
}

DWORD ReplayPendingDelRecord(const PendingDelContext& context, const UsedDisks* used, ReplayCounts* counts) {
    std::vector<std::wstring> folders, keptFolders;
    std::vector<DiskPair> pairs, keptPairs;
    if (DWORD rc = _ReadPendingDelFolderFromCfgFile(context, folders)) return rc;
    if (DWORD rc = _ReadPendingDelPair(context, pairs)) return rc;
    if (folders.empty() && pairs.empty()) return 0;
    for (const auto& pair : pairs) {
        if (used && (used->Uses(pair.first) || used->Uses(pair.second))) {
            Log(2, L"Pending disk pair %s | %s is used by the VM again; kept", pair.first.c_str(), pair.second.c_str());
            keptPairs.push_back(pair);
        } else if (DWORD rc = RemovePair(pair)) {
            LogErr(1, rc, L"Pending disk pair %s | %s can't be removed yet", pair.first.c_str(), pair.second.c_str());
            keptPairs.push_back(pair);
        } else {
            Log(2, L"Pending disk pair %s | %s removed", pair.first.c_str(), pair.second.c_str());
            ++counts->removed;
        }
    }
    for (const auto& folder : folders) {
        if (folder.empty()) continue;  // an empty entry names nothing
        if (used && used->UsesFolder(folder)) {
            Log(2, L"Pending folder %s holds disks the VM uses; kept", folder.c_str());
            keptFolders.push_back(folder);
        } else if (DWORD rc = RemoveFolder(folder)) {
            LogErr(1, rc, L"Pending folder %s can't be removed yet", folder.c_str());
            keptFolders.push_back(folder);
        } else {
            Log(2, L"Pending folder %s removed", folder.c_str());
            ++counts->removed;
        }
    }
    counts->pending = static_cast<DWORD>(keptFolders.size() + keptPairs.size());
    if (DWORD rc = _WritePendingDelFolderToCfgFile(context, keptFolders)) return rc;
    return _WritePendingDelPair(context, keptPairs);
}

DWORD BeginDeleteSnapshot_HyperV(const wchar_t* vmGuid, const wchar_t* snapshotGuid, SnapshotDeleteHandle** handle) {
    constexpr const wchar_t* fn = kBeginDeleteSnapshot_HyperV.name;
    return RunExport<kBeginDeleteSnapshot_HyperV>(
        [&](auto& frame) -> DWORD {
            if (handle) *handle = nullptr;
            if (IsNullOrEmpty(vmGuid) || IsNullOrEmpty(snapshotGuid) || !handle) return frame.InvalidParameter();
            std::unique_ptr<platform::HyperVOperation> operation;
            std::unique_ptr<platform::HyperVVm> vm;
            if (DWORD rc = OpenVm(vmGuid, operation, vm, fn)) return rc;
            auto deletion = std::make_unique<SnapshotDeleteHandle>();
            deletion->record.vmGuid = vmGuid;
            deletion->snapshotGuid = snapshotGuid;
            if (DWORD rc = vm->GetDataFolder(deletion->record.dataFolder)) {
                Log(0, L"%s() failed to get the data folder of VM %s, rc = %d", fn, vmGuid, rc);
                return rc;
            }
            // What earlier deletions left behind goes first, unless the VM
            // lists it again. A record that can't be replayed does not stop
            // this deletion; it is tried again next time.
            UsedDisks used;
            DWORD rc = CollectUsedDisks(*vm, used);
            if (rc) return rc;
            ReplayCounts replay;
            if ((rc = ReplayPendingDelRecord(deletion->record, &used, &replay)) != 0)
                Log(0, L"%s() failed to replay the pending-delete record of VM %s, rc = %d", fn, vmGuid, rc);
            else
                Log(2, L"%s(): pending-delete record replayed, removed = %d, still pending = %d", fn,
                    static_cast<int>(replay.removed), static_cast<int>(replay.pending));
            std::unique_ptr<platform::HyperVSnapshot> snapshot;
            rc = vm->GetSnapshotByGuid(snapshotGuid, &snapshot);
            if (rc == 0 && !snapshot) rc = ERROR_NOT_FOUND;
            if (rc) {
                Log(0, L"%s() failed to find snapshot %s, rc = %d", fn, snapshotGuid, rc);
                return rc;
            }
            if ((rc = snapshot->GetDiskImages(deletion->images)) != 0) {
                Log(0, L"%s() failed to list the disks of snapshot %s, rc = %d", fn, snapshotGuid, rc);
                return rc;
            }
            for (const auto& image : deletion->images) Log(2, L"%s(): snapshot disk %s", fn, image.c_str());
            *handle = deletion.release();
            return 0;
        },
        OrNull(vmGuid), OrNull(snapshotGuid));
}

DWORD EndDeleteSnapshot_HyperV(SnapshotDeleteHandle* handle, bool snapshotDeleted) {
    constexpr const wchar_t* fn = kEndDeleteSnapshot_HyperV.name;
    return RunExport<kEndDeleteSnapshot_HyperV>(
        [&](auto& frame) -> DWORD {
            if (!handle) return frame.InvalidParameter();
            const std::unique_ptr<SnapshotDeleteHandle> deletion(handle);
            if (!snapshotDeleted) {
                Log(2, L"%s(): snapshot %s was not deleted; nothing removed", fn, deletion->snapshotGuid.c_str());
                return frame.End(0, 0, 0, 0);
            }
            const wchar_t* vmGuid = deletion->record.vmGuid.c_str();
            std::unique_ptr<platform::HyperVOperation> operation;
            std::unique_ptr<platform::HyperVVm> vm;
            if (DWORD rc = OpenVm(vmGuid, operation, vm, fn)) return rc;
            std::unique_ptr<platform::HyperVSnapshot> still;
            if (vm->GetSnapshotByGuid(deletion->snapshotGuid, &still) == 0 && still) {
                Log(0, L"%s(): snapshot %s is still there; nothing removed", fn, deletion->snapshotGuid.c_str());
                return ERROR_BUSY;
            }
            UsedDisks used;
            if (DWORD rc = CollectUsedDisks(*vm, used)) return rc;

            // The snapshot's own files: the session folders its disks ran
            // from, and each zero-GUID differencing disk with its base.
            std::vector<std::wstring> folders;
            std::vector<DiskPair> pairs;
            for (const auto& image : deletion->images) {
                if (!IsVirtualDiskImage(image)) continue;
                if (IsZeroGuidDifferencing(image)) pairs.emplace_back(BaseDiskOf(image), image);
                const std::wstring folder = FolderOf(image);
                std::wstring root;
                if (GetRootAndSessNumFromPath(folder.c_str(), root, nullptr) && !root.empty()) AddUnique(folders, folder);
            }
            int removed = 0;
            std::vector<std::wstring> pendingFolders;
            std::vector<DiskPair> pendingPairs;
            for (const auto& pair : pairs) {
                if (used.Uses(pair.first) || used.Uses(pair.second)) {
                    Log(2, L"%s(): %s is still used by the VM; kept", fn, pair.second.c_str());
                } else if (DWORD rc = RemovePair(pair)) {
                    LogErr(1, rc, L"%s(): %s can't be removed now; recorded", fn, pair.second.c_str());
                    _AppendToPendingDelVhdList(pair.first, pair.second, pendingPairs);
                } else {
                    ++removed;
                }
            }
            for (const auto& folder : folders) {
                if (used.UsesFolder(folder)) {
                    Log(2, L"%s(): %s holds disks the VM still uses; kept", fn, folder.c_str());
                } else if (DWORD rc = RemoveFolder(folder)) {
                    LogErr(1, rc, L"%s(): %s can't be removed now; recorded", fn, folder.c_str());
                    pendingFolders.push_back(folder);
                } else {
                    ++removed;
                }
            }
            if (DWORD rc = _AddPendingDelFolderToCfgFile(deletion->record, pendingFolders)) return rc;
            if (DWORD rc = AddPairs(deletion->record, pendingPairs)) return rc;
            return frame.End(0, removed, static_cast<int>(pendingFolders.size() + pendingPairs.size()), 0);
        },
        static_cast<void*>(handle), static_cast<int>(snapshotDeleted));
}

DWORD CleanUselessVirtualDisk(const wchar_t* vmGuid, const wchar_t* folder) {
    constexpr const wchar_t* fn = kCleanUselessVirtualDisk.name;
    return RunExport<kCleanUselessVirtualDisk>(
        [&](auto& frame) -> DWORD {
            if (IsNullOrEmpty(vmGuid) || IsNullOrEmpty(folder)) return frame.InvalidParameter();
            std::unique_ptr<platform::HyperVOperation> operation;
            std::unique_ptr<platform::HyperVVm> vm;
            if (DWORD rc = OpenVm(vmGuid, operation, vm, fn)) return rc;
            UsedDisks used;
            if (DWORD rc = CollectUsedDisks(*vm, used)) return rc;
            // Differencing disks before the disks they are made on.
            const struct {
                const wchar_t* pattern;
                const wchar_t* extension;
            } passes[] = {{L"*000000000000.avhd", L".avhd"}, {L"*000000000000.avhdx", L".avhdx"},
                          {L"*.avhd", L".avhd"}, {L"*.avhdx", L".avhdx"}, {L"*.vhd", L".vhd"}, {L"*.vhdx", L".vhdx"}};
            int removed = 0, kept = 0;
            DWORD first = 0;
            std::set<std::wstring> seen;  // a file kept by one pass is listed again by a later one
            for (const auto& pass : passes) {
                std::vector<std::wstring> files;
                ListDirectory(JoinPath(folder, pass.pattern), [&](const WIN32_FIND_DATAW& fd) {
                    if (!IsFolder(fd)) files.push_back(JoinPath(folder, fd.cFileName));
                });
                for (const auto& file : files) {
                    // A wildcard may match more than its extension says (short names).
                    const size_t dot = file.rfind(L'.');
                    if (dot == std::wstring::npos || !EqualsNoCase(file.substr(dot), pass.extension)) continue;
                    if (!seen.insert(Upper(file)).second) continue;
                    if (used.Uses(file)) {
                        ++kept;
                        continue;
                    }
                    if (DWORD rc = RemoveFile(file)) {
                        LogErr(1, rc, L"%s(): %s can't be removed", fn, file.c_str());
                        ++kept;
                        if (!first) first = rc;
                        continue;
                    }
                    Log(2, L"%s(): %s removed", fn, file.c_str());
                    ++removed;
                }
            }
            return frame.End(first, removed, kept, static_cast<int>(first));
        },
        OrNull(vmGuid), OrNull(folder));
}

namespace {

// The record of a VM: the data folder given, or Hyper-V's.
DWORD RecordOf(const wchar_t* vmGuid, const wchar_t* dataFolder, const wchar_t* fn, PendingDelContext& context,
               std::unique_ptr<platform::HyperVVm>* keepVm) {
    context = {dataFolder ? dataFolder : L"", vmGuid};
    if (dataFolder && !keepVm) return 0;
    std::unique_ptr<platform::HyperVOperation> operation;
    std::unique_ptr<platform::HyperVVm> vm;
    if (DWORD rc = OpenVm(vmGuid, operation, vm, fn)) return rc;
    if (!dataFolder) {
        if (DWORD rc = vm->GetDataFolder(context.dataFolder)) {
            Log(0, L"%s() failed to get the data folder of VM %s, rc = %d", fn, vmGuid, rc);
            return rc;
        }
    }
    if (keepVm) *keepVm = std::move(vm);
    return 0;
}

}  // namespace

DWORD ReadPendingDelete(const wchar_t* vmGuid, const wchar_t* dataFolder, std::vector<std::wstring>& folders,
                        std::vector<DiskPair>& pairs) {
    constexpr const wchar_t* fn = kKxReadPendingDelRecord.name;
    return RunExport<kKxReadPendingDelRecord>(
        [&](auto& frame) -> DWORD {
            folders.clear();
            pairs.clear();
            if (IsNullOrEmpty(vmGuid)) return frame.InvalidParameter();
            PendingDelContext context;
            if (DWORD rc = RecordOf(vmGuid, dataFolder, fn, context, nullptr)) return rc;
            if (DWORD rc = _ReadPendingDelFolderFromCfgFile(context, folders)) return rc;
            return _ReadPendingDelPair(context, pairs);
        },
        OrNull(vmGuid), OrNull(dataFolder));
}

DWORD AddPendingDelete(const wchar_t* vmGuid, const wchar_t* dataFolder, const std::vector<std::wstring>& folders,
                       const std::vector<DiskPair>& pairs) {
    constexpr const wchar_t* fn = kKxAddPendingDelRecord.name;
    return RunExport<kKxAddPendingDelRecord>(
        [&](auto& frame) -> DWORD {
            if (IsNullOrEmpty(vmGuid)) return frame.InvalidParameter();
            for (const auto& pair : pairs)
                if (!IsAcceptedPair(pair.first, pair.second)) return frame.InvalidParameter();
            PendingDelContext context;
            if (DWORD rc = RecordOf(vmGuid, dataFolder, fn, context, nullptr)) return rc;
            if (DWORD rc = _AddPendingDelFolderToCfgFile(context, folders)) return rc;
            return AddPairs(context, pairs);
        },
        OrNull(vmGuid), OrNull(dataFolder));
}

DWORD ReplayPendingDelete(const wchar_t* vmGuid, const wchar_t* dataFolder, bool withoutHyperV, ReplayCounts* counts) {
    constexpr const wchar_t* fn = kKxReplayPendingDelRecord.name;
    return RunExport<kKxReplayPendingDelRecord>(
        [&](auto& frame) -> DWORD {
            ReplayCounts local;
            ReplayCounts& out = counts ? *counts : local;
            out = {};
            if (IsNullOrEmpty(vmGuid) || (withoutHyperV && IsNullOrEmpty(dataFolder))) return frame.InvalidParameter();
            PendingDelContext context;
            std::unique_ptr<platform::HyperVVm> vm;
            if (DWORD rc = RecordOf(vmGuid, dataFolder, fn, context, withoutHyperV ? nullptr : &vm)) return rc;
            UsedDisks used;
            if (vm) {
                if (DWORD rc = CollectUsedDisks(*vm, used)) return rc;
            } else {
                Log(1, L"%s(): without Hyper-V only files held open are kept", fn);
            }
            const DWORD rc = ReplayPendingDelRecord(context, vm ? &used : nullptr, &out);
            return frame.End(rc, static_cast<int>(out.removed), static_cast<int>(out.pending), static_cast<int>(rc));
        },
        OrNull(vmGuid), OrNull(dataFolder));
}

}  // namespace kx::hyperv
