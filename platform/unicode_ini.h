// Ini files that begin with the UTF-16 byte-order mark and a mark section,
// so that the profile-string calls read and write them as UTF-16.
#pragma once

#include <windows.h>

namespace kx {

// Creates `file` (replacing it) with the byte-order mark and `markSection`
// written with its terminating null. A file that cannot be created is only
// logged and gives 0: the caller goes on and the profile calls create the
// file themselves. A failed write deletes the file and returns the system
// code. Null gives E_INVALIDARG.
DWORD CreateIniWithUnicodePrefix(const wchar_t* file, const wchar_t* markSection);

// The library's ini files: mark section "[QZSIG]".
DWORD _CreateIniWithUnicodePrefix(const wchar_t* file);

}  // namespace kx
