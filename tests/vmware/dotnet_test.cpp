// .NET Framework versions: release numbers against Microsoft's published
// table (every number it lists, for every Windows release), the setup keys
// of the host's registry in their real shapes, and guest software hives on
// both hive backends.
#include <gtest/gtest.h>

#include "../guestfix/guest_test_util.h"
#include "guestfix/dotnet_version.h"

namespace g = kx::guestfix;

namespace {

const wchar_t* const kNdp = L"SOFTWARE\\Microsoft\\NET Framework Setup\\NDP";

using Versions = std::vector<std::wstring>;

}  // namespace

TEST(DotNet, EveryDocumentedReleaseNumber) {
    const struct {
        DWORD release;
        const wchar_t* version;
    } cases[] = {
        {378389, L"4.5"},   {378675, L"4.5.1"}, {378758, L"4.5.1"}, {379893, L"4.5.2"}, {393295, L"4.6"},
        {393297, L"4.6"},   {394254, L"4.6.1"}, {394271, L"4.6.1"}, {394802, L"4.6.2"}, {394806, L"4.6.2"},
        {460798, L"4.7"},   {460805, L"4.7"},   {461308, L"4.7.1"}, {461310, L"4.7.1"}, {461808, L"4.7.2"},
        {461814, L"4.7.2"}, {528040, L"4.8"},   {528049, L"4.8"},   {528372, L"4.8"},   {528449, L"4.8"},
        {533320, L"4.8.1"}, {533325, L"4.8.1"}, {533509, L"4.8.1"},
        // Below 4.5's first number, and past the newest known.
        {0, L""}, {378388, L""}, {0xFFFFFFFF, L"4.8.1"},
    };
    for (const auto& c : cases) EXPECT_STREQ(g::DotNetVersionOfRelease(c.release), c.version) << c.release;
}

TEST(DotNet, HostRegistryShapes) {
    struct Value {
        const wchar_t* key;
        const wchar_t* name;
        DWORD data;
    };
    const struct {
        const char* what;
        std::vector<Value> values;
        DWORD rc;
        Versions versions;
    } cases[] = {
        {"no NDP key", {}, ERROR_PRODUCT_UNINSTALLED, {}},
        {"Install not 1", {{L"v3.5", L"Install", 2}, {L"v4\\Full", L"Install", 0}}, ERROR_PRODUCT_UNINSTALLED, {}},
        {"Windows 7 as shipped",
         {{L"v2.0.50727", L"Install", 1}, {L"v3.0\\Setup", L"InstallSuccess", 1}, {L"v3.5", L"Install", 1}},
         0,
         {L"2.0", L"3.0", L"3.5"}},
        {"3.0 flagged on its own key", {{L"v3.0", L"Install", 1}}, 0, {L"3.0"}},
        {"1.1 and 4.0 client profile", {{L"v1.1.4322", L"Install", 1}, {L"v4\\Client", L"Install", 1}}, 0,
         {L"1.1", L"4.0"}},
        {"4.0 full", {{L"v4\\Full", L"Install", 1}, {L"v4\\Client", L"Install", 1}}, 0, {L"4.0"}},
        {"4.8.1 over 3.5",
         {{L"v3.5", L"Install", 1}, {L"v4\\Full", L"Install", 1}, {L"v4\\Full", L"Release", 533325}},
         0,
         {L"3.5", L"4.8.1"}},
        {"a release below 4.5 is 4.0", {{L"v4\\Full", L"Install", 1}, {L"v4\\Full", L"Release", 300000}}, 0, {L"4.0"}},
    };
    for (const auto& c : cases) {
        ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kNdp);
        for (const auto& v : c.values) kxtest::SetRegValue(std::wstring(kNdp) + L"\\" + v.key, v.name, v.data);
        std::wstring highest = L"stale";
        Versions versions{L"stale"};
        EXPECT_EQ(g::GetDotNetVersion(L"", nullptr, false, &highest, &versions), c.rc) << c.what;
        EXPECT_EQ(versions, c.versions) << c.what;
        EXPECT_EQ(highest, c.versions.empty() ? L"" : c.versions.back()) << c.what;
    }
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kNdp);
}

class DotNetGuest : public kxguest::TwoBackends {};

TEST_P(DotNetGuest, SoftwareHiveLoadedHereOrGiven) {
    kxguest::Guest guest("", "dotnet-software", Ext());
    // The host has a different .NET, which must not leak into the guest's answer.
    kxtest::SetRegValue(std::wstring(kNdp) + L"\\v4\\Full", L"Release", 533320);
    const Versions expected{L"2.0", L"3.0", L"3.5", L"4.8"};
    std::wstring highest;
    Versions versions;
    kxtest::LogCursor log;
    EXPECT_EQ(g::GetDotNetVersion(guest.windows, nullptr, true, &highest, &versions), 0u);
    EXPECT_EQ(versions, expected);
    EXPECT_EQ(highest, L"4.8");
    EXPECT_TRUE(log.Contains(L"getDotNetVersion(" + guest.windows + L") starts"));

    auto software = Load(guest, g::GuestHive::kSoftware);
    ASSERT_TRUE(software);
    versions.clear();
    EXPECT_EQ(g::GetDotNetVersion(L"", software.get(), true, &highest, &versions), 0u);
    EXPECT_EQ(versions, expected);
    // The given hive stays loaded.
    EXPECT_TRUE(kxguest::Open(*software, L"\\Microsoft\\NET Framework Setup\\NDP\\v4\\Full").IsValid());
    ::RegDeleteTreeW(HKEY_LOCAL_MACHINE, kNdp);
}

TEST_P(DotNetGuest, NoneInstalledAndNoHive) {
    kxguest::Guest guest("", "software-100", Ext());
    std::wstring highest = L"stale";
    EXPECT_EQ(g::GetDotNetVersion(guest.windows, nullptr, true, &highest, nullptr),
              DWORD{ERROR_PRODUCT_UNINSTALLED});
    EXPECT_EQ(highest, L"");
    kxtest::ScratchDir empty;
    kxtest::LogCursor log;
    EXPECT_EQ(g::GetDotNetVersion(empty.path(), nullptr, true, &highest, nullptr), DWORD{ERROR_BAD_ENVIRONMENT});
    EXPECT_TRUE(log.Contains(L"Fail to load software registry hive of virtual machine."));
    EXPECT_EQ(g::GetDotNetVersion(L"", nullptr, true, &highest, nullptr), DWORD{ERROR_INVALID_PARAMETER});
}

INSTANTIATE_TEST_SUITE_P(Backends, DotNetGuest, ::testing::Values(false, true), kxguest::BackendName);
