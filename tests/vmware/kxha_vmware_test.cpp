// kxha vmware through the DLL: guest identifiers, the .NET versions of a
// fixture guest, the VDDK library, and bad arguments.
#include <gtest/gtest.h>

#include "../kxha/kxha_run.h"
#include "kx_test.h"

using kxhatest::Has;
using kxhatest::Kxha;
using kxhatest::Q;

TEST(KxhaVmware, GuestId) {
    const struct {
        const wchar_t* args;
        DWORD code;
        std::string out;
    } cases[] = {
        {L"10.0.17763 --server", 0, "GUEST ID      windows2019srv_64Guest\n"},
        {L"10.0.22631 --json", 0,
         "{\"release\": \"10.0.22631\", \"edition\": \"client\", \"architecture\": \"x64\", \"guestId\": "
         "\"windows11_64Guest\", \"known\": true}\n"},
        {L"6.3 --server --x86", 1, "GUEST ID      otherGuest (fallback: release not known)\n"},
        {L"10.0.x", 1, "rc = 87"},
    };
    for (const auto& c : cases) {
        const auto r = Kxha(std::wstring(L"vmware guest-id ") + c.args);
        EXPECT_EQ(r.code, c.code) << r.out;
        EXPECT_TRUE(Has(r, c.out)) << r.out;
    }
}

TEST(KxhaVmware, OfflineGuestAndUsage) {
    kxtest::ScratchDir dir;
    const std::wstring windows = dir / L"G\u00e4st\\Windows";
    kxtest::MakeDirs(windows + L"\\system32\\config");
    for (const auto& [fixture, hive] : {std::pair{"dotnet-software.hive", L"software"}, {"guestid-system.hive", L"system"}}) {
        const auto bytes = kxtest::ReadBytes(kxhatest::Fixture(fixture));
        kxtest::WriteBytes(windows + L"\\system32\\config\\" + hive, bytes.data(), bytes.size());
    }
    auto r = Kxha(L"vmware dotnet " + Q(windows));
    EXPECT_EQ(r.code, 0u) << r.out;
    EXPECT_TRUE(Has(r, "NEWEST     4.8\nINSTALLED  2.0, 3.0, 3.5, 4.8\n")) << r.out;
    r = Kxha(L"vmware guest-id " + Q(windows) + L" --json");
    EXPECT_EQ(r.out, "{\"release\": \"10.0.20348\", \"edition\": \"server\", \"architecture\": \"x64\", "
                     "\"guestId\": \"windows2019srvNext_64Guest\", \"known\": true}\n");
    r = Kxha(L"vmware dotnet " + Q(windows) + L" --json");
    EXPECT_TRUE(Has(r, "\"newest\": \"4.8\", \"installed\": [\"2.0\", \"3.0\", \"3.5\", \"4.8\"]}")) << r.out;
    EXPECT_TRUE(Has(Kxha(L"vmware dotnet " + Q(dir / L"none")), "no Windows folder"));
    r = Kxha(L"vmware vddk --json");
    EXPECT_EQ(r.code, 0u) << r.out;
    EXPECT_TRUE(Has(r, "{\"version\": ")) << r.out;
    r = Kxha(L"vmware");
    EXPECT_EQ(r.code, 2u);
    EXPECT_TRUE(Has(r, "kxha vmware tools-status [--json]"));
}
