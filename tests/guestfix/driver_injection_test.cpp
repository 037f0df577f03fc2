// Boot driver injection and EC2 preparation on guest folders made of
// fixture hives (both backends: Wine-format hives the system loads, real
// hive files the engine holds), driver cabinets packed by gcab, hal.dll
// images linked by both MinGW compilers, and a stand-in expand.exe built on
// the system's cabinet API. Every guest path holds spaces and non-ASCII
// characters. The edited real hive is read afterwards by hivex, reglookup
// and regfexport (guestfix_drivers_hivex_check).
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <set>

#include "common/dir_list.h"
#include "common/install_path.h"
#include "guestfix/driver_injection.h"
#include "guest_test_util.h"
#include "kx_test.h"
#include "platform/process_runner.h"

namespace {

namespace g = kx::guestfix;
using kx::hostutil::HiveLoader;
using kx::hostutil::RegistryKey;
using Bytes = std::vector<uint8_t>;

std::wstring FromUnix(std::string p) {
    std::replace(p.begin(), p.end(), '/', '\\');
    p = "Z:" + p;
    return std::wstring(p.begin(), p.end());
}
std::wstring DriverFixture(const std::string& name) { return FromUnix(std::string(KX_DRIVER_FIXTURES) + "/" + name); }

using kxguest::Copy;

// What the guest must hold afterwards, written down from the driver table
// and the critical device list as the guests expect them.
struct ServiceWant {
    const wchar_t* name;
    DWORD errorControl;
    const wchar_t* group;
    DWORD tag;
    const wchar_t* image;
};
const ServiceWant kAtapiWant{L"atapi", 1, L"SCSI miniport", 25, L"System32\\DRIVERS\\atapi.sys"};
const ServiceWant kIntelWant{L"IntelIde", 1, L"System Bus Extender", 4, L"System32\\DRIVERS\\intelide.sys"};
const ServiceWant kPciWant{L"PCIIde", 1, L"System Bus Extender", 3, L"System32\\DRIVERS\\pciide.sys"};
const ServiceWant kLsiWant{L"LSI_SCSI", 1, L"SCSI miniport", 22, L"System32\\DRIVERS\\lsi_scsi.sys"};
const ServiceWant kSymmpiWant{L"symmpi", 0, L"SCSI mimiport", 21, L"System32\\DRIVERS\\symmpi.sys"};

const wchar_t* const kHdc = L"{4D36E96A-E325-11CE-BFC1-08002BE10318}";
const wchar_t* const kDisk = L"{4D36E967-E325-11CE-BFC1-08002BE10318}";
const wchar_t* const kSys = L"{4D36E97D-E325-11CE-BFC1-08002BE10318}";
const struct {
    const wchar_t* id;
    const wchar_t* service;
    const wchar_t* cls;
} kDevicesWant[] = {
    {L"primary_ide_channel", L"atapi", kHdc},
    {L"secondary_ide_channel", L"atapi", kHdc},
    {L"*pnp0600", L"atapi", kHdc},
    {L"*azt0502", L"atapi", kHdc},
    {L"gendisk", L"disk", kDisk},
    {L"pci#cc_0101", L"pciide", kHdc},
    {L"pci#ven_0e11&dev_ae33", L"pciide", kHdc},
    {L"pci#ven_1039&dev_0601", L"pciide", kHdc},
    {L"pci#ven_1039&dev_5513", L"pciide", kHdc},
    {L"pci#ven_1042&dev_1000", L"pciide", kHdc},
    {L"pci#ven_105a&dev_4d33", L"pciide", kHdc},
    {L"pci#ven_1095&dev_0640", L"pciide", kHdc},
    {L"pci#ven_1095&dev_0646", L"pciide", kHdc},
    {L"pci#ven_1095&dev_0646&REV_05", L"pciide", kHdc},
    {L"pci#ven_1095&dev_0646&REV_07", L"pciide", kHdc},
    {L"pci#ven_1095&dev_0648", L"pciide", kHdc},
    {L"pci#ven_1095&dev_0649", L"pciide", kHdc},
    {L"pci#ven_1097&dev_0038", L"pciide", kHdc},
    {L"pci#ven_10ad&dev_0001", L"pciide", kHdc},
    {L"pci#ven_10ad&dev_0150", L"pciide", kHdc},
    {L"pci#ven_10b9&dev_5215", L"pciide", kHdc},
    {L"pci#ven_10b9&dev_5219", L"pciide", kHdc},
    {L"pci#ven_10b9&dev_5229", L"pciide", kHdc},
    {L"pci#ven_1106&dev_0571", L"pciide", kHdc},
    {L"pci#ven_8086&dev_1222", L"intelide", kHdc},
    {L"pci#ven_8086&dev_1230", L"intelide", kHdc},
    {L"pci#ven_8086&dev_2411", L"intelide", kHdc},
    {L"pci#ven_8086&dev_2421", L"intelide", kHdc},
    {L"pci#ven_8086&dev_7010", L"intelide", kHdc},
    {L"pci#ven_8086&dev_7111", L"intelide", kHdc},
    {L"pci#ven_8086&dev_7199", L"intelide", kHdc},
    {L"*pnp0000", nullptr, kSys},
    {L"*pnp0c01", nullptr, kSys},
    {L"*pnp0c04", nullptr, kSys},
    {L"*pnp0c0c", nullptr, kSys},
    {L"pci#ven_8086&dev_244e", L"pci", kSys},
    {L"pci#ven_8086&dev_24c3", nullptr, kSys},
    {L"pci#ven_8086&dev_24cb", L"intelide", kHdc},
    {L"pci#ven_8086&dev_2560", nullptr, kSys},
    {L"pci#ven_8086&dev_24c0", L"isapnp", kSys},
};

// Instant, counted pauses.
struct CountingPause : kx::platform::Pause {
    int count = 0;
    DWORD last = 0;
    void For(DWORD ms) override { ++count, last = ms; }
};
// Runs programs for real and keeps their command lines.
struct RecordingRunner : kx::platform::ProcessRunner {
    kx::platform::ProcessRunner& real = kx::platform::Processes();
    std::vector<std::wstring> lines;
    DWORD Run(const std::wstring& line, DWORD timeoutMs, DWORD* exitCode) override {
        lines.push_back(line);
        return real.Run(line, timeoutMs, exitCode);
    }
};

// A guest's Windows folder below a path with spaces and non-ASCII
// characters, and an install folder like it, with instant pauses.
struct Guest {
    kxtest::ScratchDir dir;
    std::wstring windows = dir / L"Gäst Platte 東\\Windows";
    std::wstring install = dir / L"Prog Dateien Ü\\Kestrix HA";
    CountingPause pause;
    RecordingRunner runner;
    Guest(const std::string& system, const std::string& software, const char* ext) {
        kxtest::MakeDirs(windows + L"\\system32\\config");
        kxtest::MakeDirs(windows + L"\\System32\\Drivers");
        kxtest::MakeDirs(install);
        if (!system.empty()) Copy(kxguest::Fixture(system + ext), Hive(L"system"));
        if (!software.empty()) Copy(kxguest::Fixture(software + ext), Hive(L"software"));
        kxtest::SetRegValue(kx::kInstallPathKey, L"Path", install + L"\\");
        kx::platform::SetPause(&pause);
        kx::platform::SetProcessRunner(&runner);
    }
    ~Guest() {
        kx::platform::SetPause(nullptr);
        kx::platform::SetProcessRunner(nullptr);
    }
    std::wstring Hive(const wchar_t* name) const { return windows + L"\\system32\\config\\" + name; }
    std::wstring Driver(const wchar_t* file) const { return windows + L"\\System32\\Drivers\\" + file; }
    std::wstring Scratch() const { return install + L"\\bin\\temp"; }
    void Hal(const std::string& fixture) const { Copy(DriverFixture(fixture), windows + L"\\system32\\hal.dll"); }
    std::wstring CabFolder(const wchar_t* arch) const { return windows + L"\\driver cache\\" + arch; }
    void Cab(const wchar_t* arch, const wchar_t* as, const std::string& fixture) const {
        kxtest::MakeDirs(CabFolder(arch));
        Copy(DriverFixture(fixture), CabFolder(arch) + L"\\" + as);
    }
    std::wstring Expand(const wchar_t* cab, const wchar_t* file) const {
        return L"expand.exe \"" + Scratch() + L"\\" + cab + L"\" -F:" + file + L" \"" + Scratch() + L"\"";
    }
};

Bytes Member(const std::string& cab, const std::string& file) {
    return kxtest::ReadBytes(DriverFixture(cab + ".cab.d/" + file));
}

RegistryKey Open(const HiveLoader& hive, const std::wstring& path, REGSAM access = KEY_READ) {
    return RegistryKey(hive.GetHiveKey(), hive.GetHiveName() + path, access);
}

DWORD Dword(const RegistryKey& key, const wchar_t* name) {
    DWORD v = 0xDEADBEEF;
    EXPECT_EQ(key.GetValue(name, 0xDEADBEEF, &v), 0u) << kxtest::Narrow(name);
    return v;
}

std::wstring Text(const RegistryKey& key, const wchar_t* name, DWORD wantType = REG_SZ) {
    DWORD type = 0;
    Bytes raw;
    EXPECT_EQ(key.GetRawValue(name, &type, &raw), 0u) << kxtest::Narrow(name);
    EXPECT_EQ(type, wantType) << kxtest::Narrow(name);
    std::wstring s(reinterpret_cast<const wchar_t*>(raw.data()), raw.size() / 2);
    return s.substr(0, s.find(L'\0'));
}

void ExpectService(const HiveLoader& hive, const ServiceWant& w) {
    const RegistryKey key = Open(hive, L"\\ControlSet001\\Services\\" + std::wstring(w.name));
    ASSERT_TRUE(key.IsValid()) << kxtest::Narrow(w.name);
    EXPECT_EQ(Dword(key, L"ErrorControl"), w.errorControl) << kxtest::Narrow(w.name);
    EXPECT_EQ(Text(key, L"Group"), w.group);
    EXPECT_EQ(Dword(key, L"Start"), 0u);
    EXPECT_EQ(Dword(key, L"Tag"), w.tag);
    EXPECT_EQ(Dword(key, L"Type"), 1u);
    EXPECT_EQ(Text(key, L"ImagePath", REG_EXPAND_SZ), w.image);
}

bool HasKey(const HiveLoader& hive, const std::wstring& path) { return Open(hive, path).IsValid(); }

void ExpectDevices(const HiveLoader& hive) {
    for (const auto& d : kDevicesWant) {
        const RegistryKey key = Open(hive, L"\\ControlSet001\\Control\\CriticalDeviceDatabase\\" + std::wstring(d.id));
        ASSERT_TRUE(key.IsValid()) << kxtest::Narrow(d.id);
        EXPECT_EQ(Text(key, L"ClassGUID"), d.cls) << kxtest::Narrow(d.id);
        std::wstring service;
        EXPECT_EQ(key.GetValue(L"Service", L"", &service), d.service ? 0u : DWORD{ERROR_FILE_NOT_FOUND});
        EXPECT_EQ(service, d.service ? d.service : L"") << kxtest::Narrow(d.id);
    }
}

// The level of the one line containing `text`; -1 when there is not exactly one.
int LevelOf(const kxtest::LogCursor& log, const std::wstring& text) {
    const auto lines = log.Matching(text);
    return lines.size() == 1 ? lines[0].level : -1;
}

class DriverInjection : public kxguest::TwoBackends {
};

}  // namespace

