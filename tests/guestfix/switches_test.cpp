// Virtual platform services and system switches, on both hive backends with
// the same assertions (Wine-format hives the system loads, real hive files
// the engine holds), on a Windows 7 guest converted from VMware and a
// Windows Server 2003 guest. The fix-ups that load their own hive are
// checked on real files. A whole fix-up sequence on one loaded pair is
// compared with the same fix-ups each loading its own hive, and its result
// in the real file is left for hivex, reglookup and regfexport to compare
// with the same sequence as Wine's registry holds it.
#include <gtest/gtest.h>

#include <map>

#include "guestfix/boot_config.h"
#include "guestfix/driver_injection.h"
#include "guestfix/platform_services.h"
#include "guestfix/system_switches.h"
#include "guest_test_util.h"

namespace {

namespace g = kx::guestfix;
using kx::hostutil::HiveLoader;
using kx::hostutil::RegistryKey;
using kxguest::Guest;
using kxguest::Open;

constexpr DWORD kAbsent = 0xFFFFFFFF;

DWORD Dword(const HiveLoader& hive, const std::wstring& path, const std::wstring& name) {
    DWORD v = kAbsent;
    Open(hive, path, KEY_READ).GetValue(name, kAbsent, &v);
    return v;
}

std::wstring Text(const HiveLoader& hive, const std::wstring& path, const std::wstring& name) {
    std::wstring v;
    Open(hive, path, KEY_READ).GetValue(name, L"(absent)", &v);
    return v;
}

std::vector<std::wstring> Filters(const HiveLoader& hive, const wchar_t* cls) {
    std::vector<std::wstring> v;
    if (Open(hive, std::wstring(L"\\ControlSet001\\Control\\Class\\") + cls, KEY_READ).GetValue(L"UpperFilters", &v))
        return {L"(absent)"};
    return v;
}

class Switches : public kxguest::TwoBackends {
protected:
    // A guest with both hives loaded for the ...Ex calls.
    struct Loaded {
        Guest guest;
        std::unique_ptr<HiveLoader> system, software;
        Loaded(const std::string& sys, const std::string& soft, const char* ext) : guest(sys, soft, ext) {
            EXPECT_EQ(g::LoadGuestHive(g::GuestHive::kSystem, guest.windows, &system), 0u);
            EXPECT_EQ(g::LoadGuestHive(g::GuestHive::kSoftware, guest.windows, &software), 0u);
        }
    };
    Loaded Win7() { return Loaded("vmguest-system", "vmguest-software", Ext()); }
    Loaded Win2003() { return Loaded("vmguest52-system", "vmguest52-software", Ext()); }
};

}  // namespace

