// The built-in session lock: between objects of one process, against a holder
// in another process (refusal details, waiting, death of the holder) and the
// exclusion record that readers see; and the factory with the session
// manager's DLL installed. (The factory's built-in choice is what
// kxha_test's lock command runs on.)
#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "common/unique_resource.h"
#include "kx_test.h"
#include "platform/builtin_session_lock.h"
#include "platform/session_lock.h"

namespace kp = kx::platform;
using kxtest::ScratchDir;

namespace {

using LockPtr = std::unique_ptr<kp::ISessionLock, kx::release_deleter<kp::ISessionLock>>;

LockPtr NewLock(int op = kp::OP_BITMAP) {
    kp::ISessionLock* l = nullptr;
    EXPECT_EQ(kp::CreateBuiltinSessionLock(op, &l), 0u);
    return LockPtr(l);
}

kp::SessionLockRequest Req(const std::wstring& root, std::vector<DWORD> sessions, DWORD wait = 0,
                           const std::wstring& desc = L"test job") {
    return {.wait = wait, .root = root, .jobDescription = desc, .sessions = std::move(sessions)};
}

// Locks with a fresh object and gives it back (null when refused).
LockPtr Take(const std::wstring& root, std::vector<DWORD> sessions, DWORD* rc = nullptr) {
    LockPtr l = NewLock();
    std::vector<kp::SessionLockConflict> c;
    const DWORD r = l->LockSession(Req(root, std::move(sessions)), c);
    if (rc) *rc = r;
    return r ? nullptr : std::move(l);
}

bool IsFree(const std::wstring& root, DWORD session) {
    kp::SessionLockRecord r;
    return kp::ReadSessionLock(root, session, r) == ERROR_NOT_LOCKED;
}

// ---- one process -----------------------------------------------------------

TEST(SessionLockInProcess, SecondObjectIsRefusedOrWaitsUntilTheFirstLetsGo) {
    ScratchDir root;
    LockPtr first = NewLock(kp::OP_VCM);
    std::vector<kp::SessionLockConflict> c;
    ASSERT_EQ(first->LockSession(Req(root.path(), {9, 7, 7, 8}, 0, L"first job"), c), 0u);
    EXPECT_TRUE(kxtest::Exists(root / L"SessionLocks\\S0000000007.lock"));

    LockPtr second = NewLock();
    EXPECT_EQ(second->LockSession(Req(root.path(), {8}), c), static_cast<DWORD>(ERROR_LOCK_VIOLATION));
    ASSERT_EQ(c.size(), 1u);
    EXPECT_EQ(c[0].Desc, L"first job");

    // Duplicates were taken once: one holder per session.
    std::vector<kp::SessionLockConflict> holders;
    EXPECT_EQ(first->QueryLock(holders), 0u);
    ASSERT_EQ(holders.size(), 3u);
    EXPECT_EQ(holders[2].File, kp::SessionLockFilePath(root.path(), 9));

    // A second request while holding is refused and changes nothing.
    EXPECT_EQ(first->LockSession(Req(root.path(), {1}), c), static_cast<DWORD>(ERROR_INVALID_STATE));
    EXPECT_FALSE(IsFree(root.path(), 9));

    // A waiter gets the session when the holder unlocks, which frees (and
    // removes) the files; the object can lock again.
    std::thread letGo([&] {
        ::Sleep(300);
        first->UnlockSession();
    });
    EXPECT_EQ(second->LockSession(Req(root.path(), {8}, 20000), c), 0u);
    letGo.join();
    EXPECT_FALSE(kxtest::Exists(root / L"SessionLocks\\S0000000007.lock"));
    EXPECT_EQ(first->LockSession(Req(root.path(), {7, 9}), c), 0u);

    // Release unlocks what is still held.
    first.reset();
    EXPECT_TRUE(IsFree(root.path(), 7));
    EXPECT_FALSE(IsFree(root.path(), 8));
}

TEST(SessionLockInProcess, EdgeRequests) {
    ScratchDir root;
    std::vector<kp::SessionLockConflict> c;
    // Nothing asked, nothing taken, nothing written.
    EXPECT_EQ(NewLock()->LockSession(Req(root.path(), {}), c), 0u);
    EXPECT_FALSE(kxtest::Exists(root / L"SessionLocks"));

    EXPECT_EQ(NewLock()->LockSession(Req(L"", {1}), c), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    kxtest::WriteText(root / L"file", "x");
    EXPECT_EQ(NewLock()->LockSession(Req(root / L"file", {1}), c), static_cast<DWORD>(ERROR_DIRECTORY));
    EXPECT_TRUE(c.empty());

    // A stale record nobody holds (even a garbled one) is simply taken over.
    kxtest::MakeDirs(root / L"SessionLocks");
    kxtest::WriteText(root / L"SessionLocks\\S0000000002.lock", "garbage from a crashed holder");
    EXPECT_TRUE(IsFree(root.path(), 2));
    LockPtr l = Take(root.path(), {2});
    ASSERT_TRUE(l);
    // A root given with a trailing separator names the same lock.
    DWORD rc = 0;
    EXPECT_FALSE(Take(root.path() + L"\\", {2}, &rc));
    EXPECT_EQ(rc, static_cast<DWORD>(ERROR_LOCK_VIOLATION));
}

TEST(SessionLockInProcess, ExcludedFilesAreRecordedWithTheirSession) {
    ScratchDir root;
    LockPtr l = NewLock();
    EXPECT_EQ(l->ExcludeFile(root.path(), L"VStore\\S0000000005\\a.ctf"), static_cast<DWORD>(ERROR_NOT_LOCKED));
    std::vector<kp::SessionLockConflict> c;
    ASSERT_EQ(l->LockSession(Req(root.path(), {5, 6}), c), 0u);
    const std::wstring leaf = root / L"leaf";
    EXPECT_EQ(l->ExcludeFile(leaf, L"VStore\\S0000000006\\block0000000002.ctf"), 0u);
    EXPECT_EQ(l->ExcludeFile(leaf, L"VStore\\S0000000006\\BLOCK0000000002.CTF"), 0u);  // once
    EXPECT_EQ(l->ExcludeFile(leaf, L"shared.dat"), 0u);  // no session named: all of them
    EXPECT_EQ(l->ExcludeFile(leaf, L"VStore\\S0000000007\\a.ctf"), static_cast<DWORD>(ERROR_NOT_LOCKED));

    kp::SessionLockRecord r5, r6;
    ASSERT_EQ(kp::ReadSessionLock(root.path(), 5, r5), 0u);
    ASSERT_EQ(kp::ReadSessionLock(root.path(), 6, r6), 0u);
    EXPECT_EQ(r5.excluded, std::vector<std::wstring>{leaf + L"\\shared.dat"});
    EXPECT_EQ(r6.excluded, (std::vector<std::wstring>{leaf + L"\\VStore\\S0000000006\\block0000000002.ctf",
                                                      leaf + L"\\shared.dat"}));
    EXPECT_EQ(r6.op, kp::OP_BITMAP);
}

// ---- another process -------------------------------------------------------

// A holder process keeping sessions until Stop, Kill or the end of the scope.
class ChildHolder {
public:
    ChildHolder(const std::wstring& root, const std::wstring& sessions, const std::wstring& exclude) {
        const std::wstring tag = std::to_wstring(::GetCurrentProcessId()) + L"_" + std::to_wstring(++count_);
        ready_.reset(::CreateEventW(nullptr, TRUE, FALSE, (L"kx_sl_ready_" + tag).c_str()));
        stop_.reset(::CreateEventW(nullptr, TRUE, FALSE, (L"kx_sl_stop_" + tag).c_str()));
        process_ = kxtest::SpawnHelper(L"SessionLockAcrossProcesses.DISABLED_HolderProcess",
                                       root + L"|kx_sl_ready_" + tag + L"|kx_sl_stop_" + tag + L"|" + exclude + L"|" + sessions,
                                       &pid_);
        HANDLE both[] = {ready_.get(), process_.get()};
        ready = process_ && ::WaitForMultipleObjects(2, both, FALSE, 30000) == WAIT_OBJECT_0;
    }
    ~ChildHolder() {
        if (process_ && Stop() == STILL_ACTIVE) Kill();
    }
    void Kill() {
        ::TerminateProcess(process_.get(), 9);
        ::WaitForSingleObject(process_.get(), 15000);
    }
    DWORD Stop() {  // the exit code
        ::SetEvent(stop_.get());
        ::WaitForSingleObject(process_.get(), 15000);
        DWORD code = 0xFFFFFFFF;
        ::GetExitCodeProcess(process_.get(), &code);
        return code;
    }
    DWORD pid() const { return pid_; }
    bool ready = false;
    static inline const std::wstring kDesc = L"nightly merge";

private:
    static inline int count_ = 0;
    kx::unique_handle ready_, stop_, process_;
    DWORD pid_ = 0;
};

// The holder, in a process of its own: "<root>|<ready event>|<stop event>|
// <file to exclude, relative to root, or ->|<session>|...". Signals `ready`
// once it holds, and keeps the sessions until `stop` is set or it is killed.
TEST(SessionLockAcrossProcesses, DISABLED_HolderProcess) {
    const auto task = kxtest::HelperTask();
    ASSERT_GE(task.size(), 5u);
    std::vector<DWORD> sessions;
    for (size_t i = 4; i < task.size(); ++i) sessions.push_back(std::stoul(task[i]));
    LockPtr lock = NewLock(kp::OP_VCM);
    std::vector<kp::SessionLockConflict> c;
    ASSERT_EQ(lock->LockSession(Req(task[0], sessions, 0, ChildHolder::kDesc), c), 0u);
    ASSERT_EQ(task[3] == L"-" ? 0u : lock->ExcludeFile(task[0], task[3]), 0u);
    kx::unique_handle ready(::OpenEventW(EVENT_MODIFY_STATE, FALSE, task[1].c_str()));
    kx::unique_handle stop(::OpenEventW(SYNCHRONIZE, FALSE, task[2].c_str()));
    ASSERT_TRUE(ready && stop);
    ::SetEvent(ready.get());
    ::WaitForSingleObject(stop.get(), 120000);
}

TEST(SessionLockAcrossProcesses, OverlapsWaitAndAreRefusedWithTheHolderAndAKilledHolderFreesThem) {
    ScratchDir root;
    ChildHolder child(root.path(), L"3|4", L"VStore\\S0000000004\\block0000000002.ctf");
    ASSERT_TRUE(child.ready);

    // An overlap waits, then names the holder.
    LockPtr l = NewLock();
    std::vector<kp::SessionLockConflict> c;
    EXPECT_EQ(l->LockSession(Req(root.path(), {4, 5}, 1500), c), static_cast<DWORD>(ERROR_LOCK_VIOLATION));
    ASSERT_EQ(c.size(), 1u);
    EXPECT_EQ(c[0].processId, child.pid());
    EXPECT_EQ(c[0].op, kp::OP_VCM);
    EXPECT_EQ(c[0].errorCode, static_cast<DWORD>(ERROR_LOCK_VIOLATION));
    wchar_t computer[256], user[256];
    DWORD computerChars = 256, userChars = 256;
    ASSERT_TRUE(::GetComputerNameExW(ComputerNameNetBIOS, computer, &computerChars) && ::GetUserNameW(user, &userChars));
    EXPECT_EQ(c[0].Computer, computer);
    EXPECT_EQ(_wcsicmp(c[0].User.c_str(), user), 0) << kxtest::Narrow(c[0].User);
    EXPECT_FALSE(c[0].Domain.empty());
    EXPECT_EQ(c[0].Desc, ChildHolder::kDesc);
    EXPECT_EQ(c[0].File, kp::SessionLockFilePath(root.path(), 4));
    EXPECT_TRUE(IsFree(root.path(), 5));

    // What the holder excluded is visible to readers, through the record and
    // through the holders that QueryLock reports for the sessions asked for.
    kp::SessionLockRecord r;
    ASSERT_EQ(kp::ReadSessionLock(root.path(), 4, r), 0u);
    EXPECT_EQ(r.processId, child.pid());
    EXPECT_EQ(r.excluded, std::vector<std::wstring>{root / L"VStore\\S0000000004\\block0000000002.ctf"});
    std::vector<kp::SessionLockConflict> holders;
    EXPECT_EQ(l->QueryLock(holders), 0u);
    ASSERT_EQ(holders.size(), 1u);
    EXPECT_EQ(holders[0].processId, child.pid());

    // Every held session of a refused request is reported.
    EXPECT_EQ(l->LockSession(Req(root.path(), {2, 3, 4, 5}), c), static_cast<DWORD>(ERROR_LOCK_VIOLATION));
    ASSERT_EQ(c.size(), 2u);
    EXPECT_EQ(c[0].File, kp::SessionLockFilePath(root.path(), 3));
    EXPECT_EQ(c[1].File, kp::SessionLockFilePath(root.path(), 4));

    // All or nothing: nothing of {1,2,3} stays taken when 3 is held.
    EXPECT_EQ(l->LockSession(Req(root.path(), {1, 2, 3}), c), static_cast<DWORD>(ERROR_LOCK_VIOLATION));
    EXPECT_TRUE(IsFree(root.path(), 1));
    EXPECT_TRUE(IsFree(root.path(), 2));
    EXPECT_TRUE(Take(root.path(), {1, 2}));

    // A holder that unlocks frees its sessions and removes its files.
    EXPECT_EQ(child.Stop(), 0u);
    EXPECT_FALSE(kxtest::Exists(root / L"SessionLocks\\S0000000003.lock"));
    EXPECT_TRUE(Take(root.path(), {3, 4}));

    // A killed holder frees its sessions at once.
    ChildHolder killed(root.path(), L"10|11", L"-");
    ASSERT_TRUE(killed.ready);
    killed.Kill();
    EXPECT_TRUE(kxtest::Exists(root / L"SessionLocks\\S0000000010.lock"));  // left behind, but free
    EXPECT_TRUE(IsFree(root.path(), 10));
    DWORD rc = 0;
    LockPtr taken = Take(root.path(), {10, 11}, &rc);
    ASSERT_TRUE(taken) << rc;
    ASSERT_EQ(kp::ReadSessionLock(root.path(), 10, r), 0u);
    EXPECT_EQ(r.processId, ::GetCurrentProcessId());
}

}  // namespace

// Last: once found, the session manager's DLL stays in use for the process.
// Its ordinal 100 makes the lock objects.
TEST(SessionLockManagerDll, OrdinalHundredMakesTheLocksAndStaysLoaded) {
    ASSERT_TRUE(::SetDllDirectoryW((kxtest::BinDir() + L"\\sessmgr").c_str()));
    kp::ISessionLock* raw = nullptr;
    const DWORD rc = kp::CreateKbSessLock(kp::OP_VCM, &raw);
    ::SetDllDirectoryW(nullptr);
    ASSERT_EQ(rc, 0u);
    LockPtr lock(raw);
    ASSERT_TRUE(lock);
    std::vector<kp::SessionLockConflict> c;
    EXPECT_EQ(lock->LockSession(Req(L"C:\\nowhere", {1}, 0, L"job"), c), 0x5EEDu);
    ASSERT_EQ(c.size(), 1u);
    EXPECT_EQ(c[0].op, kp::OP_VCM);
    EXPECT_EQ(c[0].Desc, L"foreign:job");
    lock.reset();
    EXPECT_NE(::GetModuleHandleW(L"SessionManager.dll"), nullptr);

    // Found once, it keeps answering without the search path.
    ASSERT_EQ(kp::CreateKbSessLock(kp::OP_RESTORE, &raw), 0u);
    lock.reset(raw);
    EXPECT_EQ(lock->LockSession(Req(L"C:\\nowhere", {1}), c), 0x5EEDu);
    EXPECT_EQ(c.at(0).op, kp::OP_RESTORE);
}
