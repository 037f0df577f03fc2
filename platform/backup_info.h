// The session description "BackupInfo.XML" of a backup session folder.
#pragma once

#include <windows.h>

#include <cstddef>
#include <string>

namespace kx::platform {

struct BackupInfo {
    DWORD sessionNumber = 0;
    std::wstring sessionGuid;
    std::wstring backupKind;  // "Full" or "Incremental"
    std::wstring status;      // "Finished", "Active", "Failed", "Canceled"
    bool encrypted = false;
};

inline constexpr const wchar_t* kBackupInfoFile = L"BackupInfo.XML";

// Reads the file (UTF-8 or UTF-16, through XmlLite). Unknown elements are
// ignored; SessionNumber, SessionGuid, BackupKind and Status are required
// (ERROR_INVALID_DATA when one is missing or not a number). A missing file
// gives its system code.
// A file larger than kMaxBackupInfoBytes, or with more than
// kMaxBackupInfoNodes nodes, is ERROR_INVALID_DATA: every input ends with a
// code.
[[nodiscard]] DWORD ReadBackupInfo(const std::wstring& xmlPath, BackupInfo* info);

// The same on the file's bytes.
[[nodiscard]] DWORD ParseBackupInfo(const void* data, size_t size, BackupInfo* info);

inline constexpr size_t kMaxBackupInfoBytes = 1 << 20;
inline constexpr size_t kMaxBackupInfoNodes = 10000;

// True when the session folder's description reads and its status is
// "Finished" (compared without regard to case).
bool IsSessionValid(const std::wstring& sessionFolder);

// The backup kind of a session folder is "Full".
bool IsFullSession(const std::wstring& sessionFolder);

}  // namespace kx::platform
