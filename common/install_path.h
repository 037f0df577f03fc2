// Where the product is installed: value "Path" of
// HKLM\SOFTWARE\Veltrana\Quillon\Engine\InstallPath.
#pragma once

#include <windows.h>

#include <string>

namespace kx {

// The host's engine settings, and the key of its install folder below them.
inline constexpr const wchar_t* kEngineKey = L"SOFTWARE\\Veltrana\\Quillon\\Engine";
inline constexpr const wchar_t* kInstallPathKey = L"SOFTWARE\\Veltrana\\Quillon\\Engine\\InstallPath";

// The install folder with trailing backslashes dropped (a drive root keeps
// its own). 0, or the registry's code (ERROR_FILE_NOT_FOUND for an empty
// value). Writes no log line: the debug log reads it to find its own folder.
[[nodiscard]] DWORD GetZekInstallPath(std::wstring& path);

}  // namespace kx
