// Off-line access to a converted guest's registry hives: the host's engine
// switches and the repair of a hive whose last write did not complete.
#pragma once

#include <windows.h>

#include <memory>
#include <string>

#include "common/install_path.h"
#include "platform/registry.h"

namespace kx::guestfix {

using hostutil::HiveLoader;

// The host's engine settings: HKLM\SOFTWARE\Veltrana\Quillon\Engine, and the
// key of the hive repair switch below it.
inline constexpr const wchar_t* kEngineKey = ::kx::kEngineKey;
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
// A file that does not start with a hive's "regf" signature is not touched.
// Reports only through the log; the hive's transaction logs are not touched.
void FixHiveIntegrity(const std::wstring& hivePath);

enum class GuestHive { kSystem, kSoftware };

// The hive file below a guest's Windows folder ("...\Windows" with or
// without a trailing backslash): system32\config\system or ...\software.
std::wstring GuestHivePath(const std::wstring& systemDir, GuestHive hive);

// Loads a guest hive: checks that the file exists (10, ERROR_BAD_ENVIRONMENT,
// when it does not), enables the backup and restore privileges (their
// codes when refused), repairs a dirty system hive's header
// (FixHiveIntegrity), and, when `loader` is given, loads the hive under
// HKLM\MorvainHA.Temp.<new GUID>. The loader's own outcome is not a
// failure here: a hive neither backend could open leaves keys that do not
// open. Without `loader` only the checks, privileges and repair are done.
[[nodiscard]] DWORD LoadGuestHive(GuestHive hive, const std::wstring& systemDir, std::unique_ptr<HiveLoader>* loader);

// The hive a fix-up works on: the one its caller gave, or one loaded here
// that is unloaded when this object goes (on every path out).
class FixupHive {
public:
    // Takes `given` when it is not null; otherwise loads the hive. When the
    // load fails, or neither backend could open the hive (given or loaded),
    // logs "Fail to load system registry hive of virtual machine." (or
    // "software") and returns the load's code, or the engine's (1009 for a
    // file that is not a well-formed hive).
    // `shortLine`: the system hive's shorter line "Fail to load system
    // registry hive." (the Xen filter removal writes that one).
    [[nodiscard]] DWORD Acquire(GuestHive which, const std::wstring& systemDir, HiveLoader* given,
                                bool shortLine = false);
    HiveLoader& operator*() const noexcept { return *hive_; }
    HiveLoader* operator->() const noexcept { return hive_; }
    // `path` below the hive's root ("\\Select" and so on), opened with `access`.
    hostutil::RegistryKey Key(const std::wstring& path, REGSAM access = KEY_ALL_ACCESS) const;

private:
    std::unique_ptr<HiveLoader> own_;
    HiveLoader* hive_ = nullptr;
};

// The exports over LoadGuestHive, in the export frame.
[[nodiscard]] DWORD GetSystemHiveKeyEx(const std::wstring& systemDir, std::unique_ptr<HiveLoader>* loader);
[[nodiscard]] DWORD GetSoftwareHiveKeyEx(const std::wstring& systemDir, std::unique_ptr<HiveLoader>* loader);

// "ControlSet00" + the decimal DWORD "Current" of the system hive's \Select
// (so 12 names ControlSet0012), with 1 when it cannot be read. Returns the
// read's code. The strict form logs the outcome ("Current controlset is
// %d." or the failure with its code) for callers that stop on a failure.
DWORD CurrentControlSet(const HiveLoader& system, std::wstring* name);
DWORD CurrentControlSetStrict(const HiveLoader& system, std::wstring* name);

// The guest's Windows version from its software hive (`software` when given,
// otherwise loaded here and unloaded before returning): "CurrentVersion"
// read as major.minor, the service pack from "CSDVersion" ("Service Pack
// n", any case). Values that are absent leave 0. Returns 0 or the load's
// code.
[[nodiscard]] DWORD RegGetWinNTVerion(const std::wstring& systemDir, DWORD* major, DWORD* minor,
                                      DWORD* servicePack, HiveLoader* software = nullptr);

}  // namespace kx::guestfix