// A Windows Server 2003 SP2 guest (x64) without the files: IntelIde and
// symmpi come from sp2.cab; symmpi with its own group and ErrorControl, and
// never LSI_SCSI; an existing service key keeps its other values.
TEST_P(DriverInjection, Server2003GetsTheFullSetFromItsCabinets) {
    Guest guest("system", "software-52sp2", Ext());
    guest.Hal("hal64.dll");
    guest.Cab(L"amd64", L"sp2.cab", "sp2.cab");
    guest.Cab(L"amd64", L"sp1.cab", "sp1.cab");
    guest.Cab(L"amd64", L"driver.cab", "driver.cab");
    kxtest::LogCursor log;
    auto system = Load(guest, g::GuestHive::kSystem);
    auto software = Load(guest, g::GuestHive::kSoftware);
    ASSERT_EQ(g::InjectIDEDriverEx(guest.windows, system.get(), software.get()), 0u);

    for (const ServiceWant* w : {&kAtapiWant, &kIntelWant, &kPciWant, &kSymmpiWant}) ExpectService(*system, *w);
    EXPECT_FALSE(HasKey(*system, L"\\ControlSet001\\Services\\LSI_SCSI"));
    ExpectDevices(*system);
    const RegistryKey intel = Open(*system, L"\\ControlSet001\\Services\\intelide");
    EXPECT_EQ(Text(intel, L"DisplayName"), L"intelide");
    std::vector<std::wstring> owners;
    EXPECT_EQ(intel.GetValue(L"Owners", &owners), 0u);
    EXPECT_EQ(owners, std::vector<std::wstring>{L"mshdc.inf"});
    // The last-known-good set is not touched.
    EXPECT_FALSE(HasKey(*system, L"\\ControlSet002\\Services\\symmpi"));
    EXPECT_EQ(Dword(Open(*system, L"\\ControlSet002\\Services\\intelide"), L"ErrorControl"), 3u);

    EXPECT_EQ(kxtest::ReadBytes(guest.Driver(L"IntelIde.sys")), Member("sp2", "IntelIde.sys"));
    EXPECT_EQ(kxtest::ReadBytes(guest.Driver(L"symmpi.sys")), Member("sp2", "symmpi.sys"));
    EXPECT_EQ(guest.runner.lines,
              (std::vector<std::wstring>{guest.Expand(L"sp2.cab", L"IntelIde.sys"), guest.Expand(L"sp2.cab", L"symmpi.sys")}));
    EXPECT_FALSE(kxtest::Exists(guest.Scratch()));
    EXPECT_EQ(guest.pause.count, 0);

    const struct {
        const wchar_t* text;
        int level;
    } lines[] = {{L"Begin to inject IDE driver.", 2}, {L"RegGetWinNTVerion::End, OS = 5.2 SP2", 2},
                 {L"Extract IntelIDE begin", 2},      {L"Extract IntelIDE end, ret = 0", 2},
                 {L"Add registry for IntelIde.", 2},  {L"Add registry for PCIIde.", 2},
                 {L"Extract symmpi begin", 2},        {L"Extract symmpi end, ret = 0", 2},
                 {L"Add registry for symmpi.", 2},    {L"Finish injecting IDE driver.", 2}};
    for (const auto& l : lines) EXPECT_EQ(LevelOf(log, l.text), l.level) << kxtest::Narrow(l.text);
    EXPECT_EQ(log.Matching(L"ExtractDriver::PlatformCode = 0x8664").size(), 2u);
    EXPECT_EQ(log.Matching(L"ExtractDriver::begin copy sys to " + guest.Driver(L"symmpi.sys")).size(), 1u);
}

