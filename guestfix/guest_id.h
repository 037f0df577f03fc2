// The identifier a VMware VM's configuration uses for a Windows guest
// (its "guestOS"), from the guest's version, build, edition and
// architecture.
#pragma once

#include <windows.h>

#include <string>

#include "guestfix/hive_access.h"

namespace kx::guestfix {

// Processor architectures as GetSystemInfo names them.
inline constexpr DWORD kArchX86 = PROCESSOR_ARCHITECTURE_INTEL;  // 0
inline constexpr DWORD kArchX64 = PROCESSOR_ARCHITECTURE_AMD64;  // 9

struct WindowsRelease {
    DWORD major = 0;
    DWORD minor = 0;
    DWORD build = 0;  // decides among the 10.0 releases; 0 when unknown
    bool server = false;
    DWORD architecture = kArchX64;
};

// The identifier of a known release, or null. No log, no fallback.
const wchar_t* VmwareGuestId(const WindowsRelease& release) noexcept;

// The identifier for a VM that runs an unknown release.
const wchar_t* FallbackGuestId(DWORD architecture) noexcept;

// An offline guest's release: version, build and edition from its
// software hive's "Windows NT\CurrentVersion" (CurrentMajorVersionNumber and
// CurrentMinorVersionNumber where present, since 10.0 keeps CurrentVersion
// at "6.3"; CurrentBuildNumber; InstallationType), edition and architecture
// from its system hive's ProductOptions "ProductType" (WinNT is a client)
// and Session Manager\Environment "PROCESSOR_ARCHITECTURE". An architecture
// not given or not known reads as PROCESSOR_ARCHITECTURE_UNKNOWN. Hives
// that are given stay loaded; others are loaded here and unloaded.
[[nodiscard]] DWORD ReadGuestRelease(const std::wstring& systemDir, HiveLoader* software, HiveLoader* system,
                                     WindowsRelease* release);

// The export: `*guestId` is the known identifier (0) or the fallback
// (ERROR_NOT_FOUND, logged as a warning).
[[nodiscard]] DWORD GetGuestID(const WindowsRelease& release, std::wstring* guestId);
// The same for an offline guest (ReadGuestRelease); `release` is optional.
[[nodiscard]] DWORD GetGuestIDEx(const std::wstring& systemDir, HiveLoader* software, HiveLoader* system,
                                 std::wstring* guestId, WindowsRelease* release);

}  // namespace kx::guestfix
