// Guest identifiers of every Windows release from 2000 on, checked against a
// table written release by release from VMware's list of guest OS
// identifiers and Microsoft's version and build numbers; not from the
// library's own table, which keys on first builds.
#include <gtest/gtest.h>

#include "../guestfix/guest_test_util.h"
#include "guestfix/guest_id.h"

namespace g = kx::guestfix;

namespace {

constexpr DWORD x86 = 0, x64 = 9;

struct Release {
    const char* name;
    DWORD major, minor, build;
    bool server;
    DWORD arch;
    const wchar_t* id;  // null: not a release VMware names
};

const Release kReleases[] = {
    {"2000 Professional", 5, 0, 2195, false, x86, L"win2000ProGuest"},
    {"2000 Server", 5, 0, 2195, true, x86, L"win2000ServGuest"},
    {"XP Professional", 5, 1, 2600, false, x86, L"winXPProGuest"},
    {"XP Professional x64", 5, 2, 3790, false, x64, L"winXPPro64Guest"},
    {"Server 2003 Standard", 5, 2, 3790, true, x86, L"winNetStandardGuest"},
    {"Server 2003 R2 x64", 5, 2, 3790, true, x64, L"winNetStandard64Guest"},
    {"Vista", 6, 0, 6002, false, x86, L"winVistaGuest"},
    {"Vista x64", 6, 0, 6002, false, x64, L"winVista64Guest"},
    {"Server 2008", 6, 0, 6001, true, x86, L"winLonghornGuest"},
    {"Server 2008 x64", 6, 0, 6003, true, x64, L"winLonghorn64Guest"},
    {"7", 6, 1, 7601, false, x86, L"windows7Guest"},
    {"7 x64", 6, 1, 7601, false, x64, L"windows7_64Guest"},
    {"Server 2008 R2", 6, 1, 7601, true, x64, L"windows7Server64Guest"},
    {"8", 6, 2, 9200, false, x86, L"windows8Guest"},
    {"8 x64", 6, 2, 9200, false, x64, L"windows8_64Guest"},
    {"Server 2012", 6, 2, 9200, true, x64, L"windows8Server64Guest"},
    {"8.1", 6, 3, 9600, false, x86, L"windows8Guest"},
    {"8.1 x64", 6, 3, 9600, false, x64, L"windows8_64Guest"},
    {"Server 2012 R2", 6, 3, 9600, true, x64, L"windows8Server64Guest"},
    {"10 1507", 10, 0, 10240, false, x64, L"windows9_64Guest"},
    {"10 1507 x86", 10, 0, 10240, false, x86, L"windows9Guest"},
    {"11 21H2", 10, 0, 22000, false, x64, L"windows11_64Guest"},
    {"11 24H2", 10, 0, 26100, false, x64, L"windows11_64Guest"},
    {"Server 2016", 10, 0, 14393, true, x64, L"windows9Server64Guest"},
    {"Server 2019", 10, 0, 17763, true, x64, L"windows2019srv_64Guest"},
    {"Server 2022", 10, 0, 20348, true, x64, L"windows2019srvNext_64Guest"},
    {"Server 2025", 10, 0, 26100, true, x64, L"windows2022srvNext_64Guest"},
    {"10.0 without a build", 10, 0, 0, false, x64, L"windows9_64Guest"},
    // The last build before each 10.0 release, and builds not yet released:
    // the releases in between fall in the same ranges.
    {"client build 21999", 10, 0, 21999, false, x64, L"windows9_64Guest"},
    {"server build 17762", 10, 0, 17762, true, x64, L"windows9Server64Guest"},
    {"server build 20347", 10, 0, 20347, true, x64, L"windows2019srv_64Guest"},
    {"server build 26099", 10, 0, 26099, true, x64, L"windows2019srvNext_64Guest"},
    {"Server vNext", 10, 0, 0xFFFFFFFF, true, x64, L"windows2022srvNext_64Guest"},
    {"11 vNext", 10, 0, 0xFFFFFFFF, false, x64, L"windows11_64Guest"},
    // Never shipped so, or not Windows VMware names.
    {"2000 x64", 5, 0, 2195, false, x64, nullptr},
    {"XP x64 on 5.1", 5, 1, 2600, false, x64, nullptr},
    {"5.2 client x86", 5, 2, 3790, false, x86, nullptr},
    {"Server 2008 R2 x86", 6, 1, 7601, true, x86, nullptr},
    {"11 x86", 10, 0, 22621, false, x86, nullptr},
    {"Server 2019 x86", 10, 0, 17763, true, x86, nullptr},
    {"10 on Arm64", 10, 0, 19045, false, 12, nullptr},
    {"NT 4.0", 4, 0, 1381, true, x86, nullptr},
    {"6.4 preview", 6, 4, 9841, false, x64, nullptr},
    {"11.0", 11, 0, 30000, false, x64, nullptr},
};

}  // namespace

