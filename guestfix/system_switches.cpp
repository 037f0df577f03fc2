#include "guestfix/system_switches.h"

#include "common/wstring_format.h"
#include "log/call_frame.h"
#include "log/debug_log.h"

namespace kx::guestfix {

namespace {

using hostutil::RegistryKey;

constexpr DWORD kRdpPort = 3389;

std::wstring CcsPath(const HiveLoader& system, const std::wstring& below) {
    std::wstring ccs;
    (void)CurrentControlSet(system, &ccs);
    return L"\\" + ccs + below;
}

// The full path of a key below a hive's load key, for log lines.
std::wstring Shown(const FixupHive& hive, const std::wstring& path) { return hive->GetHiveName() + path; }

// Sets a string value of the key at `path`, logging a failure with the key.
DWORD SetString(const FixupHive& hive, const std::wstring& path, const wchar_t* name, const std::wstring& value) {
    const DWORD rc = hive.Key(path).SetValue(name, value);
    if (rc) LogErr(0, rc, L"Fail to set %s under %s", name, Shown(hive, path).c_str());
    return rc;
}

DWORD HostName(const std::wstring& systemDir, const std::wstring& name) {
    FixupHive hive;
    if (DWORD rc = hive.Acquire(GuestHive::kSystem, systemDir, nullptr)) return rc;
    const std::wstring tcpip = CcsPath(*hive, L"\\Services\\Tcpip\\Parameters");
    if (DWORD rc = SetString(hive, tcpip, L"HostName", name)) return rc;
    if (DWORD rc = SetString(hive, tcpip, L"NV Hostname", name)) return rc;
    std::wstring netbios = name;
    if (netbios.size() > kNetBiosNameChars) {
        Log(1, L"new computer name is longer than 15 characters, NetBios name is set to truncate the first 15 "
               L"characters");
        netbios.resize(kNetBiosNameChars);
    }
    if (DWORD rc = SetString(hive, CcsPath(*hive, L"\\Control\\ComputerName\\ComputerName"), L"ComputerName", netbios))
        return rc;
    // The active name goes under the value name "ActiveComputerName".
    return SetString(hive, CcsPath(*hive, L"\\Control\\ComputerName\\ActiveComputerName"), L"ActiveComputerName",
                     netbios);
}

DWORD FailoverType(const std::wstring& systemDir, const std::wstring& vmType) {
    FixupHive hive;
    if (DWORD rc = hive.Acquire(GuestHive::kSoftware, systemDir, nullptr)) return rc;
    RegistryKey key = hive.Key(L"\\Veltrana\\Quillon\\Engine");
    if (!key) {
        Log(2, L"fail to open reg root key to set FailoverVMType, try use QZ\\QZ Veltrana Zek.");
        key = hive.Key(L"\\QZ\\QZ Veltrana Zek");
    }
    const DWORD rc = key.SetValue(L"FailoverVMType", vmType);
    if (rc) LogErr(0, rc, L"Fail to set FailoverVMType");
    return rc;
}

DWORD DiskGroup(const std::wstring& systemDir, HiveLoader* system) {
    Log(2, L"Begin to delete obsolete dynamic disk group.");
    FixupHive hive;
    if (DWORD rc = hive.Acquire(GuestHive::kSystem, systemDir, system)) return rc;
    RegistryKey volmgrx = hive.Key(CcsPath(*hive, L"\\Services\\volmgrx"));
    // A guest without the key or the value has no group to forget.
    if (volmgrx) {
        if (DWORD rc = volmgrx.DeleteValue(L"PrimaryPackId"); rc && rc != ERROR_FILE_NOT_FOUND)
            LogErr(1, rc, L"Could not delete PrimaryPackId under %s",
                   Shown(hive, CcsPath(*hive, L"\\Services\\volmgrx")).c_str());
    }
    Log(2, L"End deleting obsolete dynamic disk group.");
    return ERROR_SUCCESS;
}

DWORD ShutdownTracker(const std::wstring& systemDir, HiveLoader* software) {
    FixupHive hive;
    if (DWORD rc = hive.Acquire(GuestHive::kSoftware, systemDir, software)) return rc;
    RegistryKey policies = hive.Key(L"\\Policies\\Microsoft\\Windows NT");
    RegistryKey reliability = policies.CreateSubItem(L"Reliability", KEY_ALL_ACCESS);
    const DWORD rc = reliability ? reliability.SetValue(L"ShutdownReasonOn", DWORD{0}) : reliability.Error();
    if (rc) LogErr(0, rc, L"Fail to set ShutdownReasonOn");
    RegistryKey notify = hive.Key(L"\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon\\Notify");
    if (notify.IsExist(L"VMUpgradeAtShutdown", KEY_READ)) {
        const DWORD hook = notify.DelSubKey(L"VMUpgradeAtShutdown");
        Log(2, L"Disable winlogon notify for VMUpgradeAtShutdown, return value is %d", hook);
    }
    return rc;
}

constexpr const wchar_t* kFirewallPolicy = L"\\Services\\SharedAccess\\Parameters\\FirewallPolicy\\";

// A key of the guest's firewall policy; a failure to open it is logged.
RegistryKey OpenFirewallKey(const FixupHive& system, const std::wstring& path) {
    RegistryKey key = system.Key(path);
    if (!key) Log(0, L"Failed to open Registry Key %s, Error:%lu.", Shown(system, path).c_str(), key.Error());
    return key;
}

// Guests of version 6 and later: inbound TCP rules for port 3389 made
// active when they allow.
DWORD OpenRdpFirewallRules(const FixupHive& system) {
    const std::wstring path = CcsPath(*system, kFirewallPolicy + std::wstring(L"FirewallRules"));
    RegistryKey rules = OpenFirewallKey(system, path);
    if (!rules) return rules.Error();
    DWORD last = ERROR_SUCCESS;
    std::wstring name, text, rewritten;
    DWORD rc = ERROR_SUCCESS;
    for (DWORD i = 0; (rc = rules.EnumNextValue(i, &name, &text)) == ERROR_SUCCESS; ++i) {
        if (!RewriteRdpRule(text, &rewritten)) continue;
        last = rules.SetValue(name, rewritten);
        if (last)
            Log(0, L"Failed (Error: 0x%08x) to Update Registry Key %s=%s.", last, name.c_str(), rewritten.c_str());
        else
            Log(2, L"Set Registry Key %s=%s.", name.c_str(), rewritten.c_str());
    }
    if (rc != ERROR_NO_MORE_ITEMS) LogErr(0, rc, L"Enumerating the firewall rules of %s stopped", Shown(system, path).c_str());
    return last;
}

// Older guests: the standard profile's list of globally open ports.
DWORD OpenRdpStandardProfile(const FixupHive& system) {
    RegistryKey profile = OpenFirewallKey(system, CcsPath(*system, kFirewallPolicy + std::wstring(L"StandardProfile")));
    if (!profile) return profile.Error();
    DWORD enabled = 0;
    if (DWORD rc = profile.GetValue(L"EnableFirewall", 0, &enabled)) {
        Log(0, L"Failed to Get the Attribute: EnableFirewall, and then Disable Firewall, Error:%lu.", rc);
        return profile.SetValue(L"EnableFirewall", DWORD{0});
    }
    if (!enabled) return ERROR_SUCCESS;
    Log(2, L"Start to Update the firewall rules for Remote Desktop.");
    RegistryKey ports = profile.CreateSubItem(L"GloballyOpenPorts", KEY_ALL_ACCESS);
    if (!ports) {
        Log(0, L"Failed to Create SubKey GloballyOpenPorts, Error:%lu.", ports.Error());
        return ports.Error();
    }
    RegistryKey list = ports.CreateSubItem(L"List", KEY_ALL_ACCESS);
    if (!list) {
        Log(0, L"Failed to Create SubKey List, Error:%lu.", list.Error());
        return list.Error();
    }
    const DWORD rc = list.SetValue(L"3389:TCP", L"3389:TCP:*:Enabled:Remote Desktop");
    if (rc)
        Log(0, L"Failed to set the Remote Desktop to Exception list successfully.");
    else
        Log(2, L"Set the Remote Desktop to the Exception Rule List successfully.");
    return rc;
}

DWORD AllowConnections(const FixupHive& hive, const std::wstring& path) {
    RegistryKey key = hive.Key(path);
    if (!key) {
        Log(0, L"Failed to Open Registry Key %s.", Shown(hive, path).c_str());
        return key.Error();
    }
    const DWORD rc = key.SetValue(L"fDenyTSConnections", DWORD{0});
    if (rc)
        Log(0, L"Failed to Set fDenyTSConnections = 0, Error(0x%08x.)", rc);
    else
        Log(2, L"Enable %s fDenyTSConnections = 0 Successfully.", Shown(hive, path).c_str());
    return rc;
}

DWORD ConfigureRdpTcp(const FixupHive& system, DWORD last) {
    Log(2, L"Start to Configure the Terminal Service.");
    const std::wstring path = CcsPath(*system, L"\\Control\\Terminal Server\\Winstations\\RDP-Tcp");
    RegistryKey rdp = system.Key(path);
    if (!rdp) {
        Log(0, L"Failed to Open Registry Key %s.", Shown(system, path).c_str());
        return rdp.Error();
    }
    Log(2, L"Succeed to Open Registry Key %s.", Shown(system, path).c_str());
    DWORD port = 0;
    (void)rdp.GetValue(L"PortNumber", 0, &port);
    Log(2, L"The RDP port %d", port);
    if (port != kRdpPort) {
        Log(2, L"Set Original RDP port %d to 3389.", port);
        last = rdp.SetValue(L"PortNumber", kRdpPort);
        if (last) Log(0, L"Set Original RDP port to 3389, Error %d.", last);
    }
    DWORD adapter = 0;
    (void)rdp.GetValue(L"LanAdapter", 0, &adapter);
    Log(2, L"LanAdapter = %d", adapter);
    if (adapter != 0) {
        Log(2, L"Start to Set Original LanAdapter = 0.");
        last = rdp.SetValue(L"LanAdapter", DWORD{0});
        if (last) Log(0, L"Set Original LanAdapter = 0, Error %d.", last);
    }
    Log(2, L"Succeed to Configure the Terminal Service.");
    return last;
}

DWORD TerminalService(const std::wstring& systemDir, HiveLoader* systemGiven, HiveLoader* softwareGiven) {
    DWORD skip = 0;
    (void)ReadEngineDword(L"SkipEnableRDP", &skip, kEngineKey, 0);
    if (skip) {
        Log(2, L"Skip to enable Terminal Service and firewall rules due to registry key %s under %s is enabled.",
            L"SkipEnableRDP", kEngineKey);
        return ERROR_SUCCESS;
    }
    FixupHive system, software;
    if (DWORD rc = system.Acquire(GuestHive::kSystem, systemDir, systemGiven)) return rc;
    if (DWORD rc = software.Acquire(GuestHive::kSoftware, systemDir, softwareGiven)) return rc;
    DWORD major = 0, minor = 0, sp = 0;
    if (DWORD rc = RegGetWinNTVerion(systemDir, &major, &minor, &sp, &*software))
        Log(0, L"RegGetWinVer failed, rc = %d", rc);
    DWORD last = major >= 6 ? OpenRdpFirewallRules(system) : OpenRdpStandardProfile(system);
    Log(2, L"Start to Enable Terminal Service.");
    last = AllowConnections(system, CcsPath(*system, L"\\Control\\Terminal Server"));
    last = AllowConnections(software, L"\\Policies\\Microsoft\\Windows NT\\Terminal Services");
    return ConfigureRdpTcp(system, last);
}

DWORD DynamicUpdate(const std::wstring& systemDir, HiveLoader* given, BYTE* changed) {
    if (changed) *changed = 0;
    FixupHive hive;
    if (DWORD rc = hive.Acquire(GuestHive::kSystem, systemDir, given)) return rc;
    std::wstring ccs;
    if (DWORD rc = CurrentControlSetStrict(*hive, &ccs)) return rc;
    RegistryKey tcpip = hive.Key(L"\\" + ccs + L"\\Services\\Tcpip\\Parameters");
    DWORD value = 0;
    const DWORD read = tcpip.GetValue(L"DisableDynamicUpdate", 0, &value);
    if (read == ERROR_SUCCESS && value != 0) {
        Log(2, L"The DisableDynamicUpdate key value is %d. Need not to change.", value);
        return ERROR_SUCCESS;
    }
    if (read != ERROR_SUCCESS)
        Log(0, L"Failed to get the DisableDynamicUpdate key value,error code : %d, set as 1.", read);
    if (DWORD rc = tcpip.SetValue(L"DisableDynamicUpdate", DWORD{1})) {
        Log(0, L"Failed to set the dynamic update registery.ret = %d", rc);
        return rc;
    }
    if (changed) *changed = 1;
    if (read == ERROR_SUCCESS) Log(2, L"Successfully change DisableDynamicUpdate key value to 1.");
    return ERROR_SUCCESS;
}

}  // namespace

bool RewriteRdpRule(const std::wstring& rule, std::wstring* rewritten) {
    if (rule.find(L"|LPort=3389|") == std::wstring::npos || rule.find(L"|Dir=In|") == std::wstring::npos ||
        rule.find(L"|Protocol=6|") == std::wstring::npos)
        return false;
    std::wstring out;
    bool allow = false;
    for (size_t pos = 0; pos < rule.size();) {
        size_t end = rule.find(L'|', pos);
        if (end == std::wstring::npos) end = rule.size();
        const std::wstring field = rule.substr(pos, end - pos);
        pos = end + 1;
        if (field.empty()) continue;
        const size_t eq = field.find(L'=');
        const std::wstring name = field.substr(0, eq);
        const std::wstring value = eq == std::wstring::npos ? std::wstring() : field.substr(eq + 1);
        if (EqualsNoCase(name, L"Action")) allow = EqualsNoCase(value, L"Allow");
        out += EqualsNoCase(name, L"Active") ? std::wstring(L"Active=") + (allow ? L"True" : L"False") : field;
        out += L'|';
    }
    *rewritten = std::move(out);
    return true;
}

DWORD ChangeProductionHostName(const std::wstring& systemDir, const std::wstring& hostName) {
    return RunExport<kChangeProductionHostName>(
        [&](auto& frame) -> DWORD {
            if (hostName.empty()) return frame.InvalidParameter();
            return HostName(systemDir, hostName);
        },
        systemDir.c_str(), hostName.c_str());
}

DWORD PrepareZekForFailover(const std::wstring& systemDir, const std::wstring& vmType) {
    return RunExport<kPrepareZekForFailover>([&](auto&) -> DWORD { return FailoverType(systemDir, vmType); },
                                             systemDir.c_str(), vmType.c_str());
}

DWORD DeleteDynamicDiskGroup(const std::wstring& systemDir) {
    return RunExport<kDeleteDynamicDiskGroup>([&](auto&) -> DWORD { return DiskGroup(systemDir, nullptr); },
                                              systemDir.c_str());
}

DWORD DeleteDynamicDiskGroupEx(const std::wstring& systemDir, HiveLoader* system) {
    return RunExport<kDeleteDynamicDiskGroupEx>([&](auto&) -> DWORD { return DiskGroup(systemDir, system); });
}

DWORD DisableShutDownEventTracker(const std::wstring& systemDir) {
    return RunExport<kDisableShutDownEventTracker>(
        [&](auto&) -> DWORD { return ShutdownTracker(systemDir, nullptr); }, systemDir.c_str());
}

DWORD DisableShutDownEventTrackerEx(const std::wstring& systemDir, HiveLoader* software) {
    return RunExport<kDisableShutDownEventTrackerEx>(
        [&](auto&) -> DWORD { return ShutdownTracker(systemDir, software); });
}

DWORD EnableTerminalService(const std::wstring& systemDir, HiveLoader* system, HiveLoader* software) {
    return RunExport<kEnableTerminalService>(
        [&](auto&) -> DWORD { return TerminalService(systemDir, system, software); });
}

DWORD DisableDynamicUpdate(const std::wstring& systemDir, HiveLoader* system, BYTE* changed) {
    return RunExport<kDisableDynamicUpdate>([&](auto&) -> DWORD { return DynamicUpdate(systemDir, system, changed); });
}

}  // namespace kx::guestfix
