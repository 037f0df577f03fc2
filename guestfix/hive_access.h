// Off-line access to a converted guest's registry hives: the host's engine
// switches and the repair of a hive whose last write did not complete.
#pragma once

#include <windows.h>

#include <string>

namespace kx::guestfix {

// The host's engine settings: HKLM\SOFTWARE\Veltrana\Quillon\Engine, and the
// key of the hive repair switch below it.
inline constexpr const wchar_t* kEngineKey = L"SOFTWARE\\Veltrana\\Quillon\\Engine";
inline constexpr const wchar_t* kBackupDllKey = L"SOFTWARE\\Veltrana\\Quillon\\Engine\\KbBackupDll";

// Reads the DWORD `name` under HKLM\<keyPath> (the engine key when keyPath
// is null or empty) with KEY_READ. `*value` is `fallback` unless the read
// succeeds. Returns the registry's code.
DWORD ReadEngineDword(const wchar_t* name, DWORD* value, const wchar_t* keyPath, DWORD fallback);

// Repairs the base block of the hive file `hivePath` when its primary and
// secondary sequence numbers differ: the secondary is set to the primary and
// the checksum (XOR of the first 508 bytes as 32-bit words) is stored at byte
// 508 exactly as computed, 0 and ~0 included. A hive whose numbers agree is
// left byte for byte alone, whatever its checksum. Nothing is done when the
// DWORD "FixHiveIntegrity" under the KbBackupDll key is 0 (absent means on).
// Reports only through the log; the hive's transaction logs are not touched.
void FixHiveIntegrity(const std::wstring& hivePath);

}  // namespace kx::guestfix
