// The conversion session lock: request shapes through a fake lock factory
// (white-box). Holders in other processes are covered with the built-in
// manager in session_lock_test.
#include <gtest/gtest.h>

#include "KestrixHA/session.h"
#include "kx_test.h"
#include "session/conversion_lock.h"

using kxtest::ScratchDir;

namespace {

// What the library asks of the session manager, and how the fake answers.
struct FakeState {
    std::vector<kx::platform::SessionLockRequest> requests;
    std::vector<int> ops;
    std::vector<std::wstring> excluded;
    DWORD lockResult = 0, factoryResult = 0, excludeFailAt = 0;
    bool factoryGivesNull = false;
    int released = 0, unlocked = 0;
    std::vector<kx::platform::SessionLockConflict> conflicts;
} fake;

struct FakeLock final : kx::platform::ISessionLock {
    void Release() override {
        ++fake.released;
        delete this;
    }
    DWORD LockSession(const kx::platform::SessionLockRequest& r,
                      std::vector<kx::platform::SessionLockConflict>& c) override {
        fake.requests.push_back(r);
        if (fake.lockResult) c = fake.conflicts;
        return fake.lockResult;
    }
    DWORD QueryLock(std::vector<kx::platform::SessionLockConflict>&) override { return 0; }
    DWORD ExcludeFile(const std::wstring& root, const std::wstring& rel) override {
        fake.excluded.push_back(root + L"|" + rel);
        return fake.excluded.size() == fake.excludeFailAt ? ERROR_ACCESS_DENIED : 0;
    }
    DWORD UnlockSession() override { return ++fake.unlocked, 0; }

    static DWORD Factory(int op, kx::platform::ISessionLock** lock) {
        fake.ops.push_back(op);
        if (fake.factoryResult) return fake.factoryResult;
        *lock = fake.factoryGivesNull ? nullptr : new FakeLock;
        return 0;
    }
};

class ConversionLock : public ::testing::Test {
protected:
    void SetUp() override {
        fake = {};
        kx::platform::testing::SetLockFactory(&FakeLock::Factory);
    }
    void TearDown() override { kx::platform::testing::SetLockFactory(nullptr); }
    ScratchDir root;
};

std::vector<DWORD> Sessions(int begin, int end) {
    fake = {};
    SessionLockHandle* h = nullptr;
    EXPECT_EQ(kx::session::LockZekSessions(L"D:\\dest", begin, end, &h, 0), 0u);
    kx::session::UnlockZekSessions(h);
    return fake.requests.at(0).sessions;
}

}  // namespace

TEST_F(ConversionLock, RequestsForEachKindOfRange) {
    EXPECT_EQ(Sessions(0, 9), (std::vector<DWORD>{0, 9}));
    EXPECT_EQ(Sessions(5, 4), (std::vector<DWORD>{}));
    EXPECT_EQ(Sessions(2, 5), (std::vector<DWORD>{2, 3, 4, 5}));
    const auto& conv = fake.requests.at(0);
    EXPECT_EQ(conv.wait, 10000u);
    EXPECT_EQ(conv.root, L"D:\\dest");
    EXPECT_EQ(conv.jobDescription, L"offcopy_from_esx_nonproxy");
    EXPECT_EQ(fake.ops, std::vector<int>{11});

    // Instant VM: only `end`, as a restore.
    EXPECT_EQ(Sessions(-1, 7), (std::vector<DWORD>{7}));
    EXPECT_EQ(fake.requests.at(0).jobDescription, L"Instant VM");
    EXPECT_EQ(fake.ops, std::vector<int>{16});
    EXPECT_EQ(fake.unlocked, 1);
    EXPECT_EQ(fake.released, 1);
}

TEST_F(ConversionLock, BadArgumentsAndFactoryFailures) {
    kxtest::LogCursor log;
    SessionLockHandle* h = reinterpret_cast<SessionLockHandle*>(8);
    for (auto [root, out] : {std::pair{static_cast<const wchar_t*>(nullptr), &h}, {L"", &h}, {L"D:\\d", nullptr}})
        EXPECT_EQ(kx::session::LockZekSessions(root, 1, 2, out, 0), 0x80070057u);
    EXPECT_TRUE(fake.ops.empty());

    fake.factoryResult = ERROR_MOD_NOT_FOUND;
    EXPECT_EQ(kx::session::LockZekSessions(L"D:\\d", 1, 2, &h, 0), static_cast<DWORD>(ERROR_MOD_NOT_FOUND));
    EXPECT_EQ(h, nullptr);
    fake.factoryResult = 0;
    fake.factoryGivesNull = true;
    EXPECT_EQ(kx::session::LockZekSessions(L"D:\\d", -1, 2, &h, 0), 0xFFFFFFFFu);
    EXPECT_TRUE(log.Contains(L"HA_LockZekSessions::CreateKbSessLock(OP_VCM) failed, rc = 126"));
    EXPECT_TRUE(log.Contains(L"HA_LockZekSessions::CreateKbSessLock(OP_RESTORE) failed, rc = -1"));
}