TEST(GuestId, EveryReleaseAgainstTheDocumentedTable) {
    for (const auto& r : kReleases) {
        std::wstring id = L"stale";
        kxtest::LogCursor log;
        const DWORD rc = g::GetGuestID({r.major, r.minor, r.build, r.server, r.arch}, &id);
        if (r.id) {
            EXPECT_EQ(rc, 0u) << r.name;
            EXPECT_EQ(id, r.id) << r.name;
        } else {
            EXPECT_EQ(rc, DWORD{ERROR_NOT_FOUND}) << r.name;
            EXPECT_EQ(id, r.arch == x86 ? L"otherGuest" : L"otherGuest64") << r.name;
            EXPECT_TRUE(log.Contains(L"has no VMware guest identifier; using " + id)) << r.name;
        }
        EXPECT_TRUE(log.Contains(L"GetGuestID() finished, rc = [" + std::to_wstring(rc) + L"]")) << r.name;
    }
}

// Offline guests: the release as their hives tell it, on both backends.
class GuestIdOfGuest : public kxguest::TwoBackends {};

TEST_P(GuestIdOfGuest, ReadFromTheHives) {
    const struct {
        const char *system, *software;
        DWORD rc;
        const wchar_t* id;
        DWORD major, minor, build;
        bool server;
        DWORD arch;
    } cases[] = {
        // Control set 2 is current; 10.0 read from its DWORDs, not "6.3".
        {"guestid-system", "dotnet-software", 0, L"windows2019srvNext_64Guest", 10, 0, 20348, true, x64},
        // No build, no ProductOptions, no InstallationType: the first 10.0 client.
        {"system", "vmguest10-software", 0, L"windows9_64Guest", 10, 0, 0, false, x64},
        {"system", "software-62", 0, L"windows8_64Guest", 6, 2, 7601, false, x64},
        // No PROCESSOR_ARCHITECTURE: not known.
        {"vmguest-system", "vmguest-software", ERROR_NOT_FOUND, L"otherGuest64", 6, 1, 0, false, 0xFFFF},
        {"", "software-62", ERROR_BAD_ENVIRONMENT, L"", 0, 0, 0, false, 0xFFFF},
    };
    for (const auto& c : cases) {
        kxguest::Guest guest(c.system, c.software, Ext());
        std::wstring id = L"stale";
        g::WindowsRelease r;
        EXPECT_EQ(g::GetGuestIDEx(guest.windows, nullptr, nullptr, &id, &r), c.rc) << c.software;
        EXPECT_EQ(id, c.id) << c.software;
        EXPECT_EQ(std::tuple(r.major, r.minor, r.build, r.server, r.architecture),
                  std::tuple(c.major, c.minor, c.build, c.server, c.arch))
            << c.software;
    }
    // Hives that are given stay loaded.
    kxguest::Guest guest("guestid-system", "dotnet-software", Ext());
    auto software = Load(guest, g::GuestHive::kSoftware);
    auto system = Load(guest, g::GuestHive::kSystem);
    ASSERT_TRUE(software && system);
    std::wstring id;
    EXPECT_EQ(g::GetGuestIDEx(L"", software.get(), system.get(), &id, nullptr), 0u);
    EXPECT_EQ(id, L"windows2019srvNext_64Guest");
    EXPECT_TRUE(kxguest::Open(*system, L"\\Select").IsValid());
    EXPECT_EQ(g::GetGuestIDEx(L"", software.get(), nullptr, &id, nullptr), DWORD{ERROR_INVALID_PARAMETER});
}

INSTANTIATE_TEST_SUITE_P(Backends, GuestIdOfGuest, ::testing::Values(false, true), kxguest::BackendName);
