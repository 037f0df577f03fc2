// The services of virtual platforms in an offline guest: the target
// platform's integration services and paravirtual drivers get their working
// start types, every other platform's are disabled; the backup agent's crash
// markers in the guest copy are cleared; the product's agent service start.
#pragma once

#include <windows.h>

#include <string>

#include "guestfix/hive_access.h"

namespace kx::guestfix {

// Virtual platform types: 0 Hyper-V, 1 VMware, 2 Xen on EC2, 3 Xen,
// 4 none of them (every table disabled), 5 Nutanix. 6 and above are
// refused (0 returned, nothing changed); the comparison is signed, so a
// negative type disables every table and enables none.
inline constexpr DWORD kPlatformTypeCount = 6;

// Sets "Start" of the service `service` in the guest's current control set
// when the service key exists (an absent service is skipped, 0). `existed`
// (optional) tells whether it did. Returns the load's code or the write's.
[[nodiscard]] DWORD SetServiceStartType(const std::wstring& systemDir, const std::wstring& service, DWORD start,
                                        BYTE* existed, HiveLoader* system);

// Sets the two crash markers of the agent's guest copy to 0 (under
// Veltrana\Quillon\Engine\KbBackupDll, or QZ\QZ Veltrana Zek\KbBackupDll
// where the first cannot be opened).
DWORD CleanSessionCrashFlag(const std::wstring& systemDir, HiveLoader* software);

// Drops "XENFILT" (any case) from "UpperFilters" of the IDE controller
// and system device classes. A list that had only it loses the value.
DWORD RemoveXenFilter(const std::wstring& systemDir, HiveLoader* system);

// The platform switch; `system`/`software` may be null (then each step
// loads and unloads its own hive). Returns 0 once it ran, whatever single
// service writes did (they are logged).
DWORD EnableVirtualPlatformServices(const std::wstring& systemDir, DWORD targetType, HiveLoader* system,
                                    HiveLoader* software);

// The exports, in the export frame.
[[nodiscard]] DWORD RVCM_EnableVirtualPlatformServices(const std::wstring& systemDir, DWORD targetType);
[[nodiscard]] DWORD RVCM_EnableVirtualPlatformServicesEx(const std::wstring& systemDir, DWORD targetType,
                                                         HiveLoader* system, HiveLoader* software);
[[nodiscard]] DWORD DisableZekAgentService(const std::wstring& systemDir, BYTE* existed);
[[nodiscard]] DWORD DisableZekAgentServiceEx(const std::wstring& systemDir, BYTE* existed, HiveLoader* system);
[[nodiscard]] DWORD SetZekServiceStart(const std::wstring& systemDir, const std::wstring& service);

}  // namespace kx::guestfix