// Windows 6.2 and later are left alone.
TEST_P(DriverInjection, Windows2012AndLaterGetNothing) {
    const char* software = "software-62";
    Guest guest("system", software, Ext());
    kxtest::LogCursor log;
    auto system = Load(guest, g::GuestHive::kSystem);
    auto softwareHive = Load(guest, g::GuestHive::kSoftware);
    EXPECT_EQ(g::InjectIDEDriverEx(guest.windows, system.get(), softwareHive.get()), 0u) << software;
    EXPECT_EQ(LevelOf(log, L"No need driver injection for Windows 2012 or above."), 2) << software;
    EXPECT_FALSE(HasKey(*system, L"\\ControlSet001\\Services\\PCIIde")) << software;
    EXPECT_FALSE(HasKey(*system, L"\\ControlSet001\\Control\\CriticalDeviceDatabase\\gendisk")) << software;
    EXPECT_EQ(Dword(Open(*system, L"\\ControlSet001\\Services\\intelide"), L"ErrorControl"), 3u);
    if (Engine()) {
        system.reset();
        softwareHive.reset();
        const Bytes before = kxtest::ReadBytes(guest.Hive(L"system"));
        EXPECT_EQ(g::InjectIDEDriver(guest.windows), 0u);
        EXPECT_EQ(kxtest::ReadBytes(guest.Hive(L"system")), before) << software;
    }
}

