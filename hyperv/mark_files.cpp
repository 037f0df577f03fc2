#include "hyperv/mark_files.h"

#include <algorithm>
#include <cwchar>
#include <vector>

#include "bitmap/bitmap_catalogue.h"
#include "common/dest_layout.h"
#include "common/unique_resource.h"
#include "common/wstring_format.h"
#include "hyperv/disk_chain.h"
#include "log/call_frame.h"
#include "platform/hyperv_ops.h"

namespace kx::hyperv {

namespace {

// A successful first match of root\name.
bool HoldsFile(const std::wstring& root, const std::wstring& name) {
    WIN32_FIND_DATAW fd;
    unique_hfind find(::FindFirstFileW(JoinPath(root, name).c_str(), &fd));
    return find.valid();
}

DWORD SearchUnder(const std::wstring& root, const std::wstring& markFile, std::wstring& dir) {
    dir.clear();
    if (root.empty()) {
        Log(0, L"GetDirOfMarkFile_HyperV, empty input string");
        return kE_INVALIDARG;
    }
    std::wstring header;
    if (DWORD rc = GetHeaderRoot(root.c_str(), header)) {
        Log(1, L"GetDirOfMarkFile_HyperV, GetHeaderRoot failed, leaf = %s, rc = %d", root.c_str(), rc);
        header = root;
    } else {
        Log(2, L"GetDirOfMarkFile_HyperV, the header root get is %s", header.c_str());
    }
    if (HoldsFile(header, markFile)) {
        Log(2, L"GetDirOfMarkFile_HyperV, found the root in curr, root = %s", header.c_str());
        dir = header;
        return 0;
    }
    std::vector<std::wstring> roots;
    if (DWORD rc = bitmap::GetBackupDestList(header.c_str(), roots)) {
        Log(0, L"GetDirOfMarkFile_HyperV::Get root list failed, input = %s, rc = %d", header.c_str(), rc);
        return rc;
    }
    for (const auto& r : roots) {
        if (!HoldsFile(r, markFile)) continue;
        Log(2, L"GetDirOfMarkFile_HyperV, found the root, root = %s", r.c_str());
        dir = r;
        return 0;
    }
    return ERROR_FILE_NOT_FOUND;
}

// The walk over the destinations of the VM's snapshot disks: 0 with `dir`
// set at the first destination that holds the mark file, 0 with `dir` empty
// when none does, or the failing code.
DWORD SearchSnapshotRoots(platform::HyperVVm& vm, const std::wstring& markFile, std::wstring& dir) {
    std::vector<std::unique_ptr<platform::HyperVSnapshot>> snapshots;
    if (DWORD rc = vm.GetSnapshotList(snapshots)) {
        Log(0, L"GetDirOfMarkFile_HyperV, Get snapshot list failed, vm = %s, rc = %d", vm.DisplayName().c_str(), rc);
        return rc;
    }
    for (const auto& snapshot : snapshots) {
        std::vector<std::wstring> images;
        if (DWORD rc = snapshot->GetDiskImages(images)) {
            Log(0, L"GetDirOfMarkFile_HyperV, GetDiskImages failed, rc = %d", rc);
            return rc;
        }
        if (images.empty()) Log(1, L"GetDirOfMarkFile_HyperV, GetDiskImages , empty vector");
        for (const auto& image : images) {
            if (!IsVirtualDiskImage(image)) continue;
            const std::wstring folder = FolderOf(image);
            std::wstring root;
            DWORD session = 0;
            if (!GetRootAndSessNumFromPath(folder.c_str(), root, &session) || root.empty()) {
                Log(1, L"GetDirOfMarkFile_HyperV, Get root and sessNo failed, dir = %s", folder.c_str());
                continue;
            }
            std::wstring header;
            if (DWORD rc = GetHeaderRoot(root.c_str(), header)) {
                Log(1, L"GetDirOfMarkFile_HyperV, GetHeaderRoot failed, leaf = %s, rc = %d", root.c_str(), rc);
                header = root;  // not a leaf: the root is its own header
            }
            if (!HoldsFile(header, kBackupDevSig)) {
                Log(2, L"GetDirOfMarkFile_HyperV, does not exist backdev under root = %s, find next one",
                    header.c_str());
                continue;
            }
            const DWORD rc = GetDirOfMarkFile_HyperV(header, markFile, dir);
            if (rc == 0) return 0;
            if (rc != ERROR_FILE_NOT_FOUND) return rc;
        }
    }
    return 0;
}

}  // namespace

DWORD GetDirOfMarkFile_HyperV(const std::wstring& root, const std::wstring& markFile, std::wstring& dir) {
    return RunExport<kGetDirOfMarkFile_HyperV>([&](auto&) -> DWORD { return SearchUnder(root, markFile, dir); },
                                              root.c_str(), markFile.c_str());
}

DWORD GetDirOfMarkFileByVm_HyperV(const std::wstring& vmGuid, const std::wstring& markFile, std::wstring& dir) {
    return RunExport<kGetDirOfMarkFileByVm_HyperV>(
        [&](auto&) -> DWORD {
            dir.clear();
            if (vmGuid.empty()) return kE_INVALIDARG;
            std::unique_ptr<platform::HyperVOperation> operation;
            if (platform::HyperV().OpenHyperVOperation(L"", L"", L"", &operation) != 0 || !operation) {
                Log(0, L"GetDirOfMarkFileVm_HyperV::OpenHyperVOperation failed");
                return kNoHyperVOperation;
            }
            std::unique_ptr<platform::HyperVVm> vm = operation->GetVmByGuid(vmGuid);
            if (!vm) {
                Log(0, L"GetDirOfMarkFileVm_HyperV::GetVmByGuid failed");
                return kNoVmOrImage;
            }
            if (DWORD rc = SearchSnapshotRoots(*vm, markFile, dir)) {
                Log(0, L"GetDirOfMarkFileVm_HyperV, Find file in sess roots failed, rc = %d", rc);
                dir.clear();
                return rc;
            }
            return dir.empty() ? static_cast<DWORD>(ERROR_FILE_NOT_FOUND) : 0;
        },
        vmGuid.c_str(), markFile.c_str());
}

namespace {

DWORD VolumeOf(const std::wstring& path, std::wstring& volume) {
    wchar_t buf[MAX_PATH] = {};
    if (!::GetVolumePathNameW(path.c_str(), buf, MAX_PATH)) return LastErrorOr();
    volume = buf;
    return 0;
}

DWORD AddUpOffcopySize(const wchar_t* root, ULONGLONG& total) {
    std::wstring volume;
    if (DWORD rc = VolumeOf(root, volume)) {
        Log(0, L"GetOffcopySize_HyperV, GetVolumePathName failed, rc = %d", rc);
        return rc;
    }
    std::wstring header;
    if (DWORD rc = GetHeaderRoot(root, header)) {
        Log(0, L"GetOffcopySize_HyperV, GetHeaderRoot failed, rc = %d", rc);
        header = root;  // not a leaf: the root heads its own destination
    }
    auto core = platform::MakeDestinationCore();
    if (DWORD rc = core->InitBackupDest(header)) {
        Log(0, L"GetOffcopySize_HyperV, Init backup dest failed, rc = %d", rc);
        return rc;
    }
    const wchar_t* block = nullptr;
    if (DWORD rc = core->KbGetAllBackupDestinations(&block)) return rc;
    if (!block) {
        Log(0, L"GetOffcopySize_HyperV::KbGetAllBackupDestiantion, get NULL destination");
        return 0;
    }
    std::vector<std::wstring> roots;
    for (const wchar_t* p = block; *p; p += wcslen(p) + 1) {
        std::vector<std::wstring> leaves;
        if (DWORD rc = GetLeafRoots(p, leaves)) {
            Log(1, L"GetOffcopySize_HyperV, GetLeafRoots failed, curr_root = %s, rc = %d", p, rc);
            continue;
        }
        // A leaf listed as a destination of its own and under its header
        // is counted once.
        for (const auto& leaf : leaves)
            if (std::none_of(roots.begin(), roots.end(), [&](const std::wstring& r) { return EqualsNoCase(r, leaf); }))
                roots.push_back(leaf);
    }
    for (const auto& dir : roots) {
        std::wstring dirVolume;
        if (DWORD rc = VolumeOf(dir, dirVolume)) {
            Log(0, L"GetOffcopySize_HyperV, GetVolumePathName failed, dir = %s, rc = %d", dir.c_str(), rc);
            return rc;
        }
        if (!EqualsNoCase(dirVolume, volume)) continue;
        ULONGLONG bytes = 0;
        if (DWORD rc = core->KbGetFileSize(dir, &bytes)) {
            Log(1, L"GetOffcopySize_HyperV, KbGetFileSize failed, dir = %s, rc = %d", dir.c_str(), rc);
            continue;
        }
        total += bytes;
    }
    return 0;
}

}  // namespace

DWORD GetOffcopySize_HyperV(const wchar_t* root, ULONGLONG* totalSize) {
    return RunExport<kGetOffcopySize_HyperV>(
        [&](auto&) -> DWORD {
            ULONGLONG total = 0;
            const DWORD rc = !root || !totalSize ? kE_INVALIDARG : AddUpOffcopySize(root, total);
            if (totalSize) *totalSize = total;
            Log(2, L"GetOffcopySize_HyperV end, input root = %s, total_size = %I64d, rc = %d", OrNull(root),
                static_cast<long long>(total), rc);
            return rc;
        },
        OrNull(root));
}

}  // namespace kx::hyperv
