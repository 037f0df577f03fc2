// kxha guest inject-drivers / ec2 on fixture guests (real hive files, held
// by the library's hive engine): the changes it prints are those read back
// from the hive file before and after, and failures carry the code.
#include <gtest/gtest.h>

#include "kx_test.h"
#include "kxha_run.h"

using kxhatest::Has;
using kxhatest::Kxha;
using kxhatest::Q;

namespace {

std::wstring MakeGuest(const std::wstring& root, const std::string& system, const std::string& software) {
    const std::wstring windows = root + L"\\Gäst Ω\\Windows", config = windows + L"\\system32\\config\\";
    kxtest::MakeDirs(config);
    kxtest::MakeDirs(windows + L"\\System32\\Drivers");
    for (auto [name, file] : {std::pair{L"system", system}, std::pair{L"software", software}})
        if (!file.empty()) kxhatest::Put(file, config + name);
    return windows;
}

}  // namespace

TEST(KxhaGuestDrivers, PrintsWhatChanged) {
    struct Case {
        const char* what;
        const wchar_t* command;
        std::string system, software;
        bool driverStore;  // lsi_scsi.sys in the driver store, intelide.sys in place
        std::vector<std::string> shown;
        std::vector<std::string> notShown;
    };
    const Case cases[] = {
        {"Windows 7", L"inject-drivers", "system.hive", "software.hive", true,
         {"+ ControlSet001\\Services\\LSI_SCSI\n", "ControlSet001\\Services\\LSI_SCSI Group = \"SCSI miniport\"",
          "ControlSet001\\Services\\IntelIde ErrorControl: dword:3 -> dword:1",
          "+ ControlSet001\\Control\\CriticalDeviceDatabase\\pci#ven_8086&dev_24c0\n",
          "ControlSet001\\Control\\CriticalDeviceDatabase\\pci#ven_8086&dev_24c0 Service = \"isapnp\"",
          "+ file System32\\Drivers\\lsi_scsi.sys"},
         {"symmpi", "DisplayName", "primary_ide_channel"}},
        {"Windows Server 2019", L"inject-drivers", "system.hive", "software-100.hive", false, {"no changes\n"}, {"+"}},
        {"EC2 on a Xen guest", L"ec2", "system-ec2.hive", "", false,
         {"ControlSet001\\Services\\rhelscsi EnumerateDevices: dword:1 -> dword:0",
          "ControlSet001\\Control\\TimeZoneInformation RealTimeIsUniversal: dword:0 -> dword:1",
          "ControlSet001\\Control\\TimeZoneInformation Start = dword:2"},
         {"W32Time", "+"}},
    };
    for (const Case& c : cases) {
        kxtest::ScratchDir dir;
        const std::wstring windows = MakeGuest(dir.path(), c.system, c.software);
        if (c.driverStore) {
            const std::wstring store = windows + L"\\System32\\DriverStore\\FileRepository\\lsi.inf_amd64_9";
            kxtest::MakeDirs(store);
            kxtest::WriteText(store + L"\\lsi_scsi.sys", "lsi driver");
            kxtest::WriteText(windows + L"\\System32\\Drivers\\IntelIde.sys", "intel driver");
        }
        const auto r = Kxha(std::wstring(L"guest ") + c.command + L" " + Q(windows));
        EXPECT_EQ(r.code, 0u) << c.what << "\n" << r.out;
        for (const std::string& s : c.shown) EXPECT_TRUE(Has(r, s)) << c.what << ": " << s << "\n" << r.out;
        for (const std::string& s : c.notShown) EXPECT_FALSE(Has(r, s)) << c.what << ": " << s << "\n" << r.out;
        // Done once, nothing is left to change.
        const auto again = Kxha(std::wstring(L"guest ") + c.command + L" " + Q(windows));
        EXPECT_EQ(again.out, "no changes\n") << c.what;
    }
}

TEST(KxhaGuestDrivers, FailuresCarryTheCode) {
    kxtest::ScratchDir dir;
    const std::wstring noHives = dir / L"leer\\Windows";
    kxtest::MakeDirs(noHives);
    const std::wstring junk = MakeGuest(dir / L"junk", "", "software.hive");
    kxtest::WriteText(junk + L"\\system32\\config\\system", std::string("regf") + std::string(8000, 'Z'));
    const struct {
        const char* what;
        std::wstring args;
        std::string shown;
    } cases[] = {
        {"no hives", L"guest inject-drivers " + Q(noHives), "error: InjectIDEDriver failed, rc = 10 (0x0000000A)"},
        {"no hives, ec2", L"guest ec2 " + Q(noHives), "error: InjectDriverForEC2Ex failed, rc = 10 (0x0000000A)"},
        {"refused hive", L"guest inject-drivers " + Q(junk), "error: InjectIDEDriver failed, rc = "},
    };
    for (const auto& c : cases) {
        const auto r = Kxha(c.args);
        EXPECT_NE(r.code, 0u) << c.what;
        EXPECT_TRUE(Has(r, c.shown)) << c.what << "\n" << r.out;
    }
}