// Windows 7 with intelide.sys in place: no extraction for it; lsi_scsi.sys
// found deep in the driver store.
TEST_P(DriverInjection, Windows7TakesLsiScsiFromTheDriverStore) {
    Guest guest("system", "software", Ext());
    kxtest::WriteText(guest.Driver(L"intelide.sys"), "already here");
    std::wstring deep = guest.windows + L"\\System32\\DriverStore\\FileRepository";
    for (const wchar_t* part : {L"\\a_first.inf_amd64_1", L"\\sub folder", L"\\lsi_scsi.inf_amd64_neutral_ü"}) {
        deep += part;
        kxtest::MakeDirs(deep);
        kxtest::WriteText(deep + L"\\other.sys", "not it");
    }
    Copy(DriverFixture("driver.cab.d/lsi_scsi.sys"), deep + L"\\LSI_SCSI.SYS");
    kxtest::LogCursor log;
    auto system = Load(guest, g::GuestHive::kSystem);
    auto software = Load(guest, g::GuestHive::kSoftware);
    ASSERT_EQ(g::InjectIDEDriverEx(guest.windows, system.get(), software.get()), 0u);
    for (const ServiceWant* w : {&kAtapiWant, &kIntelWant, &kPciWant, &kLsiWant}) ExpectService(*system, *w);
    EXPECT_FALSE(HasKey(*system, L"\\ControlSet001\\Services\\symmpi"));
    EXPECT_FALSE(log.Contains(L"Extract IntelIDE begin"));
    EXPECT_EQ(LevelOf(log, L"Extract lsi_scsi end, ret = 0"), 2);
    EXPECT_EQ(LevelOf(log, L"Add registry for LSI_SCSI."), 2);
    EXPECT_EQ(kxtest::ReadBytes(guest.Driver(L"lsi_scsi.sys")), Member("driver", "lsi_scsi.sys"));
    EXPECT_TRUE(guest.runner.lines.empty());
}

