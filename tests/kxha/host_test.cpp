// kxha host under Wine: the adapter table and facts from the host's WMI,
// compared with what the IP helper and GetSystemInfo report on their own;
// changes refused without --yes, and refusals that stop before the host is
// touched (an unknown adapter, a missing gateway).
#include <winsock2.h>
#include <iphlpapi.h>

#include <gtest/gtest.h>

#include "kx_test.h"
#include "kxha_run.h"

using kxhatest::Has;
using kxhatest::Kxha;

namespace {

// Adapter name -> MAC ("aa:bb:..") from the IP helper, loopback left out.
std::map<std::string, std::string> IpHelperAdapters() {
    std::map<std::string, std::string> found;
    ULONG size = 64 * 1024;
    std::vector<BYTE> buf(size);
    auto* list = reinterpret_cast<IP_ADAPTER_ADDRESSES*>(buf.data());
    if (GetAdaptersAddresses(AF_UNSPEC, 0, nullptr, list, &size) != NO_ERROR) return found;
    for (auto* a = list; a; a = a->Next) {
        if (a->IfType == IF_TYPE_SOFTWARE_LOOPBACK) continue;
        std::string mac;
        for (ULONG i = 0; i < a->PhysicalAddressLength; ++i) {
            char part[4];
            snprintf(part, sizeof part, "%s%02x", i ? ":" : "", a->PhysicalAddress[i]);
            mac += part;
        }
        found[kxtest::Narrow(a->FriendlyName)] = mac;
    }
    return found;
}

std::string Lower(std::string s) {
    for (auto& c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return s;
}

TEST(KxhaHost, AdapterTableShowsEachAdapterWithItsMac) {
    const auto adapters = IpHelperAdapters();
    ASSERT_FALSE(adapters.empty());
    const auto table = Kxha(L"host adapters");
    ASSERT_EQ(table.code, 0u) << table.out;
    EXPECT_TRUE(Has(table, "ID")) << table.out;
    EXPECT_TRUE(Has(table, "DNS SERVERS")) << table.out;
    const auto json = Kxha(L"host adapters --json");
    ASSERT_EQ(json.code, 0u) << json.out;
    for (const auto& [name, mac] : adapters) {
        EXPECT_TRUE(Has(table, name)) << name << "\n" << table.out;
        EXPECT_TRUE(Lower(table.out).find(mac) != std::string::npos) << mac << "\n" << table.out;
        EXPECT_TRUE(Has(json, "\"name\": \"" + name + "\"")) << json.out;
    }
}

TEST(KxhaHost, FactsAgreeWithTheSystemInformation) {
    SYSTEM_INFO info{};
    GetSystemInfo(&info);
    const auto r = Kxha(L"host facts --json");
    ASSERT_EQ(r.code, 0u) << r.out;
    EXPECT_TRUE(Has(r, "\"logicalProcessors\": " + std::to_string(info.dwNumberOfProcessors))) << r.out;
    EXPECT_TRUE(Has(r, "\"architecture\": 9")) << r.out;
    EXPECT_TRUE(Has(r, "\"hyperVRole\": false")) << r.out;
    const auto text = Kxha(L"host facts");
    EXPECT_TRUE(Has(text, "Architecture:       x64 (9)")) << text.out;
}

TEST(KxhaHost, ChangesNeedTheConfirmationFlagAndStopAtTheFirstRefusal) {
    struct Case {
        const wchar_t* args;
        DWORD code;
        std::string shown;
    } cases[] = {
        {L"host set-static eth0 --ip 10.0.0.5 --mask 255.0.0.0", 2, "nothing changed. Add --yes"},
        {L"host set-dhcp eth0", 2, "would switch DHCP on on adapter \"eth0\""},
        {L"host set-dhcp \"No Such Adapter\" --yes", 1, "EnableHostDHCP failed, rc = 1168"},
        {L"host set-gateways eth0 --yes", 1, "SetHostGateways failed, rc = 87"},
        {L"host set-wins eth0 \"\" --yes --json", 1, "\"rc\": 87, \"failedCall\": \"SetHostWINSServer\""},
        {L"host set-static eth0 --ip 10.0.0.5 --yes", 1, "EnableHostStatic failed, rc = 87"},
        {L"host set-dns eth0 --register sometimes --yes", 2, "--register takes full, domain, both or none"},
        {L"host resolve \"\"", 1, "GetIpAddressFromDns() failed, rc = 87"},
        {L"host frobnicate", 2, "unknown subcommand 'frobnicate'"},
    };
    for (const auto& c : cases) {
        const auto r = Kxha(c.args);
        EXPECT_EQ(r.code, c.code) << kxtest::Narrow(c.args) << "\n" << r.out;
        EXPECT_TRUE(Has(r, c.shown)) << kxtest::Narrow(c.args) << "\n" << r.out;
    }
}

}  // namespace
