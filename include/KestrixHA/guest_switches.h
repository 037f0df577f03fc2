// Fix-ups of an offline Windows guest: the services of virtual platforms and
// the switches that make a standby or failover guest act as the production
// machine it replaces.
//
// Every call works on the guest's Windows folder `systemDir`. The ...Ex
// calls take hives loaded by GetSystemHiveKeyEx / GetSoftwareHiveKeyEx
// (null: the call loads and unloads its own); a hive given stays loaded.
// Hive load failures return the load's code (10 for a missing hive). A call
// that fails half-way has made the changes before the failure and no other;
// the debug log names the value that failed.
#pragma once

#include <string>

#include "KestrixHA/api.h"
#include "KestrixHA/guest.h"

// ---- virtual platform services ----
// Platform types: 0 Hyper-V, 1 VMware, 2 Xen on EC2, 3 Xen, 4 none, 5 Nutanix.
// Every other platform's services are disabled (start 4), the target's get
// their working start types; services the guest does not have are skipped.
// Disabling plain Xen (3) also drops "XENFILT" (any case) from the upper
// filters of the IDE controller and system device classes; a filter list
// left empty is removed. The agent's crash markers in the guest's software
// hive are cleared first. Types 6 and above change nothing and return 0; a
// negative type disables every platform. Returns 0 once it ran; single
// service writes that fail are logged.
KXHA_API DWORD RVCM_EnableVirtualPlatformServices(const std::wstring& systemDir, DWORD targetType);
// `reserved` is ignored.
KXHA_API DWORD RVCM_EnableVirtualPlatformServicesEx(const std::wstring& systemDir, DWORD targetType,
                                                    const void* reserved, RegistryHiveLoader* system,
                                                    RegistryHiveLoader* software);
// The agent service "QZSAZekWebSvc" set to manual start (3). `existed`
// (optional) tells whether the guest has the service.
KXHA_API DWORD DisableZekAgentService(const std::wstring& systemDir, BYTE* existed);
KXHA_API DWORD DisableZekAgentServiceEx(const std::wstring& systemDir, BYTE* existed, RegistryHiveLoader* system);
// The service `service` set to automatic start (2); 0 once the hive loaded.
KXHA_API DWORD SetZekServiceStart(const std::wstring& systemDir, const std::wstring& service);

// ---- host name and system switches ----
// "HostName" and "NV Hostname" get the whole name; the two computer-name
// values its first 15 characters. 87 for an empty name.
KXHA_API DWORD ChangeProductionHostName(const std::wstring& systemDir, const std::wstring& hostName);
// Stores `vmType` as "FailoverVMType" in the guest's agent settings.
KXHA_API DWORD PrepareZekForFailover(const std::wstring& systemDir, const std::wstring& vmType);
// Forgets the production machine's dynamic disk group ("PrimaryPackId").
KXHA_API DWORD DeleteDynamicDiskGroup(const std::wstring& systemDir);
KXHA_API DWORD DeleteDynamicDiskGroupEx(const std::wstring& systemDir, RegistryHiveLoader* system);
// No shutdown reason prompt; the VMware upgrade hook removed.
KXHA_API DWORD DisableShutDownEventTracker(const std::wstring& systemDir);
KXHA_API DWORD DisableShutDownEventTrackerEx(const std::wstring& systemDir, RegistryHiveLoader* software);
// Remote desktop on port 3389 through the guest's firewall, unless the
// host's "SkipEnableRDP" switch is set (then 0, nothing touched).
KXHA_API DWORD EnableTerminalService(const std::wstring& systemDir, RegistryHiveLoader* system,
                                     RegistryHiveLoader* software);
// "DisableDynamicUpdate" set to 1 unless already non-zero; `changed`
// (optional) is 1 when it was written.
KXHA_API DWORD DisableDynamicUpdate(const std::wstring& systemDir, RegistryHiveLoader* system, BYTE* changed);
