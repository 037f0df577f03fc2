// Folder helpers: recursive delete, listing by wildcard, copying a tree.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace kx {

// See the exports of the same names. Both log their start and end lines.
DWORD DestroyDirectoryImpl(const wchar_t* folder);
DWORD GetFileListByPatternImpl(const wchar_t* pattern, std::vector<std::wstring>& files);

// Copies every file (not folder) of `source` into `target`, overwriting.
// An HRESULT: 0, or the HRESULT of the first failing copy.
DWORD CopyFolderFiles(const std::wstring& source, const std::wstring& target);

// CopyFolderFiles, then every sub-folder by the same call. An existing
// target folder is fine.
DWORD CopyFolderTree(const std::wstring& source, const std::wstring& target);

// True for the "." and ".." entries of a listing.
bool IsDotEntry(const wchar_t* name) noexcept;

}  // namespace kx
