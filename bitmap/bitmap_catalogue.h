// Listing, checking and removing the prepared bitmap folders of backup
// destinations.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "KestrixHA/bitmap_catalogue.h"

namespace kx::bitmap {

DWORD GetBackupDestListImpl(const wchar_t* path, std::vector<std::wstring>& roots);
DWORD GetBitmapList4BackupDestImpl(const wchar_t* root, std::vector<std::wstring>& sessions);
DWORD GetSessionBitmapListImpl(const wchar_t* path, std::vector<std::wstring>& sessions);
DWORD GetBitmapDiskListImpl(const wchar_t* path, const wchar_t* session, std::vector<std::wstring>& files);
DWORD CheckSessionBitmapImpl(const wchar_t* root, const wchar_t* session, SessionBitmapCheck* result);
DWORD DeleteBitmap4BackupDestImpl(const wchar_t* root, const wchar_t* limit);
DWORD DeleteSessionBitmapImpl(const wchar_t* path, const wchar_t* session);
DWORD DetectAndRemoveObsolteBitmapImpl(const wchar_t* path, const wchar_t* begin, const wchar_t* end);

}  // namespace kx::bitmap
