// The factory with the session manager's DLL installed: its ordinal 100 makes
// the lock objects, and the DLL stays loaded while they live.
#include <gtest/gtest.h>

#include "kx_test.h"
#include "platform/session_lock.h"

namespace kp = kx::platform;

TEST(SessionLockManagerDll, OrdinalHundredMakesTheLocksAndStaysLoaded) {
    ASSERT_TRUE(::SetDllDirectoryW((kxtest::BinDir() + L"\\sessmgr").c_str()));
    kp::ISessionLock* lock = nullptr;
    const DWORD rc = kp::CreateKbSessLock(kp::OP_VCM, &lock);
    ::SetDllDirectoryW(nullptr);
    ASSERT_EQ(rc, 0u);
    ASSERT_NE(lock, nullptr);
    kp::SessionLockRequest request;
    request.root = L"C:\\nowhere";
    request.jobDescription = L"job";
    request.sessions = {1};
    std::vector<kp::SessionLockConflict> conflicts;
    EXPECT_EQ(lock->LockSession(request, conflicts), 0x5EEDu);
    ASSERT_EQ(conflicts.size(), 1u);
    EXPECT_EQ(conflicts[0].op, kp::OP_VCM);
    EXPECT_EQ(conflicts[0].Desc, L"foreign:job");
    lock->Release();
    EXPECT_NE(::GetModuleHandleW(L"SessionManager.dll"), nullptr);

    // Found once, it keeps answering without the search path.
    ASSERT_EQ(kp::CreateKbSessLock(kp::OP_RESTORE, &lock), 0u);
    EXPECT_EQ(lock->LockSession(request, conflicts), 0x5EEDu);
    EXPECT_EQ(conflicts.at(0).op, kp::OP_RESTORE);
    lock->Release();
}
