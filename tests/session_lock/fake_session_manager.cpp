// A stand-in for the session manager's DLL: ordinal 100 makes lock objects
// that refuse every request with code 0x5EED and a recognisable conflict.
#include <windows.h>

#include "platform/session_lock.h"

namespace {
struct ForeignLock final : kx::platform::ISessionLock {
    void Release() override { delete this; }
    DWORD LockSession(const kx::platform::SessionLockRequest& r,
                      std::vector<kx::platform::SessionLockConflict>& c) override {
        kx::platform::SessionLockConflict one;
        one.op = op;
        one.Desc = L"foreign:" + r.jobDescription;
        c.assign(1, one);
        return 0x5EED;
    }
    DWORD QueryLock(std::vector<kx::platform::SessionLockConflict>&) override { return 0; }
    DWORD ExcludeFile(const std::wstring&, const std::wstring&) override { return 0; }
    DWORD UnlockSession() override { return 0; }
    int op = 0;
};
}  // namespace

extern "C" DWORD FakeCreateKbSessLock(int op, kx::platform::ISessionLock** lock) {
    auto* l = new ForeignLock;
    l->op = op;
    *lock = l;
    return 0;
}
