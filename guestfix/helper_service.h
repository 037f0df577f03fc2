// Registers services in an offline guest's system hive, and installs the
// helper service (its files and its registration) that the converted guest
// runs on its first start.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "guestfix/hive_access.h"

namespace kx::guestfix {

inline constexpr const wchar_t* kHelperServiceName = L"qlnvmhelpersvc";
inline constexpr const wchar_t* kHelperServiceImage = L"qlnvmhelpersvc.exe";
// The helper's folder below the guest's Windows folder.
inline constexpr const wchar_t* kHelperServiceFolder = L"System32\\qlnvmhelpersvc";

// One service as the service manager keeps it: an own-process service
// (Type 0x10) running as LocalSystem, ErrorControl 1 (normal).
struct ServiceEntry {
    std::wstring name;
    std::wstring displayName;
    std::wstring description;
    std::wstring imagePath;  // stored as REG_EXPAND_SZ, quoted when it holds a blank
    DWORD start = SERVICE_AUTO_START;
    std::vector<std::wstring> dependencies;  // "DependOnService"; none: the value is removed
    bool safeBootNetwork = false;            // also allowed in safe boot with networking
};

// The control sets a guest boots from: every non-zero "Current", "Default",
// "LastKnownGood" and "Failed" of \Select, each once, as "ControlSet00n",
// in that order. 0, or the read's code when \Select has no "Current".
DWORD BootControlSets(const HiveLoader& system, std::vector<std::wstring>* sets);

// The recovery settings written as "FailureActions": restart after one
// minute on the first and second failure, nothing on later ones, the count
// of failures reset after a day. The registry keeps SERVICE_FAILURE_ACTIONS
// flattened: reset period, two placeholder pointer words (no reboot message,
// no command), the number of actions, a placeholder word for the action
// array, then each action as {type, delay in ms}.
std::vector<BYTE> HelperFailureActions();

// A self-relative security descriptor for a service key's
// "Security\Security": owner and group LocalSystem; full control for
// LocalSystem and Administrators, query, start, stop and interrogate for
// interactive and service users. 0 or the conversion's code.
DWORD ServiceSecurityDescriptor(std::vector<BYTE>* descriptor);

// Writes `entry` into every boot control set of a loaded system hive. A
// control set named by \Select but missing from the hive is logged and
// passed over; none present gives ERROR_FILE_NOT_FOUND. Values already as
// wanted are rewritten with the same data, so a second call changes
// nothing. The first failing write's code ends the call.
DWORD WriteService(const FixupHive& system, const ServiceEntry& entry);

// The exports, in the export frame (see KestrixHA/guest_service.h).
[[nodiscard]] DWORD RVCM_InjectServiceToHive(const std::wstring& systemDir, const std::wstring& name,
                                             const std::wstring& displayName, const std::wstring& imagePath,
                                             DWORD startType, const std::vector<std::wstring>& dependencies,
                                             HiveLoader* system);
[[nodiscard]] DWORD Ivm_InjectHelperServiceToHive(const std::wstring& systemDir, const std::wstring& sourceDir);
[[nodiscard]] DWORD Ivm_InjectHelperServiceToHiveEx(const std::wstring& systemDir, const std::wstring& sourceDir,
                                                    HiveLoader* system);
[[nodiscard]] DWORD Ivm_InjectHelperServiceToHiveForVsb(const std::wstring& systemDir, const std::wstring& sourceDir,
                                                        HiveLoader* system, HiveLoader* software);

}  // namespace kx::guestfix