TEST_F(ConversionLock, ManualModeRefusesRangesIntoAMerge) {
    kxtest::MakeDirs(root / L"ToPurge");
    kxtest::WriteText(root / L"ToPurge\\S0000000005.idx_step1", "");
    kxtest::WriteText(root / L"ToPurge\\S0000000006.idx_step2", "");
    kxtest::MakeDirs(root / L"ToPurge\\S0000000009.idx_step1");  // a folder is no marker
    std::vector<DWORD> merging{42};
    ASSERT_EQ(MVCM_GetMergeSessions((root.path() + L"\\/").c_str(), merging), 0u);
    EXPECT_EQ(merging, (std::vector<DWORD>{42, 5, 6, 7}));

    kxtest::LogCursor log;
    SessionLockHandle* h = nullptr;
    EXPECT_EQ(kx::session::LockZekSessions(root.path().c_str(), 7, 9, &h, 1), 0xF0000001u);
    EXPECT_EQ(h, MANUAL_VCM_LOCK_HANDLE);
    EXPECT_TRUE(fake.ops.empty());
    EXPECT_TRUE(log.Contains(L"Cannot do conversion because session is under merge [7, 7]"));

    ASSERT_EQ(kx::session::LockZekSessions(root.path().c_str(), 8, 9, &h, 1), 0u);
    ASSERT_NE(h, MANUAL_VCM_LOCK_HANDLE);
    EXPECT_EQ(fake.requests.at(0).sessions, (std::vector<DWORD>{8, 9}));
    kx::session::UnlockZekSessions(h);
    // The marker handle is harmless to both unlock calls.
    kx::session::UnlockZekSessions(MANUAL_VCM_LOCK_HANDLE);
    EXPECT_EQ(kx::session::UnlockCTF2(MANUAL_VCM_LOCK_HANDLE), 0u);
    EXPECT_EQ(kx::session::UnlockCTF2(nullptr), 0x80070057u);
}

TEST_F(ConversionLock, UnlockCtf2SkipsSessionsWithoutRootAndStopsAtAFailure) {
    for (int s : {1, 3, 4}) kxtest::MakeDirs(root.path() + L"\\VStore\\S000000000" + std::to_wstring(s));
    SessionLockHandle* h = nullptr;
    ASSERT_EQ(kx::session::LockZekSessions(root.path().c_str(), 1, 4, &h, 0), 0u);
    ASSERT_EQ(kx::session::UnlockCTF2(h), 0u);
    EXPECT_EQ(fake.excluded, (std::vector<std::wstring>{root.path() + L"|VStore\\S0000000001\\block0000000002.ctf",
                                                             root.path() + L"|VStore\\S0000000003\\block0000000002.ctf",
                                                             root.path() + L"|VStore\\S0000000004\\block0000000002.ctf"}));
    fake.excluded.clear();
    fake.excludeFailAt = 2;
    kxtest::LogCursor log;
    EXPECT_EQ(kx::session::UnlockCTF2(h), static_cast<DWORD>(ERROR_ACCESS_DENIED));
    EXPECT_EQ(fake.excluded.size(), 2u);
    EXPECT_TRUE(log.Contains(L"HA_UnlockCTF2, exclude ctf2 failed, root = " + root.path() +
                             L", file = VStore\\S0000000003\\block0000000002.ctf, rc = 5"));
    kx::session::UnlockZekSessions(h);
}

TEST_F(ConversionLock, RefusalTracesEveryConflictAndReportsActivity) {
    const std::wstring calls = kxtest::TempFolder() + L"\\kx_logcore_calls.txt";
    ::DeleteFileW(calls.c_str());
    fake.lockResult = ERROR_LOCK_VIOLATION;
    auto conflict = [](DWORD pid, int op) {
        return kx::platform::SessionLockConflict{pid, op, 33, L"DOM", L"HOST", L"agent", L"merge job",
                                                 L"D:\\d\\VStore\\S0000000003"};
    };
    fake.conflicts = {conflict(100, 11), conflict(101, 14), conflict(102, 17), conflict(103, 7)};

    // Without the activity library: traced, no entry, same result.
    kxtest::LogCursor log;
    SessionLockHandle* h = nullptr;
    EXPECT_EQ(kx::session::LockZekSessions(L"D:\\d", 3, 3, &h, 0), 33u);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(fake.released, 1);
    EXPECT_TRUE(log.Contains(
        L"ProcessId:101, OP:14, ErrorCode:33, Domain:DOM, Computer:HOST, User:agent, Desc:merge job, File:D:\\d\\VStore\\S0000000003"));
    EXPECT_FALSE(kxtest::Exists(calls));

    // With it: one entry per conflict that has a message and whose text loads.
    ASSERT_TRUE(::SetDllDirectoryW((kxtest::BinDir() + L"\\companion").c_str()));
    EXPECT_EQ(kx::session::LockZekSessions(L"D:\\d", 3, 3, &h, 0), 33u);
    ::SetDllDirectoryW(nullptr);
    const auto bytes = kxtest::ReadBytes(calls);
    const std::string text(bytes.begin(), bytes.end());
    EXPECT_EQ(text,
              "1|800B005F|D:\\d|D:\\d\\VStore\\S0000000003|text-of-400B005D|HOST|100\n"
              "1|800B005F|D:\\d|D:\\d\\VStore\\S0000000003|text-of-400B0059|HOST|103\n");
    ::DeleteFileW(calls.c_str());
}
