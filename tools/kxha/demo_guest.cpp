// The demo's guest stage: a Windows 7 guest that came from VMware, made into
// a boot volume from the demo data next to the tool, is repaired for Hyper-V
// as `kxha guest fixup --target hyperv --hostname ... --rdp --boot-volume`
// does it, and what changed is checked against what the repair must change.
#include <cstring>
#include <cwchar>

#include "common/unique_resource.h"
#include "commands.h"
#include "demo.h"
#include "guest_fixup.h"
#include "output.h"

namespace kxha::demo {

namespace {

constexpr const wchar_t* kHostName = L"WIN7-STANDBY-HYPERV";  // 19 characters: the NetBIOS name is cut to 15
constexpr const wchar_t* kLoader = L"{b2721d73-1db4-11e9-8c4e-a7f2d1c3e501}";
constexpr const wchar_t* kLsiFolder = L"System32\\DriverStore\\FileRepository\\lsi_scsi.inf_amd64_neutral_2b7c1fa3e8d40c55";

std::wstring Dword(unsigned n) { return Printf(L"REG_DWORD 0x%08x (%u)", n, n); }
std::wstring Sz(const std::wstring& s) { return L"REG_SZ " + s; }

struct Expected {
    const wchar_t* hive;
    std::wstring key, value, after;  // an empty `after`: any value
};

// The values the repair must leave, each in its hive. Other values may
// change only in the keys named here.
std::vector<Expected> ExpectedChanges() {
    const std::wstring cs = L"ControlSet001\\", svc = cs + L"Services\\";
    const std::wstring hdc = L"{4D36E96A-E325-11CE-BFC1-08002BE10318}";
    std::vector<Expected> e = {
        // Boot from Hyper-V's emulated IDE controller, or its SCSI path.
        {L"system", svc + L"IntelIde", L"Start", Dword(0)},
        {L"system", svc + L"PCIIde", L"Start", Dword(0)},
        {L"system", svc + L"LSI_SCSI", L"Start", Dword(0)},
        {L"system", svc + L"LSI_SCSI", L"Group", Sz(L"SCSI miniport")},
        {L"system", svc + L"LSI_SCSI", L"ImagePath", L"REG_EXPAND_SZ System32\\DRIVERS\\lsi_scsi.sys"},
        {L"system", cs + L"Control\\CriticalDeviceDatabase\\pci#ven_8086&dev_7010", L"Service", Sz(L"intelide")},
        {L"system", cs + L"Control\\CriticalDeviceDatabase\\pci#ven_8086&dev_7010", L"ClassGUID", Sz(hdc)},
        // VMware's services off, Hyper-V's integration services on.
        {L"system", svc + L"VMTools", L"Start", Dword(4)},
        {L"system", svc + L"vmvss", L"Start", Dword(4)},
        {L"system", svc + L"VMware Physical Disk Helper Service", L"Start", Dword(4)},
        {L"system", svc + L"VMUpgradeHelper", L"Start", Dword(4)},
        {L"software", L"Veltrana\\Quillon\\Engine\\KbBackupDll", L"IsActiveJobCrashed", Dword(0)},
        {L"software", L"Veltrana\\Quillon\\Engine\\KbBackupDll", L"SessionNumberActiveJobCrashed", Dword(0)},
        // Remote desktop allowed, through the firewall.
        {L"system", cs + L"Control\\Terminal Server", L"fDenyTSConnections", Dword(0)},
        {L"software", L"Policies\\Microsoft\\Windows NT\\Terminal Services", L"fDenyTSConnections", Dword(0)},
        {L"system", svc + L"SharedAccess\\Parameters\\FirewallPolicy\\FirewallRules", L"RemoteDesktop-In-TCP",
         Sz(L"v2.10|Action=Allow|Active=True|Dir=In|Protocol=6|Profile=Domain|LPort=3389|App=System|"
            L"Name=@FirewallAPI.dll,-28775|Desc=@FirewallAPI.dll,-28756|EmbedCtxt=@FirewallAPI.dll,-28752|")},
        // No dynamic DNS registration; the production machine's name.
        {L"system", svc + L"Tcpip\\Parameters", L"DisableDynamicUpdate", Dword(1)},
        {L"system", svc + L"Tcpip\\Parameters", L"HostName", Sz(kHostName)},
        {L"system", svc + L"Tcpip\\Parameters", L"NV Hostname", Sz(kHostName)},
        {L"system", cs + L"Control\\ComputerName\\ComputerName", L"ComputerName", Sz(L"WIN7-STANDBY-HY")},
        {L"system", cs + L"Control\\ComputerName\\ActiveComputerName", L"ActiveComputerName", Sz(L"WIN7-STANDBY-HY")},
        // One start in safe mode with networking, the helper service allowed there.
        {L"system", cs + L"Control\\SafeBoot\\Network\\qlnvmhelpersvc", L"", Sz(L"Service")},
        {L"system", svc + L"qlnvmhelpersvc", L"SetSafeBootFirst", Dword(1)},
        // The helper service, an automatic own-process service as LocalSystem.
        {L"system", svc + L"qlnvmhelpersvc", L"Type", Dword(0x10)},
        {L"system", svc + L"qlnvmhelpersvc", L"Start", Dword(2)},
        {L"system", svc + L"qlnvmhelpersvc", L"ErrorControl", Dword(1)},
        {L"system", svc + L"qlnvmhelpersvc", L"ImagePath",
         L"REG_EXPAND_SZ %SystemRoot%\\System32\\qlnvmhelpersvc\\qlnvmhelpersvc.exe"},
        {L"system", svc + L"qlnvmhelpersvc", L"ObjectName", Sz(L"LocalSystem")},
        {L"system", svc + L"qlnvmhelpersvc", L"DisplayName", Sz(L"Kestrix HA VM Helper Service")},
        {L"system", svc + L"qlnvmhelpersvc", L"Description",
         Sz(L"Finishes the preparation of a converted virtual machine on its first start.")},
        {L"system", svc + L"qlnvmhelpersvc", L"FailureActions",
         L"REG_BINARY 80 51 01 00 00 00 00 00 00 00 00 00 03 00 00 00 14 00 00 00 01 00 00 00 60 ea 00 00 01 00 00 00 "
         L"... 44 bytes"},
        {L"system", svc + L"qlnvmhelpersvc\\Security", L"Security", L""},  // any descriptor
        {L"BCD", L"Objects\\" + std::wstring(kLoader) + L"\\Elements\\25000080", L"Element",
         L"REG_BINARY 01 00 00 00 00 00 00 00"},
    };
    for (const wchar_t* s : {L"vmickvpexchange", L"vmicshutdown", L"vmicheartbeat", L"vmictimesync", L"vmicvss"})
        e.push_back({L"system", svc + s, L"Start", Dword(2)});
    return e;
}

bool Same(const std::wstring& a, const std::wstring& b) { return _wcsicmp(a.c_str(), b.c_str()) == 0; }

// What differs from the expectation, one line each; none when it matched.
std::vector<std::wstring> Check(const std::vector<HiveChanges>& hives, const std::vector<Expected>& expected) {
    std::vector<std::wstring> problems;
    for (const Expected& e : expected) {
        const HiveChange* found = nullptr;
        for (const HiveChanges& h : hives)
            for (const HiveChange& c : h.changes)
                if (Same(h.name, e.hive) && Same(c.key, e.key) && c.name && Same(*c.name, e.value)) found = &c;
        const std::wstring where = std::wstring(e.hive) + L" " + e.key + L" " + (e.value.empty() ? L"(Default)" : e.value);
        if (!found)
            problems.push_back(where + L": unchanged, expected " + e.after);
        else if (!e.after.empty() && Cell(*found, true) != e.after)
            problems.push_back(where + L": " + Cell(*found, true) + L", expected " + e.after);
    }
    for (const HiveChanges& h : hives)
        for (const HiveChange& c : h.changes) {
            bool expectedKey = false;
            for (const Expected& e : expected) expectedKey = expectedKey || (Same(h.name, e.hive) && Same(c.key, e.key));
            if (!expectedKey)
                problems.push_back(h.name + L" " + c.key + L" " + (c.name ? *c.name : L"(key)") +
                                   L": changed unexpectedly, " + Cell(c, false) + L" -> " + Cell(c, true));
        }
    return problems;
}

// Small files written new (an existing one is an error), each with its text.
template <size_t N>
DWORD WriteStandIns(const std::pair<std::wstring, const char*> (&files)[N], std::wstring* what) {
    for (const auto& [path, text] : files) {
        kx::unique_hfile f(::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_NEW, FILE_ATTRIBUTE_NORMAL, nullptr));
        DWORD written = 0;
        if (!f || !::WriteFile(f.get(), text, static_cast<DWORD>(strlen(text)), &written, nullptr)) {
            *what = L"writing " + path;
            return ::GetLastError();
        }
    }
    return 0;
}

struct FileCopy {
    const wchar_t* from;  // in the demo data
    const wchar_t* to;    // in the volume
};

// The boot volume: Boot\BCD, the Windows folder's hives, hal.dll, the IDE
// driver in place and the LSI SCSI driver in the driver store only.
DWORD BuildGuestVolume(const std::wstring& data, const std::wstring& volume, std::wstring* what) {
    const std::wstring windows = volume + L"\\Windows";
    for (const std::wstring& dir : {volume, volume + L"\\Boot", windows, windows + L"\\System32",
                                    windows + L"\\System32\\config", windows + L"\\System32\\Drivers",
                                    windows + L"\\System32\\DriverStore", windows + L"\\System32\\DriverStore\\FileRepository",
                                    windows + L"\\" + kLsiFolder}) {
        if (!::CreateDirectoryW(dir.c_str(), nullptr) && ::GetLastError() != ERROR_ALREADY_EXISTS) {
            *what = L"making " + dir;
            return ::GetLastError();
        }
    }
    const FileCopy copies[] = {{L"bcd.hive", L"Boot\\BCD"},
                               {L"guest-system.hive", L"Windows\\System32\\config\\system"},
                               {L"guest-software.hive", L"Windows\\System32\\config\\software"},
                               {L"hal.dll", L"Windows\\System32\\hal.dll"}};
    for (const FileCopy& c : copies) {
        const std::wstring from = data + L"\\" + c.from, to = volume + L"\\" + c.to;
        if (!::CopyFileW(from.c_str(), to.c_str(), TRUE)) {
            *what = L"copying the demo guest's " + from;
            return ::GetLastError();
        }
    }
    // Stand-ins for the driver images: the repair copies them, never runs them.
    const std::pair<std::wstring, const char*> drivers[] = {
        {windows + L"\\System32\\Drivers\\intelide.sys", "demo IDE driver image\n"},
        {windows + L"\\" + kLsiFolder + L"\\lsi_scsi.sys", "demo LSI SCSI driver image\n"}};
    return WriteStandIns(drivers, what);
}

// The helper service's build as the conversion job hands it over: a
// stand-in binary (copied, never run) and its settings.
DWORD WriteHelperSource(const std::wstring& helper, std::wstring* what) {
    if (!::CreateDirectoryW(helper.c_str(), nullptr)) {
        *what = L"making " + helper;
        return ::GetLastError();
    }
    const std::pair<std::wstring, const char*> files[] = {
        {helper + L"\\qlnvmhelpersvc.exe", "demo helper service image\n"},
        {helper + L"\\helper.ini", "[helper]\r\nSetSafeBootFirst=1\r\n"}};
    return WriteStandIns(files, what);
}

}  // namespace