// Windows Server 2008 whose driver store has thousands of folders and no
// driver file: neither IntelIde nor LSI_SCSI is written, and that is no
// failure.
TEST_P(DriverInjection, Server2008WithoutTheFilesGetsTheRest) {
    Guest guest("system", "software-60", Ext());
    const std::wstring store = guest.windows + L"\\System32\\DriverStore\\FileRepository";
    for (int i = 0; i < 2000; ++i) {
        const std::wstring folder = store + L"\\drv" + std::to_wstring(i) + L".inf_x86_" + std::to_wstring(i * 31);
        kxtest::MakeDirs(i % 100 == 0 ? folder + L"\\deeper" : folder);
    }
    kxtest::WriteText(store + L"\\drv7.inf_x86_217\\lsi_scsi.sys.bak", "near miss");
    kxtest::LogCursor log;
    auto system = Load(guest, g::GuestHive::kSystem);
    auto software = Load(guest, g::GuestHive::kSoftware);
    ASSERT_EQ(g::InjectIDEDriverEx(guest.windows, system.get(), software.get()), 0u);
    ExpectService(*system, kAtapiWant);
    ExpectService(*system, kPciWant);
    EXPECT_FALSE(HasKey(*system, L"\\ControlSet001\\Services\\LSI_SCSI"));
    EXPECT_EQ(Dword(Open(*system, L"\\ControlSet001\\Services\\intelide"), L"ErrorControl"), 3u);
    EXPECT_EQ(log.Matching(L"ExtractDriver::Cannot find the driver file, rc = 2").size(), 2u);
    EXPECT_EQ(log.Matching(L"ExtractDriver::Cannot find the driver file, rc = 2")[0].level, 0);
    EXPECT_EQ(LevelOf(log, L"Extract lsi_scsi end, ret = 2"), 2);
    EXPECT_FALSE(log.Contains(L"Add registry for IntelIde."));
    EXPECT_FALSE(kxtest::Exists(guest.Driver(L"lsi_scsi.sys")));
}

// Each EC2 write only where its key exists, in the current control set.
TEST_P(DriverInjection, Ec2WritesOnlyWhereTheKeysExist) {
    {
        Guest guest("system-ec2", "", Ext());
        kxtest::LogCursor log;
        auto system = Load(guest, g::GuestHive::kSystem);
        ASSERT_EQ(g::InjectDriverForEC2Ex(guest.windows, system.get()), 0u);
        EXPECT_EQ(Dword(Open(*system, L"\\ControlSet001\\Services\\rhelscsi"), L"EnumerateDevices"), 0u);
        const RegistryKey tz = Open(*system, L"\\ControlSet001\\Control\\TimeZoneInformation");
        EXPECT_EQ(Dword(tz, L"RealTimeIsUniversal"), 1u);
        EXPECT_EQ(Dword(tz, L"Start"), 2u);
        EXPECT_EQ(Text(tz, L"TimeZoneKeyName"), L"UTC");
        EXPECT_FALSE(HasKey(*system, L"\\ControlSet001\\Services\\W32Time"));
        DWORD v = 0;
        EXPECT_NE(Open(*system, L"\\ControlSet002\\Services\\W32Time").GetValue(L"DelayedAutostart", 0, &v), 0u);
        EXPECT_EQ(LevelOf(log, L"Disable Redhat Xen PV drivers before OS boot up, return value is 0"), 2);
        EXPECT_EQ(LevelOf(log, L"Set BIOS realtime to be UTC, return value is 0"), 2);
        EXPECT_FALSE(log.Contains(L"Configure Windows Time"));
        EXPECT_EQ(LevelOf(log, L"begin to inject drivers for EC2 with system dir " + guest.windows), 2);
        EXPECT_EQ(LevelOf(log, L"Finish driver injection for EC2."), 2);
    }
    {
        Guest guest("system", "", Ext());
        kxtest::LogCursor log;
        auto system = Load(guest, g::GuestHive::kSystem);
        ASSERT_EQ(g::InjectDriverForEC2Ex(guest.windows, system.get()), 0u);
        EXPECT_EQ(Dword(Open(*system, L"\\ControlSet001\\Services\\W32Time"), L"DelayedAutostart"), 1u);
        EXPECT_EQ(Dword(Open(*system, L"\\ControlSet001\\Services\\W32Time"), L"Start"), 3u);
        EXPECT_FALSE(HasKey(*system, L"\\ControlSet001\\Services\\rhelscsi"));
        EXPECT_FALSE(HasKey(*system, L"\\ControlSet001\\Control\\TimeZoneInformation"));
        EXPECT_EQ(LevelOf(log, L"Configure Windows Time for Delayed Start, return value is 0"), 2);
        EXPECT_FALSE(log.Contains(L"Disable Redhat"));
    }
}

INSTANTIATE_TEST_SUITE_P(Backends, DriverInjection, ::testing::Values(false, true), kxguest::BackendName);

