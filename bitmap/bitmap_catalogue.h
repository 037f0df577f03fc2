// Listing, checking and removing the prepared bitmap folders of backup
// destinations. Each function is the export of the same name, run in the
// export frame (also when one calls another).
//
// Names that the library puts into paths must be plain: a session name is
// "S" and ten digits; anything else is refused with 87 before a path is made.
// A destination root that does not exist is ERROR_PATH_NOT_FOUND (3) with a
// line saying which, for every call that takes a root or a path.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "KestrixHA/bitmap_catalogue.h"

namespace kx::bitmap {

[[nodiscard]] DWORD GetBackupDestList(const wchar_t* path, std::vector<std::wstring>& roots);
[[nodiscard]] DWORD GetBitmapList4BackupDest(const wchar_t* root, std::vector<std::wstring>& sessions);
[[nodiscard]] DWORD GetSessionBitmapList(const wchar_t* path, std::vector<std::wstring>& sessions);
[[nodiscard]] DWORD GetBitmapDiskList(const wchar_t* path, const wchar_t* session, std::vector<std::wstring>& files);
[[nodiscard]] DWORD CheckSessionBitmap(const wchar_t* root, const wchar_t* session, SessionBitmapCheck* result);
[[nodiscard]] DWORD DeleteBitmap4BackupDest(const wchar_t* root, const wchar_t* limit);
[[nodiscard]] DWORD DeleteSessionBitmap(const wchar_t* path, const wchar_t* session);
[[nodiscard]] DWORD DetectAndRemoveObsolteBitmap(const wchar_t* path, const wchar_t* begin, const wchar_t* end);

}  // namespace kx::bitmap