std::wstring DefaultGuestData() {
    wchar_t exe[MAX_PATH];
    const DWORD n = ::GetModuleFileNameW(nullptr, exe, MAX_PATH);
    std::wstring dir(exe, n);
    return dir.substr(0, dir.find_last_of(L"\\/") + 1) + L"demo-data";
}

int GuestStage(const std::wstring& folder, const std::wstring& data, bool json, std::wstring* jsonFields) {
    const std::wstring volume = folder + L"\\guest";
    std::wstring what;
    if (DWORD rc = BuildGuestVolume(data, volume, &what)) return Fail(what, rc);
    const std::wstring helper = folder + L"\\helper-service";
    if (DWORD rc = WriteHelperSource(helper, &what)) return Fail(what, rc);
    FixupPlan plan;
    plan.windows = volume + L"\\Windows";
    plan.helperSource = helper;
    plan.targetType = TargetByName(L"hyperv")->type;
    plan.hostName = kHostName;
    plan.rdp = true;
    plan.bootVolume = volume;
    const FixupResult r = RunGuestFixup(plan);
    if (!r.failedStep.empty()) return ReportFixup(r);
    const std::vector<std::wstring> problems = Check(r.hives, ExpectedChanges());
    size_t count = 0;
    for (const HiveChanges& h : r.hives) count += h.changes.size();
    if (json) {
        *jsonFields = L"\"guest\": {\"volume\": " + JsonString(volume) + L", \"target\": \"hyperv\", \"changes\": " +
                      Num(count) + L", \"expected\": " + Num(ExpectedChanges().size()) + L", \"problems\": " +
                      JsonList(problems) + L", \"guest_match\": " + (problems.empty() ? L"true" : L"false") + L"}";
    } else {
        std::wstring o = L"\nDemo guest: " + plan.windows + L" (Windows 7 SP1 from VMware), fixed up for Hyper-V as\n"
                         L"  kxha guest fixup <Windows> --target hyperv --hostname " + std::wstring(kHostName) +
                         L" --rdp --boot-volume <volume>\n  with the helper service injected from " + helper + L"\n";
        for (const HiveChanges& h : r.hives) o += L"\n" + h.name + L" hive: " + Num(h.changes.size()) + L" changes\n" + ChangeTable(h.changes, 2, 44);
        if (problems.empty())
            o += L"\nGuest check: all " + Num(ExpectedChanges().size()) +
                 L" expected values changed, nothing changed outside the expected keys\n";
        Out(o);
    }
    if (problems.empty()) return 0;
    std::wstring e = L"kxha demo: the guest's changes differ from what the repair must change:\n";
    for (const std::wstring& p : problems) e += L"  " + p + L"\n";
    Err(e);
    return 1;
}

}  // namespace kxha::demo