// Where a driver comes from in a pre-6.0 guest's cabinets, sp<n>.cab down
// to driver.cab, with the expand command lines run in order.
TEST(DriverCabinets, CasesOfCabinets) {
    struct Case {
        const char* what;
        const char* sp2;  // fixture cabinet copied as sp2.cab; "" none, "cut" a truncated
        const char* sp1;  // sp2.cab, "junk" a text file
        const char* driver;
        const char* from;  // the cabinet the file must come from; null: not extracted
        std::vector<const wchar_t*> expanded;
        int copyFailures;
    };
    const Case cases[] = {
        {"in sp2.cab", "sp2.cab", "sp1.cab", "driver.cab", "sp2", {L"sp2.cab"}, 0},
        {"only in driver.cab", "other.cab", "", "driver.cab", "driver", {L"sp2.cab", L"driver.cab"}, 1},
        {"in no cabinet", "other.cab", "other.cab", "other.cab", nullptr, {L"sp2.cab", L"sp1.cab", L"driver.cab"}, 0},
        {"corrupt cabinets", "cut", "junk", "", nullptr, {L"sp2.cab", L"sp1.cab"}, 1},
        {"no cabinets", "", "", "", nullptr, {}, 3},
    };
    for (const Case& c : cases) {
        Guest guest("system", "software-52sp2", ".hive");
        guest.Hal("hal64.dll");
        kxtest::MakeDirs(guest.CabFolder(L"amd64"));
        for (auto [fixture, as] : {std::pair{c.sp2, L"sp2.cab"}, {c.sp1, L"sp1.cab"}, {c.driver, L"driver.cab"}}) {
            const std::wstring to = guest.CabFolder(L"amd64") + L"\\" + as;
            if (std::string(fixture) == "cut") {
                Bytes b = kxtest::ReadBytes(DriverFixture("sp2.cab"));
                b.resize(b.size() / 2);
                kxtest::WriteBytes(to, b.data(), b.size());
            } else if (std::string(fixture) == "junk") {
                kxtest::WriteText(to, "MSCF but not really a cabinet");
            } else if (*fixture) {
                guest.Cab(L"amd64", as, fixture);
            }
        }
        kxtest::LogCursor log;
        const DWORD rc = g::ExtractDriver(guest.windows, L"symmpi.sys", 5, 2);
        EXPECT_EQ(rc == 0, c.from != nullptr) << c.what << ": " << rc;
        if (c.from)
            EXPECT_EQ(kxtest::ReadBytes(guest.Driver(L"symmpi.sys")), Member(c.from, "symmpi.sys")) << c.what;
        else
            EXPECT_FALSE(kxtest::Exists(guest.Driver(L"symmpi.sys"))) << c.what;
        std::vector<std::wstring> want;
        for (const wchar_t* cab : c.expanded) want.push_back(guest.Expand(cab, L"symmpi.sys"));
        EXPECT_EQ(guest.runner.lines, want) << c.what;
        const auto copyFailed = log.Matching(L"ExtractDriver, copy failed, rc = ");
        EXPECT_EQ(copyFailed.size(), size_t(c.copyFailures)) << c.what;
        for (const auto& l : copyFailed) EXPECT_EQ(l.level, 1) << c.what;
        EXPECT_EQ(log.Contains(L"ExtractDriver::Retrieve from cab failed"), c.from == nullptr) << c.what;
        EXPECT_FALSE(kxtest::Exists(guest.Scratch())) << c.what;
    }
}

// The cabinet folder follows hal.dll's machine type; other types and
// non-images stop the extraction before any cabinet is touched.
TEST(DriverCabinets, PlatformFromHal) {
    Bytes arm = kxtest::ReadBytes(DriverFixture("hal64.dll"));
    const uint32_t nt = arm[0x3C] | arm[0x3D] << 8;
    arm[nt + 4] = 0xC4, arm[nt + 5] = 0x01;
    struct Case {
        const char* what;
        const Bytes* hal;  // null: no hal.dll
        std::string fixture;
        const wchar_t* arch;
        DWORD rc;
        const wchar_t* line;
    };
    const Bytes text = {'n', 'o', 't', ' ', 'a', ' ', 'P', 'E'};
    const Case cases[] = {
        {"x64", nullptr, "hal64.dll", L"amd64", 0, L"ExtractDriver::PlatformCode = 0x8664"},
        {"x86", nullptr, "hal32.dll", L"i386", 0, L"ExtractDriver::PlatformCode = 0x14C"},
        {"ARM", &arm, "", nullptr, ERROR_NOT_SUPPORTED, L"ExtractDriver::Not supported platform = 0x1C4"},
        {"not an image", &text, "", nullptr, ERROR_BAD_EXE_FORMAT, L"ExtractDriver::Check the OS platform failed, rc = 193"},
        {"no hal.dll", nullptr, "", nullptr, ERROR_FILE_NOT_FOUND, L"ExtractDriver::Check the OS platform failed, rc = 2"},
    };
    for (const Case& c : cases) {
        Guest guest("system", "software-52sp2", ".hive");
        if (c.hal) kxtest::WriteBytes(guest.windows + L"\\system32\\hal.dll", c.hal->data(), c.hal->size());
        if (!c.fixture.empty()) guest.Hal(c.fixture);
        for (const wchar_t* arch : {L"i386", L"amd64"}) guest.Cab(arch, L"driver.cab", "driver.cab");
        kxtest::LogCursor log;
        EXPECT_EQ(g::ExtractDriver(guest.windows, L"IntelIde.sys", 5, 0), c.rc) << c.what;
        EXPECT_TRUE(log.Contains(c.line)) << c.what;
        if (c.arch)
            EXPECT_EQ(guest.runner.lines, std::vector<std::wstring>{guest.Expand(L"driver.cab", L"IntelIde.sys")});
        else
            EXPECT_TRUE(guest.runner.lines.empty()) << c.what;
        if (c.arch) {
            // The i386 folder's cabinet for x86, the amd64 one for x64: both
            // hold the same bytes, so tell them apart by removing the other.
            EXPECT_EQ(kxtest::ReadBytes(guest.Driver(L"IntelIde.sys")), Member("driver", "IntelIde.sys"));
            ::DeleteFileW(guest.Driver(L"IntelIde.sys").c_str());
            ::DeleteFileW((guest.CabFolder(std::wstring(c.arch) == L"i386" ? L"amd64" : L"i386") + L"\\driver.cab").c_str());
            EXPECT_EQ(g::ExtractDriver(guest.windows, L"IntelIde.sys", 5, 0), 0u) << c.what;
        }
    }
}

