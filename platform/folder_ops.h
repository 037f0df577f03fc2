// Folder services of the library: recursive delete and listing by wildcard.
// Both run in the export frame (their start and end lines), also when the
// library calls them itself.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace kx {

// Deletes `folder` with everything in it. 87 for a null or empty folder, 5
// when it is not there or cannot be written, else the first failing call's
// code (what was deleted before it stays deleted).
[[nodiscard]] DWORD DestroyDirectory(const wchar_t* folder);

// Appends "<folder>\<name>" for every entry matching `pattern` (files and
// folders, not "." and ".."). The pattern must hold a "\".
[[nodiscard]] DWORD GetFileListByPattern(const wchar_t* pattern, std::vector<std::wstring>& files);

}  // namespace kx