TEST_P(Switches, PlatformTargetsSetTheirTablesAndTheXenFilter) {
    const std::vector<std::wstring> services{L"vmickvpexchange", L"vmicshutdown", L"vmicheartbeat", L"vmictimesync",
                                             L"VMTools", L"vmvss", L"VMware Physical Disk Helper Service",
                                             L"xenbus", L"xenfilt", L"xennet", L"xenvbd", L"Ec2Config",
                                             L"Nutanix Guest Agent", L"QZSAZekWebSvc"};
    const std::vector<DWORD> original{3, 3, 4, 3, 2, 2, 2, 0, 0, 0, 0, 2, 2, 2};
    const std::vector<DWORD> allOff{4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 2};
    const std::vector<std::wstring> ideBefore{L"XENFILT"}, sysBefore{L"xenfilt", L"PartMgr"};
    struct Case {
        DWORD target;
        std::vector<DWORD> starts;
        std::vector<std::wstring> ide, sys;
    };
    const Case cases[] = {
        {0, {2, 2, 2, 2, 4, 4, 4, 4, 4, 4, 4, 4, 4, 2}, {L"(absent)"}, {L"PartMgr"}},
        // Plain Xen: EC2's table is disabled first, then Xen's own start
        // types are set (xennet manual); the filter stays.
        {3, {4, 4, 4, 4, 4, 4, 4, 0, 0, 3, 0, 4, 4, 2}, ideBefore, sysBefore},
        {2, {4, 4, 4, 4, 4, 4, 4, 0, 0, 0, 0, 2, 4, 2}, {L"(absent)"}, {L"PartMgr"}},
        {4, allOff, {L"(absent)"}, {L"PartMgr"}},
        {6, original, ideBefore, sysBefore},
        {0xFFFFFFFF, allOff, {L"(absent)"}, {L"PartMgr"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.target);
        Loaded l = Win7();
        ASSERT_EQ(g::RVCM_EnableVirtualPlatformServicesEx(l.guest.windows, c.target, l.system.get(), l.software.get()),
                  0u);
        for (size_t i = 0; i < services.size(); ++i)
            EXPECT_EQ(Dword(*l.system, L"\\ControlSet001\\Services\\" + services[i], L"Start"), c.starts[i])
                << kxtest::Narrow(services[i]);
        EXPECT_EQ(Filters(*l.system, L"{4d36e96a-e325-11ce-bfc1-08002be10318}"), c.ide);
        EXPECT_EQ(Filters(*l.system, L"{4d36e97d-e325-11ce-bfc1-08002be10318}"), c.sys);
        // Services a table names but the guest lacks are not made; other
        // control sets are not touched; the crash markers are cleared even
        // for a type that is refused.
        RegistryKey svcs = Open(*l.system, L"\\ControlSet001\\Services", KEY_READ);
        for (const wchar_t* absent : {L"vmicvss", L"vmicrdv", L"VMUpgradeHelper", L"xenagent", L"InstallAgent"})
            EXPECT_FALSE(svcs.IsExist(absent, KEY_READ)) << kxtest::Narrow(absent);
        EXPECT_EQ(Dword(*l.system, L"\\ControlSet002\\Services\\VMTools", L"Start"), 2u);
        EXPECT_EQ(Dword(*l.software, L"\\Veltrana\\Quillon\\Engine\\KbBackupDll", L"IsActiveJobCrashed"), 0u);
        EXPECT_EQ(Dword(*l.software, L"\\Veltrana\\Quillon\\Engine\\KbBackupDll", L"SessionNumberActiveJobCrashed"),
                  0u);
    }
}

TEST_P(Switches, AgentMarkersAndAgentService) {
    {
        Loaded l = Win2003();
        kxtest::LogCursor log;
        EXPECT_EQ(g::CleanSessionCrashFlag(l.guest.windows, l.software.get()), 0u);
        EXPECT_TRUE(log.Contains(L"try use QZ\\QZ Veltrana Zek\\KbBackupDll."));
        EXPECT_EQ(Dword(*l.software, L"\\QZ\\QZ Veltrana Zek\\KbBackupDll", L"IsActiveJobCrashed"), 0u);
        EXPECT_EQ(Dword(*l.software, L"\\QZ\\QZ Veltrana Zek\\KbBackupDll", L"SessionNumberActiveJobCrashed"), 0u);
        BYTE existed = 7;
        EXPECT_EQ(g::DisableZekAgentServiceEx(l.guest.windows, &existed, l.system.get()), 0u);
        EXPECT_EQ(existed, 0);
        EXPECT_FALSE(Open(*l.system, L"\\ControlSet002\\Services\\QZSAZekWebSvc").IsValid());
    }
    Loaded l = Win7();
    BYTE existed = 0;
    EXPECT_EQ(g::DisableZekAgentServiceEx(l.guest.windows, &existed, l.system.get()), 0u);
    EXPECT_EQ(existed, 1);
    EXPECT_EQ(Dword(*l.system, L"\\ControlSet001\\Services\\QZSAZekWebSvc", L"Start"), 3u);
    EXPECT_EQ(Text(*l.system, L"\\ControlSet001\\Services\\QZSAZekWebSvc", L"ObjectName"), L"LocalSystem");
}

TEST_P(Switches, RemoteDesktopOnBothFirewallGenerations) {
    const std::wstring rules = L"\\ControlSet001\\Services\\SharedAccess\\Parameters\\FirewallPolicy\\FirewallRules";
    for (const char* software : {"vmguest-software", "vmguest10-software"}) {
        SCOPED_TRACE(software);
        Loaded l("vmguest-system", software, Ext());
        std::map<std::wstring, std::vector<BYTE>> before;
        RegistryKey r = Open(*l.system, rules, KEY_READ);
        std::wstring name;
        DWORD type;
        std::vector<BYTE> data;
        for (DWORD i = 0; r.EnumRawValue(i, &name, &type, &data) == 0; ++i) before[name] = data;
        kxtest::LogCursor log;
        EXPECT_EQ(g::EnableTerminalService(l.guest.windows, l.system.get(), l.software.get()), 0u);
        EXPECT_EQ(Text(*l.system, rules, L"RemoteDesktop-In-TCP"),
                  L"v2.10|Action=Allow|Active=True|Dir=In|Protocol=6|LPort=3389|App=System|"
                  L"Name=@FirewallAPI.dll,-28775|Desc=@FirewallAPI.dll,-28756|EmbedCtxt=@FirewallAPI.dll,-28752|");
        EXPECT_EQ(Text(*l.system, rules, L"RemoteDesktop-Block-TCP"),
                  L"v2.10|Action=Block|Active=False|Dir=In|Protocol=6|LPort=3389|Name=Block remote desktop|");
        // Rules for another protocol, direction or port, and other values,
        // byte for byte as they were.
        for (const wchar_t* kept : {L"RemoteDesktop-In-UDP", L"RemoteDesktop-Out-TCP", L"FPS-SMB-In-TCP", L"Ordering"}) {
            EXPECT_EQ(r.GetRawValue(kept, &type, &data), 0u);
            EXPECT_EQ(data, before[kept]) << kxtest::Narrow(kept);
        }
        EXPECT_EQ(Dword(*l.system, L"\\ControlSet001\\Control\\Terminal Server", L"fDenyTSConnections"), 0u);
        EXPECT_EQ(Dword(*l.software, L"\\Policies\\Microsoft\\Windows NT\\Terminal Services", L"fDenyTSConnections"),
                  0u);
        const std::wstring rdp = L"\\ControlSet001\\Control\\Terminal Server\\WinStations\\RDP-Tcp";
        EXPECT_EQ(Dword(*l.system, rdp, L"PortNumber"), 3389u);
        EXPECT_EQ(Dword(*l.system, rdp, L"LanAdapter"), 0u);
        EXPECT_EQ(Dword(*l.system, rdp, L"SecurityLayer"), 1u);
        EXPECT_TRUE(log.Contains(L"Set Original RDP port 3390 to 3389."));
        EXPECT_TRUE(log.Contains(L"Start to Set Original LanAdapter = 0."));
        EXPECT_EQ(log.Matching(L"Set Registry Key ").size(), 2u);
    }
    {
        Loaded l = Win2003();
        EXPECT_EQ(g::EnableTerminalService(l.guest.windows, l.system.get(), l.software.get()), 0u);
        const std::wstring list = L"\\ControlSet002\\Services\\SharedAccess\\Parameters\\FirewallPolicy\\"
                                  L"StandardProfile\\GloballyOpenPorts\\List";
        EXPECT_EQ(Text(*l.system, list, L"3389:TCP"), L"3389:TCP:*:Enabled:Remote Desktop");
        EXPECT_EQ(Text(*l.system, list, L"445:TCP"), L"445:TCP:*:Enabled:File and Printer Sharing");
        EXPECT_EQ(Dword(*l.system, L"\\ControlSet002\\Control\\Terminal Server", L"fDenyTSConnections"), 0u);
    }
    // The host's switch leaves the guest alone.
    kxtest::SetRegValue(g::kEngineKey, L"SkipEnableRDP", DWORD{1});
    Loaded l = Win7();
    const auto before = kxguest::DumpHive(*l.system);
    kxtest::LogCursor log;
    EXPECT_EQ(g::EnableTerminalService(l.guest.windows, l.system.get(), l.software.get()), 0u);
    kxtest::SetRegValue(g::kEngineKey, L"SkipEnableRDP", DWORD{0});
    EXPECT_EQ(kxguest::DumpHive(*l.system), before);
    EXPECT_TRUE(log.Contains(L"Skip to enable Terminal Service and firewall rules due to registry key SkipEnableRDP"));
}

TEST_P(Switches, DynamicUpdateDiskGroupAndShutdownTracker) {
    const std::wstring tcpip = L"\\ControlSet001\\Services\\Tcpip\\Parameters";
    Loaded l = Win7();
    kxtest::LogCursor log;
    BYTE changed = 9;
    EXPECT_EQ(g::DisableDynamicUpdate(l.guest.windows, l.system.get(), &changed), 0u);
    EXPECT_EQ(changed, 1);
    EXPECT_EQ(Dword(*l.system, tcpip, L"DisableDynamicUpdate"), 1u);
    EXPECT_TRUE(log.Contains(L"Failed to get the DisableDynamicUpdate key value,error code : 2, set as 1."));
    EXPECT_EQ(g::DisableDynamicUpdate(l.guest.windows, l.system.get(), &changed), 0u);
    EXPECT_EQ(changed, 0);
    EXPECT_TRUE(log.Contains(L"The DisableDynamicUpdate key value is 1. Need not to change."));

    EXPECT_EQ(g::DeleteDynamicDiskGroupEx(l.guest.windows, l.system.get()), 0u);
    EXPECT_EQ(Text(*l.system, L"\\ControlSet001\\Services\\volmgrx", L"PrimaryPackId"), L"(absent)");
    EXPECT_EQ(Dword(*l.system, L"\\ControlSet001\\Services\\volmgrx", L"Start"), 0u);
    EXPECT_EQ(g::DeleteDynamicDiskGroupEx(l.guest.windows, l.system.get()), 0u);

    EXPECT_EQ(g::DisableShutDownEventTrackerEx(l.guest.windows, l.software.get()), 0u);
    EXPECT_EQ(Dword(*l.software, L"\\Policies\\Microsoft\\Windows NT\\Reliability", L"ShutdownReasonOn"), 0u);
    RegistryKey notify = Open(*l.software, L"\\Microsoft\\Windows NT\\CurrentVersion\\Winlogon\\Notify", KEY_READ);
    EXPECT_FALSE(notify.IsExist(L"VMUpgradeAtShutdown", KEY_READ));
    EXPECT_TRUE(notify.IsExist(L"WgaLogon", KEY_READ));
    EXPECT_TRUE(log.Contains(L"Disable winlogon notify for VMUpgradeAtShutdown, return value is 0"));

    // The older guest: a value already non-zero stays, no disk group, no hook.
    Loaded old = Win2003();
    EXPECT_EQ(g::DisableDynamicUpdate(old.guest.windows, old.system.get(), &changed), 0u);
    EXPECT_EQ(changed, 0);
    EXPECT_EQ(Dword(*old.system, L"\\ControlSet002\\Services\\Tcpip\\Parameters", L"DisableDynamicUpdate"), 2u);
    EXPECT_EQ(g::DeleteDynamicDiskGroupEx(old.guest.windows, old.system.get()), 0u);
    EXPECT_EQ(g::DisableShutDownEventTrackerEx(old.guest.windows, old.software.get()), 0u);
    EXPECT_EQ(Dword(*old.software, L"\\Policies\\Microsoft\\Windows NT", L"Marker"), 5u);
}

INSTANTIATE_TEST_SUITE_P(Backends, Switches, ::testing::Values(false, true), kxguest::BackendName);

// ---- on real hive files -------------------------------------------------------

namespace {

std::set<std::string> DumpFile(const std::wstring& file) {
    HiveLoader hive(L"Kx.Dump", file, HKEY_LOCAL_MACHINE);
    EXPECT_EQ(hive.GetBackend(), HiveLoader::Backend::kEngine);
    return kxguest::DumpHive(hive);
}

}  // namespace

// The fix-ups that load their own hive write the file: host name (cut for
// the NetBIOS values, one warning), failover type with its fallback key,
// the start of a named service.
TEST(SwitchFiles, FixupsThatLoadTheirOwnHive) {
    for (const std::wstring& name : {std::wstring(L"STANDBY-SQL-0007-EU"), std::wstring(L"STANDBY-SQL-007")}) {
        Guest guest("vmguest-system", "vmguest-software", ".hive");
        kxtest::LogCursor log;
        EXPECT_EQ(g::ChangeProductionHostName(guest.windows, name), 0u);
        const bool cut = name.size() > 15;
        EXPECT_EQ(log.Matching(L"new computer name is longer than 15 characters").size(), cut ? 1u : 0u);
        HiveLoader system(L"Kx.Check", guest.Hive(L"system"), HKEY_LOCAL_MACHINE);
        const std::wstring tcpip = L"\\ControlSet001\\Services\\Tcpip\\Parameters";
        EXPECT_EQ(Text(system, tcpip, L"HostName"), name);
        EXPECT_EQ(Text(system, tcpip, L"NV Hostname"), name);
        EXPECT_EQ(Text(system, tcpip, L"Domain"), L"corp.example");
        EXPECT_EQ(Text(system, L"\\ControlSet001\\Control\\ComputerName\\ComputerName", L"ComputerName"),
                  name.substr(0, 15));
        // The active name is kept under "ActiveComputerName"; the old value stays.
        const std::wstring active = L"\\ControlSet001\\Control\\ComputerName\\ActiveComputerName";
        EXPECT_EQ(Text(system, active, L"ActiveComputerName"), name.substr(0, 15));
        EXPECT_EQ(Text(system, active, L"ComputerName"), L"PROD-SQL-07");
    }
    Guest guest("vmguest-system", "vmguest-software", ".hive");
    EXPECT_EQ(g::ChangeProductionHostName(guest.windows, L""), DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_EQ(g::PrepareZekForFailover(guest.windows, L"HyperV"), 0u);
    EXPECT_EQ(g::SetZekServiceStart(guest.windows, L"xenbus"), 0u);
    EXPECT_EQ(g::SetZekServiceStart(guest.windows, L"NoSuchService"), 0u);
    {
        HiveLoader software(L"Kx.Check", guest.Hive(L"software"), HKEY_LOCAL_MACHINE);
        EXPECT_EQ(Text(software, L"\\Veltrana\\Quillon\\Engine", L"FailoverVMType"), L"HyperV");
        HiveLoader system(L"Kx.Check2", guest.Hive(L"system"), HKEY_LOCAL_MACHINE);
        EXPECT_EQ(Dword(system, L"\\ControlSet001\\Services\\xenbus", L"Start"), 2u);
        EXPECT_FALSE(Open(system, L"\\ControlSet001\\Services\\NoSuchService").IsValid());
    }
    Guest old("vmguest52-system", "vmguest52-software", ".hive");
    kxtest::LogCursor log;
    EXPECT_EQ(g::PrepareZekForFailover(old.windows, L"VMware"), 0u);
    EXPECT_TRUE(log.Contains(L"try use QZ\\QZ Veltrana Zek."));
    HiveLoader software(L"Kx.Check", old.Hive(L"software"), HKEY_LOCAL_MACHINE);
    EXPECT_EQ(Text(software, L"\\QZ\\QZ Veltrana Zek", L"FailoverVMType"), L"VMware");
}

// A hive the engine refuses fails the fix-up with the engine's code and is
// left as it was; a fix-up stopped half-way by a key it cannot open keeps
// the changes it made before, and the log names the key.
TEST(SwitchFiles, FailuresLeaveWholeFiles) {
    Guest bad("", "vmguest-software", ".hive");
    kxtest::WriteText(bad.Hive(L"system"), std::string(8192, 'x'));
    BYTE changed = 0;
    kxtest::LogCursor log;
    EXPECT_EQ(g::DisableDynamicUpdate(bad.windows, nullptr, &changed), DWORD{ERROR_BADDB});
    EXPECT_EQ(g::EnableTerminalService(bad.windows, nullptr, nullptr), DWORD{ERROR_BADDB});
    EXPECT_EQ(g::RVCM_EnableVirtualPlatformServices(bad.windows, 0), 0u);  // single services are only logged
    EXPECT_EQ(kxtest::ReadBytes(bad.Hive(L"system")), kxguest::Bytes(8192, 'x'));
    EXPECT_TRUE(log.Contains(L"Fail to load system registry hive of virtual machine."));

    Guest guest("vmguest-system", "vmguest-software", ".hive");
    {
        HiveLoader system(L"Kx.Cut", guest.Hive(L"system"), HKEY_LOCAL_MACHINE);
        ASSERT_EQ(Open(system, L"\\ControlSet001\\Control\\Terminal Server\\WinStations").DelSubKey(L"RDP-Tcp"), 0u);
    }
    EXPECT_EQ(g::EnableTerminalService(guest.windows, nullptr, nullptr), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_TRUE(log.Contains(L"Failed to Open Registry Key "));
    EXPECT_TRUE(log.Contains(L"\\ControlSet001\\Control\\Terminal Server\\Winstations\\RDP-Tcp."));
    HiveLoader system(L"Kx.Check", guest.Hive(L"system"), HKEY_LOCAL_MACHINE);
    HiveLoader software(L"Kx.Check2", guest.Hive(L"software"), HKEY_LOCAL_MACHINE);
    EXPECT_EQ(Dword(system, L"\\ControlSet001\\Control\\Terminal Server", L"fDenyTSConnections"), 0u);
    EXPECT_EQ(Dword(software, L"\\Policies\\Microsoft\\Windows NT\\Terminal Services", L"fDenyTSConnections"), 0u);
    EXPECT_NE(Text(system, L"\\ControlSet001\\Services\\SharedAccess\\Parameters\\FirewallPolicy\\FirewallRules",
                   L"RemoteDesktop-Block-TCP")
                  .find(L"|Active=False|"),
              std::wstring::npos);
}

namespace {

// Every guest fix-up that takes loaded hives, in the order a conversion
// job runs them; null hives make each load its own.
void RunSequence(const Guest& guest, HiveLoader* system, HiveLoader* software) {
    const std::wstring& dir = guest.windows;
    {
        // Needs a loaded hive: the caller's, or one for this call alone.
        std::unique_ptr<HiveLoader> own;
        if (!system) {
            EXPECT_EQ(g::LoadGuestHive(g::GuestHive::kSystem, dir, &own), 0u);
        }
        EXPECT_EQ(g::ResetPRTag(system ? system : own.get(), 0), 0u);
    }
    EXPECT_EQ(g::SetSafeBootFirst(system, dir), 0u);
    EXPECT_EQ(g::InjectIDEDriverEx(dir, system, software), 0u);
    EXPECT_EQ(g::InjectDriverForEC2Ex(dir, system), 0u);
    EXPECT_EQ(g::RVCM_EnableVirtualPlatformServicesEx(dir, 0, system, software), 0u);
    BYTE flag = 0;
    EXPECT_EQ(g::DisableZekAgentServiceEx(dir, &flag, system), 0u);
    EXPECT_EQ(g::DeleteDynamicDiskGroupEx(dir, system), 0u);
    EXPECT_EQ(g::DisableShutDownEventTrackerEx(dir, software), 0u);
    EXPECT_EQ(g::EnableTerminalService(dir, system, software), 0u);
    EXPECT_EQ(g::DisableDynamicUpdate(dir, system, &flag), 0u);
}

}  // namespace

// One loaded pair through the whole sequence gives the same hives as each
// fix-up loading its own; and Wine's registry, given the same sequence on
// the Wine-format hives, holds what the engine wrote (checked by hivex,
// reglookup and regfexport in guestfix_switches_hivex_check).
TEST(SwitchFiles, OneLoadedPairEqualsALoadPerFixupAndWinesRegistry) {
    Guest once("vmguest-system", "vmguest-software", ".hive");
    {
        std::unique_ptr<HiveLoader> system, software;
        ASSERT_EQ(g::LoadGuestHive(g::GuestHive::kSystem, once.windows, &system), 0u);
        ASSERT_EQ(g::LoadGuestHive(g::GuestHive::kSoftware, once.windows, &software), 0u);
        RunSequence(once, system.get(), software.get());
    }
    Guest each("vmguest-system", "vmguest-software", ".hive");
    RunSequence(each, nullptr, nullptr);
    EXPECT_EQ(DumpFile(once.Hive(L"system")), DumpFile(each.Hive(L"system")));
    EXPECT_EQ(DumpFile(once.Hive(L"software")), DumpFile(each.Hive(L"software")));

    Guest wine("vmguest-system", "vmguest-software", ".reg");
    std::unique_ptr<HiveLoader> system, software;
    ASSERT_EQ(g::LoadGuestHive(g::GuestHive::kSystem, wine.windows, &system), 0u);
    ASSERT_EQ(g::LoadGuestHive(g::GuestHive::kSoftware, wine.windows, &software), 0u);
    ASSERT_EQ(system->GetBackend(), HiveLoader::Backend::kSystem);
    RunSequence(wine, system.get(), software.get());
    const std::set<std::string> wineSystem = kxguest::DumpHive(*system);
    EXPECT_EQ(wineSystem, DumpFile(once.Hive(L"system")));
    kxguest::LeaveForHivex(once.Hive(L"system"), "vmguest-system-fixed", wineSystem);
    kxguest::LeaveForHivex(once.Hive(L"software"), "vmguest-software-fixed", kxguest::DumpHive(*software));
}

// Inbound TCP rules for 3389 only; "Active" follows the Action met before
// it (any case of the field names); every other field stays as it was.
TEST(RdpRule, RewrittenFieldByField) {
    struct Case {
        const wchar_t* rule;
        const wchar_t* rewritten;  // null: left alone
    };
    const Case cases[] = {
        {L"v2.10|Action=Allow|Active=FALSE|Dir=In|Protocol=6|LPort=3389|Name=x=y|",
         L"v2.10|Action=Allow|Active=True|Dir=In|Protocol=6|LPort=3389|Name=x=y|"},
        {L"v2.10|Active=FALSE|Action=Allow|Dir=In|Protocol=6|LPort=3389|",
         L"v2.10|Active=False|Action=Allow|Dir=In|Protocol=6|LPort=3389|"},
        {L"v2.10|action=allow|ACTIVE=false|Dir=In|Protocol=6|LPort=3389|",
         L"v2.10|action=allow|Active=True|Dir=In|Protocol=6|LPort=3389|"},
        {L"v2.10|Action=Bypass|Active=TRUE|Dir=In|Protocol=6|LPort=3389|",
         L"v2.10|Action=Bypass|Active=False|Dir=In|Protocol=6|LPort=3389|"},
        {L"v2.10|Action=Allow|Dir=In|Protocol=6|LPort=3389|", L"v2.10|Action=Allow|Dir=In|Protocol=6|LPort=3389|"},
        {L"v2.10|Action=Allow|Active=FALSE|Dir=In|Protocol=6|LPort=33890|", nullptr},
        {L"v2.10|Action=Allow|Active=FALSE|Dir=In|Protocol=17|LPort=3389|", nullptr},
        {L"v2.10|Action=Allow|Active=FALSE|Dir=Out|Protocol=6|LPort=3389|", nullptr},
        {L"Action=Allow|Active=FALSE|Dir=In|Protocol=6|LPort=3389", nullptr},
    };
    for (const Case& c : cases) {
        std::wstring out = L"untouched";
        EXPECT_EQ(g::RewriteRdpRule(c.rule, &out), c.rewritten != nullptr) << kxtest::Narrow(c.rule);
        if (c.rewritten) {
            EXPECT_EQ(out, c.rewritten);
        }
    }
}