// A copy into the guest that keeps failing is tried 6 times with a 10 s
// pause after each failure; the driver is then not registered.
TEST(DriverCabinets, CopyIntoTheGuestIsRetried) {
    Guest guest("system", "software-52sp2", ".hive");
    guest.Hal("hal64.dll");
    guest.Cab(L"amd64", L"sp2.cab", "sp2.cab");
    kxtest::MakeDirs(guest.Driver(L"IntelIde.sys"));  // a folder where the file must go
    kxtest::LogCursor log;
    EXPECT_EQ(g::InjectIDEDriver(guest.windows), 0u);
    EXPECT_EQ(guest.pause.count, 6);
    EXPECT_EQ(guest.pause.last, 10000u);
    const auto failed = log.Matching(L"ExtractDriver, copy sys failed, src = " + guest.Scratch() + L"\\IntelIde.sys");
    ASSERT_EQ(failed.size(), 1u);
    EXPECT_EQ(failed[0].level, 1);
    EXPECT_FALSE(log.Contains(L"Add registry for IntelIde."));
    EXPECT_TRUE(log.Contains(L"Add registry for symmpi."));
    EXPECT_EQ(LevelOf(log, L"finish Inject IDE/SCSI Driver, ret=0"), 2);
    EXPECT_FALSE(kxtest::Exists(guest.Scratch()));
}

// Bad guests: nothing created, the load's code returned.
TEST(DriverBadInput, MissingFoldersHivesAndRefusedHives) {
    kxtest::ScratchDir dir;
    const std::wstring absent = dir / L"nicht da ü\\Windows";
    const std::wstring empty = dir / L"leer Ω\\Windows";
    kxtest::MakeDirs(empty);
    for (const std::wstring& windows : {absent, empty}) {
        kxtest::LogCursor log;
        EXPECT_EQ(g::InjectIDEDriver(windows), DWORD{ERROR_BAD_ENVIRONMENT});
        EXPECT_EQ(g::InjectDriverForEC2Ex(windows, nullptr), DWORD{ERROR_BAD_ENVIRONMENT});
        EXPECT_EQ(LevelOf(log, L"RegGetWinVer failed, rc = 10"), 0);
        EXPECT_EQ(LevelOf(log, L"finish Inject IDE/SCSI Driver, ret=10"), 2);
        EXPECT_EQ(log.Matching(L"Fail to load system registry hive of virtual machine.").size(), 2u);
    }
    EXPECT_FALSE(kxtest::Exists(absent));
    std::vector<std::wstring> entries;
    (void)kx::ListDirectory(empty + L"\\*", [&](const WIN32_FIND_DATAW& fd) { entries.push_back(fd.cFileName); });
    EXPECT_TRUE(entries.empty());

    // A "hive" that neither the system nor the engine takes.
    Guest guest("", "software-52sp2", ".hive");
    std::string junk = "regf";
    junk.resize(8192, '\x5A');
    kxtest::WriteText(guest.Hive(L"system"), junk);
    kxtest::LogCursor log;
    const DWORD rc = g::InjectIDEDriver(guest.windows);
    EXPECT_NE(rc, 0u);
    EXPECT_NE(rc, DWORD{ERROR_INVALID_PARAMETER});
    EXPECT_NE(g::InjectDriverForEC2Ex(guest.windows, nullptr), 0u);
    EXPECT_EQ(kxtest::ReadBytes(guest.Hive(L"system")), Bytes(junk.begin(), junk.end()));
    EXPECT_EQ(log.Matching(L"Fail to load system registry hive of virtual machine.").size(), 2u);
    EXPECT_TRUE(guest.runner.lines.empty());
    EXPECT_FALSE(kxtest::Exists(guest.Scratch()));
}

