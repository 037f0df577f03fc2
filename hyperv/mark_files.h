// Which backup destination a mark file tags, and how much the destinations
// on one volume hold. Each function is the export of the same name, run in
// the export frame.
//
// A mark file is a file the caller put into one destination root to tag it;
// "BackupDev.sig" is the file every destination root holds. The search under
// a root looks in the root's header destination first (the root itself when
// it is not a leaf), then in every destination of that header, in order.
#pragma once

#include <windows.h>

#include <string>

namespace kx::hyperv {

inline constexpr const wchar_t* kBackupDevSig = L"BackupDev.sig";

// 0 with the root that holds `markFile`, E_INVALIDARG for an empty root,
// ERROR_FILE_NOT_FOUND (2) when none does, or the destination list's code.
[[nodiscard]] DWORD GetDirOfMarkFile_HyperV(const std::wstring& root, const std::wstring& markFile, std::wstring& dir);

// The same, starting from the destinations whose session folders hold the
// disks of the VM's snapshots. 0xFFFFFFFF without Hyper-V operations,
// 0xFFFFFFFE for an unknown VM, 2 when no destination holds the mark file.
[[nodiscard]] DWORD GetDirOfMarkFileByVm_HyperV(const std::wstring& vmGuid, const std::wstring& markFile,
                                                std::wstring& dir);

// The bytes held by every destination root (header and leaves) that lives on
// the same volume as `root`. E_INVALIDARG for a null root or out pointer.
[[nodiscard]] DWORD GetOffcopySize_HyperV(const wchar_t* root, ULONGLONG* totalSize);

}  // namespace kx::hyperv
