// The .NET Framework versions installed on the host or in an offline guest,
// from the setup keys below "SOFTWARE\Microsoft\NET Framework Setup\NDP".
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "guestfix/hive_access.h"

namespace kx::guestfix {

// The version a v4\Full "Release" number stands for: the newest version
// whose smallest release number it has reached ("4.5" .. "4.8.1"), or ""
// below 4.5's.
const wchar_t* DotNetVersionOfRelease(DWORD release) noexcept;

// The versions below `ndp` (the NDP key, opened for reading), oldest first.
// Missing keys and values mean "not installed"; only `ndp` itself failing
// to open is an error (its code, with the list empty).
DWORD ReadDotNetVersions(const hostutil::RegistryKey& ndp, std::vector<std::wstring>* versions);

// The exports. `systemDir` empty and `software` null: the host's registry.
// Otherwise the guest's software hive, as the other fix-ups take it.
[[nodiscard]] DWORD GetDotNetVersion(const std::wstring& systemDir, HiveLoader* software, bool guest,
                                     std::wstring* highest, std::vector<std::wstring>* installed);

}  // namespace kx::guestfix
