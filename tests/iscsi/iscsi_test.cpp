// iSCSI names and portals, discovery, attach with retries and logout, on an
// in-process initiator; the retry count is read from the host registry.
#include <gtest/gtest.h>

#include <optional>

#include "disk/iscsi.h"
#include "fake_initiator.h"
#include "guestfix/hive_access.h"
#include "kx_test.h"
#include "platform/registry.h"

namespace {

using kx::platform::kIscsiAuthenticationFailure;
using kx::platform::kIscsiConnectionFailed;
using kx::platform::kIscsiLoginFailed;
using kxtest::FakeInitiator;

constexpr const wchar_t* kNtnx = L"iqn.2010-06.com.nutanix:vg-snap-0001-tgt0";
constexpr const wchar_t* kOther = L"iqn.2004-01.org.example.storage:disk7";

void SetTries(std::optional<DWORD> tries) {
    if (tries) {
        kxtest::SetRegValue(kx::guestfix::kEngineKey, kx::disk::kIscsiRetryValue, *tries);
        return;
    }
    kx::hostutil::RegistryKey key(HKEY_LOCAL_MACHINE, kx::guestfix::kEngineKey, KEY_SET_VALUE);
    if (key) (void)key.DeleteValue(kx::disk::kIscsiRetryValue);
}

// A portal at 10.20.0.5:3260 that serves a Nutanix target and another one.
void TwoTargets(FakeInitiator& fake) {
    fake.portals[L"10.20.0.5:3260"].serves = {kNtnx, kOther};
    fake.targets[kNtnx].portals = {{L"10.20.0.5", 3260}};
    fake.targets[kNtnx].disks = {L"\\\\.\\PhysicalDrive3"};
    fake.targets[kOther].portals = {{L"10.20.0.9", 3260}};
}

TEST(IscsiNames, FormsAndAuthorities) {
    const struct {
        const wchar_t* name;
        bool valid;
        const wchar_t* authority;
        bool nutanix;
    } cases[] = {
        {L"iqn.2010-06.com.nutanix:vg-1-tgt0", true, L"com.nutanix", true},
        {L"IQN.2010-06.COM.Nutanix:VG", true, L"com.nutanix", true},
        {L"iqn.2014-02.com.nutanix.cluster7:x", true, L"com.nutanix.cluster7", true},
        {L"iqn.2010-06.com.nutanixx:a", true, L"com.nutanixx", false},
        {L"iqn.2010-06.org.nutanix:a", true, L"org.nutanix", false},
        {L"iqn.2010-06.nutanix.com:a", true, L"nutanix.com", false},
        {L"iqn.2001-04.com.example", true, L"com.example", false},
        {L"eui.02004567A425678D", true, L"", false},
        {L"naa.52004567BA64678D", true, L"", false},
        {L"naa.62004567BA64678D0123456789ABCDEF", true, L"", false},
        {L"", false, L"", false},
        {L"iqn.", false, L"", false},
        {L"iqn.2001-13.com.example:a", false, L"", false},
        {L"iqn.2001-00.com.example:a", false, L"", false},
        {L"iqn.01-04.com.example:a", false, L"", false},
        {L"iqn.2001-4.com.example:a", false, L"", false},
        {L"iqn.2001-04:a", false, L"", false},
        {L"iqn.2001-04.com..example:a", false, L"", false},
        {L"iqn.2001-04.-com.example:a", false, L"", false},
        {L"iqn.2001-04.com.example-:a", false, L"", false},
        {L"iqn.2001-04.com.example:", false, L"", false},
        {L"iqn.2001-04.com.example:a b", false, L"", false},
        {L"iqn.2001-04.com.ex_ample:a", false, L"", false},
        {L"eui.02004567A425678", false, L"", false},
        {L"eui.02004567A425678G", false, L"", false},
        {L"naa.52004567BA64678D01", false, L"", false},
        {L"iqm.2001-04.com.example:a", false, L"", false},
        {L"10.0.0.1", false, L"", false},
    };
    for (const auto& c : cases) {
        std::wstring authority;
        EXPECT_EQ(kx::disk::IsValidIscsiName(c.name, &authority), c.valid) << kxtest::Narrow(c.name);
        if (!c.valid) continue;
        EXPECT_EQ(authority, c.authority) << kxtest::Narrow(c.name);
        EXPECT_EQ(kx::disk::IsNutanixAuthority(authority), c.nutanix) << kxtest::Narrow(c.name);
    }
    // The longest name allowed, and one character more.
    const std::wstring base = L"iqn.2001-04.com.example:";
    EXPECT_TRUE(kx::disk::IsValidIscsiName(base + std::wstring(223 - base.size(), L'a')));
    EXPECT_FALSE(kx::disk::IsValidIscsiName(base + std::wstring(224 - base.size(), L'a')));
}

TEST(IscsiNames, PortalAddresses) {
    const struct {
        const wchar_t* text;
        bool ok;
        const wchar_t* address;
        USHORT port;
    } cases[] = {
        {L"10.20.0.5", true, L"10.20.0.5", 3260},
        {L"10.20.0.5:3261", true, L"10.20.0.5", 3261},
        {L"san01.lab.local", true, L"san01.lab.local", 3260},
        {L"san01:65535", true, L"san01", 65535},
        {L"fe80::1", true, L"fe80::1", 3260},
        {L"[fd00:1::20]:860", true, L"fd00:1::20", 860},
        {L"1:2:3:4:5:6:7:8", true, L"1:2:3:4:5:6:7:8", 3260},
        {L"", false, L"", 0},
        {L":3260", false, L"", 0},
        {L"10.20.0.5:", false, L"", 0},
        {L"10.20.0.5:0", false, L"", 0},
        {L"10.20.0.5:65536", false, L"", 0},
        {L"10.20.0.256", false, L"", 0},
        {L"10.20.0", false, L"", 0},
        {L"10.20.0.5.6", false, L"", 0},
        {L"san 01", false, L"", 0},
        {L"san_01.lab", false, L"", 0},
        {L"-san.lab", false, L"", 0},
        {L"[fe80::1", false, L"", 0},
        {L"[fe80::1]3260", false, L"", 0},
        {L"[10.0.0.1]:3260", false, L"", 0},
        {L"1:2:3:4:5:6:7:8:9", false, L"", 0},
        {L"1::2::3", false, L"", 0},
        {L"12345::1", false, L"", 0},
        {L"fe80::1%3", false, L"", 0},
    };
    for (const auto& c : cases) {
        kx::platform::IscsiPortal p;
        EXPECT_EQ(kx::disk::ParsePortal(c.text, &p), c.ok) << kxtest::Narrow(c.text);
        if (!c.ok) continue;
        EXPECT_EQ(p.address, c.address) << kxtest::Narrow(c.text);
        EXPECT_EQ(p.port, c.port) << kxtest::Narrow(c.text);
    }
    // Labels of 63 characters pass, 64 do not; names beyond 253 characters do not.
    kx::platform::IscsiPortal p;
    const std::wstring label(63, L'a');
    EXPECT_TRUE(kx::disk::ParsePortal(label + L"." + label + L":3260", &p));
    EXPECT_FALSE(kx::disk::ParsePortal(label + L"a.lab", &p));
    EXPECT_FALSE(kx::disk::ParsePortal(label + L"." + label + L"." + label + L"." + label, &p));
}

TEST(IscsiNames, SessionIdsRoundTrip) {
    const kx::platform::IscsiSessionId ids[] = {{0, 0}, {0xffffe00012340000ull, 0x4000013700000002ull}, {~0ull, 1}};
    for (const auto& id : ids) {
        const std::wstring text = kx::disk::FormatSessionId(id);
        EXPECT_EQ(text.size(), 33u);
        kx::platform::IscsiSessionId back;
        ASSERT_TRUE(kx::disk::ParseSessionId(text, &back)) << kxtest::Narrow(text);
        EXPECT_EQ(back, id);
    }
    EXPECT_EQ(kx::disk::FormatSessionId({0xffffe00012340000ull, 2}), L"ffffe00012340000-0000000000000002");
    for (const wchar_t* bad : {L"", L"-", L"12-", L"-12", L"12345678901234567-1", L"1-x", L"1 - 2"}) {
        kx::platform::IscsiSessionId id;
        EXPECT_FALSE(kx::disk::ParseSessionId(bad, &id)) << kxtest::Narrow(bad);
    }
}

// Refused arguments never reach the initiator.
TEST(Iscsi, BadInputIsRefusedBeforeAnySystemCall) {
    FakeInitiator fake;
    TwoTargets(fake);
    std::vector<IscsiTargetInfo> targets;
    IscsiAttachInfo info;
    DWORD count = 7;
    const struct {
        const char* what;
        DWORD rc;
    } cases[] = {
        {"discover null", kx::disk::DiscoverTarget(nullptr, &targets)},
        {"discover empty", kx::disk::DiscoverTarget(L"", &targets)},
        {"discover bad address", kx::disk::DiscoverTarget(L"10.20.0.300", &targets)},
        {"discover null out", kx::disk::DiscoverTarget(L"10.20.0.5", nullptr)},
        {"attach null", kx::disk::AttachIscsiTarget(nullptr, nullptr, &info)},
        {"attach empty", kx::disk::AttachIscsiTarget(L"", nullptr, &info)},
        {"attach bad iqn", kx::disk::AttachIscsiTarget(L"iqn.2010-6.com.nutanix:x", nullptr, &info)},
        {"attach bad portal", kx::disk::AttachIscsiTarget(kNtnx, L"[fe80::1", &info)},
        {"logout null", kx::disk::LogoutIscsiSession(nullptr, &count)},
        {"logout empty", kx::disk::LogoutIscsiSession(L"", &count)},
        {"logout neither", kx::disk::LogoutIscsiSession(L"target7", &count)},
        {"iqn null size", kx::disk::GetIqnNumber(nullptr, nullptr)},
    };
    for (const auto& c : cases) EXPECT_EQ(c.rc, static_cast<DWORD>(ERROR_INVALID_PARAMETER)) << c.what;
    EXPECT_TRUE(fake.calls.empty()) << kxtest::Narrow(fake.calls.front());
    EXPECT_EQ(count, 0u);
}

TEST(Iscsi, InitiatorNameIntoCallerBuffer) {
    FakeInitiator fake;
    const DWORD length = static_cast<DWORD>(fake.nodeName.size());
    DWORD chars = 0;
    EXPECT_EQ(kx::disk::GetIqnNumber(nullptr, &chars), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(chars, length + 1);
    std::vector<wchar_t> buffer(length + 1, L'#');
    chars = length;  // one short: room for the name but not its terminator
    EXPECT_EQ(kx::disk::GetIqnNumber(buffer.data(), &chars), static_cast<DWORD>(ERROR_INSUFFICIENT_BUFFER));
    EXPECT_EQ(chars, length + 1);
    EXPECT_EQ(buffer[0], L'#');
    EXPECT_EQ(kx::disk::GetIqnNumber(buffer.data(), &chars), 0u);
    EXPECT_EQ(chars, length);
    EXPECT_EQ(std::wstring(buffer.data()), fake.nodeName);

    const struct {
        const wchar_t* name;
        DWORD code;
        DWORD rc;
    } cases[] = {
        {L"", 0, ERROR_INVALID_DATA},
        {L"proxy01", 0, ERROR_INVALID_DATA},
        {L"iqn.1991-05.com.microsoft", 0, 0},
        {L"", ERROR_SERVICE_NOT_ACTIVE, ERROR_SERVICE_NOT_ACTIVE},
    };
    for (const auto& c : cases) {
        fake.nodeName = c.name;
        fake.nodeNameCode = c.code;
        wchar_t out[300] = L"#";
        chars = 300;
        EXPECT_EQ(kx::disk::GetIqnNumber(out, &chars), c.rc) << kxtest::Narrow(c.name);
        if (c.code == 0 && *c.name) {
            EXPECT_EQ(std::wstring(out), c.name);  // returned as reported
        }
    }
}

TEST(Iscsi, DiscoveryReportsTargetsWithNutanixAndPortalMarks) {
    SetTries(std::nullopt);
    FakeInitiator fake;
    TwoTargets(fake);
    fake.portals[L"10.20.0.5:3260"].serves.push_back(L"iqn.2010-06.com.nutanix:gone");
    fake.known = {L"eui.02004567A425678D"};  // found earlier through another portal
    fake.targets[L"eui.02004567A425678D"].portals = {{L"10.30.0.1", 3260}};
    kxtest::LogCursor log;
    std::vector<IscsiTargetInfo> targets;
    ASSERT_EQ(kx::disk::DiscoverTarget(L"10.20.0.5", &targets), 0u);
    ASSERT_EQ(targets.size(), 3u);  // the target without portals is left out
    EXPECT_EQ(targets[0].name, L"eui.02004567A425678D");
    EXPECT_FALSE(targets[0].viaPortal);
    EXPECT_EQ(targets[1].name, kNtnx);
    EXPECT_TRUE(targets[1].nutanix);
    EXPECT_TRUE(targets[1].viaPortal);
    EXPECT_EQ(targets[1].authority, L"com.nutanix");
    EXPECT_EQ(targets[2].name, kOther);
    EXPECT_FALSE(targets[2].nutanix);
    EXPECT_FALSE(targets[2].viaPortal);
    EXPECT_EQ(targets[2].authority, L"org.example.storage");
    EXPECT_EQ(fake.Count(L"Add 10.20.0.5:3260"), 1u);
    EXPECT_TRUE(fake.pauses.empty());
    EXPECT_TRUE(log.Contains(L"DiscoverTarget(10.20.0.5) starts"));
    EXPECT_TRUE(log.Contains(L"DiscoverTarget() finished, rc = [0]"));

    // A second discovery asks the portal again instead of adding it twice.
    ASSERT_EQ(kx::disk::DiscoverTarget(L"10.20.0.5:3260", &targets), 0u);
    EXPECT_EQ(fake.Count(L"Add "), 1u);
    EXPECT_EQ(fake.Count(L"Refresh 10.20.0.5:3260"), 1u);
    EXPECT_EQ(fake.sendTargets.size(), 1u);
}

// Portals that answer late or never: the tries follow the registry, the
// waits go through the pause, and a portal this call added is not left
// behind when it never answered.
TEST(Iscsi, SlowAndUnreachablePortals) {
    const struct {
        const char* what;
        std::optional<DWORD> tries;
        bool reachable;
        unsigned readyAtMs;
        bool listedBefore;
        DWORD rc;
        size_t attempts;
        bool listedAfter;
    } cases[] = {
        {"slow, answers at the third try", 3, true, 8000, false, 0, 3, true},
        {"slow, too slow for two tries", 2, true, 8000, false, kIscsiConnectionFailed, 2, false},
        {"unreachable, default tries", std::nullopt, false, 0, false, kIscsiConnectionFailed, 3, false},
        {"unreachable, 0 means default", 0, false, 0, false, kIscsiConnectionFailed, 3, false},
        {"unreachable, capped at 10", 50, false, 0, false, kIscsiConnectionFailed, 10, false},
        {"unreachable, held before: kept", 1, false, 0, true, kIscsiConnectionFailed, 1, true},
    };
    for (const auto& c : cases) {
        SetTries(c.tries);
        FakeInitiator fake;
        TwoTargets(fake);
        auto& portal = fake.portals[L"10.20.0.5:3260"];
        portal.reachable = c.reachable;
        portal.readyAtMs = c.readyAtMs;
        if (c.listedBefore) fake.sendTargets.push_back({L"10.20.0.5", 3260});
        std::vector<IscsiTargetInfo> targets;
        EXPECT_EQ(kx::disk::DiscoverTarget(L"10.20.0.5", &targets), c.rc) << c.what;
        EXPECT_EQ(fake.Count(L"Add ") + fake.Count(L"Refresh "), c.attempts) << c.what;
        EXPECT_EQ(fake.pauses, std::vector<DWORD>(c.attempts - 1, kx::disk::kIscsiRetryPauseMs)) << c.what;
        EXPECT_EQ(fake.sendTargets.size(), c.listedAfter ? 1u : 0u) << c.what;
        EXPECT_EQ(targets.empty(), c.rc != 0) << c.what;
    }
    SetTries(std::nullopt);
}

TEST(Iscsi, AttachRetriesAsTheRegistrySays) {
    const struct {
        const char* what;
        std::optional<DWORD> tries;
        unsigned failLogins;
        DWORD loginCode;
        DWORD rc;
        unsigned logins;
    } cases[] = {
        {"third try succeeds", 3, 2, 0, 0, 3},
        {"two tries are not enough", 2, 2, 0, kIscsiLoginFailed, 2},
        {"absent: three tries", std::nullopt, 5, 0, kIscsiLoginFailed, 3},
        {"above the cap: ten", 1000, 20, 0, kIscsiLoginFailed, 10},
        {"refused initiator: no retry", 5, 0, kIscsiAuthenticationFailure, kIscsiAuthenticationFailure, 1},
    };
    for (const auto& c : cases) {
        SetTries(c.tries);
        FakeInitiator fake;
        TwoTargets(fake);
        fake.known = {kNtnx, kOther};
        fake.targets[kNtnx].failLogins = c.failLogins;
        fake.targets[kNtnx].loginCode = c.loginCode;
        IscsiAttachInfo info;
        EXPECT_EQ(kx::disk::AttachIscsiTarget(kNtnx, L"10.20.0.5", &info), c.rc) << c.what;
        EXPECT_EQ(fake.logins, c.logins) << c.what;
        EXPECT_EQ(fake.pauses, std::vector<DWORD>(c.logins - 1, kx::disk::kIscsiRetryPauseMs)) << c.what;
        if (c.rc == 0) {
            ASSERT_EQ(fake.sessions.size(), 1u);
            EXPECT_EQ(info.sessionId, kx::disk::FormatSessionId(fake.sessions[0].id));
            EXPECT_EQ(info.disks, std::vector<std::wstring>{L"\\\\.\\PhysicalDrive3"});
            EXPECT_EQ(info.tries, c.logins);
        } else {
            EXPECT_TRUE(fake.sessions.empty()) << c.what;
        }
    }
    SetTries(std::nullopt);
}

TEST(Iscsi, AttachToAVanishedTargetStopsAtOnce) {
    SetTries(5);
    FakeInitiator fake;
    TwoTargets(fake);
    std::vector<IscsiTargetInfo> targets;
    ASSERT_EQ(kx::disk::DiscoverTarget(L"10.20.0.5", &targets), 0u);
    ASSERT_EQ(targets.size(), 2u);
    fake.targets[kNtnx].vanishOnLogin = true;
    IscsiAttachInfo info;
    EXPECT_EQ(kx::disk::AttachIscsiTarget(kNtnx, nullptr, &info), static_cast<DWORD>(ERROR_NOT_FOUND));
    EXPECT_EQ(fake.logins, 1u);
    EXPECT_TRUE(fake.pauses.empty());
    EXPECT_TRUE(info.sessionId.empty());

    // A target with a session already is reported, not logged in again.
    fake.sessions.clear();
    const auto id = fake.AddSession(kOther);
    ASSERT_EQ(kx::disk::AttachIscsiTarget(L"IQN.2004-01.ORG.EXAMPLE.STORAGE:DISK7", nullptr, &info), 0u);
    EXPECT_EQ(info.sessionId, kx::disk::FormatSessionId(id));
    EXPECT_EQ(info.tries, 0u);
    EXPECT_EQ(fake.logins, 1u);
    SetTries(std::nullopt);
}

TEST(Iscsi, LogoutBySessionOrTarget) {
    FakeInitiator fake;
    TwoTargets(fake);
    const auto a = fake.AddSession(kNtnx);
    const auto b = fake.AddSession(kNtnx);
    const auto c = fake.AddSession(kOther);
    DWORD count = 9;
    kxtest::LogCursor log;

    // An id that names no session: already gone, not an error.
    EXPECT_EQ(kx::disk::LogoutIscsiSession(L"0000000000000001-0000000000000002", &count), 0u);
    EXPECT_EQ(count, 0u);
    EXPECT_TRUE(log.Contains(L"is already gone"));
    EXPECT_EQ(fake.Count(L"Logout "), 0u);

    // One session by its id, the others of the target by name.
    EXPECT_EQ(kx::disk::LogoutIscsiSession(kx::disk::FormatSessionId(b).c_str(), &count), 0u);
    EXPECT_EQ(count, 1u);
    ASSERT_EQ(fake.sessions.size(), 2u);
    EXPECT_EQ(fake.sessions[0].id, a);
    EXPECT_EQ(kx::disk::LogoutIscsiSession(kNtnx, &count), 0u);
    EXPECT_EQ(count, 1u);
    ASSERT_EQ(fake.sessions.size(), 1u);
    EXPECT_EQ(fake.sessions[0].id, c);
    // A target without sessions left.
    EXPECT_EQ(kx::disk::LogoutIscsiSession(kNtnx, &count), 0u);
    EXPECT_EQ(count, 0u);

    // A session that ends while its logout fails counts as logged out.
    fake.vanishOnLogout = {c};
    EXPECT_EQ(kx::disk::LogoutIscsiSession(kOther, &count), 0u);
    EXPECT_EQ(count, 1u);
    EXPECT_TRUE(fake.sessions.empty());

    // A logout the initiator refuses: the first code, every session tried.
    fake.AddSession(kNtnx);
    fake.AddSession(kNtnx);
    fake.logoutCode = ERROR_DEVICE_IN_USE;
    const size_t before = fake.Count(L"Logout ");
    EXPECT_EQ(kx::disk::LogoutIscsiSession(kNtnx, &count), static_cast<DWORD>(ERROR_DEVICE_IN_USE));
    EXPECT_EQ(fake.Count(L"Logout ") - before, 2u);
    EXPECT_EQ(count, 0u);
    EXPECT_EQ(fake.sessions.size(), 2u);
}

}  // namespace
