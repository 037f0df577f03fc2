// Folder helpers.
#pragma once

#include <string>
#include <vector>

#include "KestrixHA/api.h"

// Deletes a folder with everything in it. 0, 87 for a null or empty folder,
// 5 when the folder is missing or not writable, or the first failing system
// code; what could not be removed stays.
KXHA_API DWORD DestroyDirectory(const wchar_t* folder);

// Lists "folder\name" of every entry matching `pattern` (a wildcard in the
// last component; the pattern must contain a backslash). Entries are
// appended to `files`. 0, 87 for a pattern without a backslash, or the
// failing system code.
KXHA_API DWORD GetFileListByPattern(const wchar_t* pattern, std::vector<std::wstring>& files);

// The full path of the debug log file that the library writes now (after
// rotation). `chars` gives the buffer's size in characters; 122 with the
// needed size (terminating null included) when it is too small, 87 for null
// pointers.
KXHA_API DWORD KxGetDebugLogFile(wchar_t* buffer, DWORD* chars);