// The process start: exit codes pass through; a program that cannot start
// or outlives its wait gives 2, and one still running is ended.
TEST(DriverProcess, RunAndWait) {
    auto& run = kx::platform::Processes();
    DWORD exitCode = 0;
    EXPECT_EQ(run.Run(L"expand.exe", 30000, &exitCode), 0u);
    EXPECT_EQ(exitCode, 1u);  // the stand-in's answer to a wrong command line
    EXPECT_EQ(run.Run(L"kx-no-such-program-here.exe", 30000, &exitCode), DWORD{ERROR_FILE_NOT_FOUND});

    kxtest::ScratchDir dir;
    const std::wstring marker = dir / L"started";
    const std::wstring event = L"kx-driver-hang-" + std::to_wstring(::GetCurrentProcessId());
    ::SetEnvironmentVariableW(L"KX_HELPER_TASK", (marker + L"|" + event).c_str());
    wchar_t self[MAX_PATH];
    ::GetModuleFileNameW(nullptr, self, MAX_PATH);
    const std::wstring line = L"\"" + std::wstring(self) +
                              L"\" --gtest_also_run_disabled_tests --gtest_filter=DriverProcess.DISABLED_Hang";
    EXPECT_EQ(run.Run(line, 8000, &exitCode), DWORD{ERROR_FILE_NOT_FOUND});
    EXPECT_TRUE(kxtest::Exists(marker)) << "the helper never started";
    // The helper's named event went with it.
    kx::unique_handle still(::OpenEventW(SYNCHRONIZE, FALSE, event.c_str()));
    EXPECT_FALSE(still);
}

TEST(DriverProcess, DISABLED_Hang) {
    const auto task = kxtest::HelperTask();
    ASSERT_EQ(task.size(), 2u);
    kx::unique_handle event(::CreateEventW(nullptr, TRUE, FALSE, task[1].c_str()));
    kxtest::WriteText(task[0], "up");
    ::Sleep(INFINITE);
}

namespace {

using kxguest::Hex;

// A dump (hive_tool.py's lines) with one value set to `type` / `data`.
void SetLine(std::set<std::string>& dump, const std::string& key, const std::string& name, int type,
             const std::string& hex) {
    const std::string head = "V\t" + key + "\t" + name + "\t";
    std::erase_if(dump, [&](const std::string& l) { return l.rfind(head, 0) == 0; });
    dump.insert("K\t" + key);
    dump.insert(head + std::to_string(type) + "\t" + hex);
}
std::string HexText(const wchar_t* s) { return Hex(s, (std::wcslen(s) + 1) * 2); }
std::string HexDword(DWORD v) { return Hex(&v, 4); }

}  // namespace

// The whole injection on a real hive file that it loads itself, then read
// back by hivex, reglookup and regfexport (guestfix_drivers_hivex_check)
// against the fixture's content plus the writes expected here.
TEST(DriverHivex, EditedHiveForTheIndependentReaders) {
    Guest guest("system", "software-52sp2", ".hive");
    guest.Hal("hal64.dll");
    guest.Cab(L"amd64", L"sp2.cab", "sp2.cab");
    ASSERT_EQ(g::InjectIDEDriver(guest.windows), 0u);

    std::ifstream in(std::string(KX_GUEST_FIXTURES) + "/system.dump", std::ios::binary);
    std::set<std::string> dump;
    for (std::string line; std::getline(in, line);) dump.insert(line);
    ASSERT_GT(dump.size(), 100u);
    const std::string set = "ControlSet001";
    for (const auto& d : kDevicesWant) {
        const std::string key = set + "\\Control\\CriticalDeviceDatabase\\" + kxtest::Narrow(d.id);
        if (d.service) SetLine(dump, key, "Service", REG_SZ, HexText(d.service));
        SetLine(dump, key, "ClassGUID", REG_SZ, HexText(d.cls));
    }
    // Existing keys keep the case of their names.
    for (auto [w, stored] : {std::pair{&kAtapiWant, "atapi"}, {&kIntelWant, "intelide"}, {&kPciWant, "PCIIde"},
                             {&kSymmpiWant, "symmpi"}}) {
        const std::string key = set + "\\Services\\" + stored;
        SetLine(dump, key, "ErrorControl", REG_DWORD, HexDword(w->errorControl));
        SetLine(dump, key, "Group", REG_SZ, HexText(w->group));
        SetLine(dump, key, "Start", REG_DWORD, HexDword(0));
        SetLine(dump, key, "Tag", REG_DWORD, HexDword(w->tag));
        SetLine(dump, key, "Type", REG_DWORD, HexDword(1));
        SetLine(dump, key, "ImagePath", REG_EXPAND_SZ, HexText(w->image));
    }
    kxguest::LeaveForHivex(guest.Hive(L"system"), "system-drivers", dump);
}
