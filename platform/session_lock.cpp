// The session lock factory. A factory set by a test wins; then ordinal 100 of
// "SessionManager.dll" when the DLL loads and has it; then the built-in
// manager. Once found, the session manager's DLL stays loaded for the life
// of the process, so objects it made never outlive their code; a failed look
// for it is repeated at the next call (the DLL may be installed meanwhile).
#include "platform/session_lock.h"

#include <atomic>
#include <mutex>

#include "common/proc_address.h"
#include "common/result_codes.h"
#include "log/debug_log.h"
#include "platform/builtin_session_lock.h"

namespace kx::platform {

namespace {

std::atomic<CreateKbSessLockFn> g_override{nullptr};

constexpr WORD kFactoryOrdinal = 100;

CreateKbSessLockFn SessionManagerFactory() {
    static std::mutex mu;
    static CreateKbSessLockFn found = nullptr;
    std::lock_guard<std::mutex> guard(mu);
    if (found) return found;
    unique_hmodule dll(::LoadLibraryW(L"SessionManager.dll"));
    if (!dll) {
        Log(4, L"CreateKbSessLock: SessionManager.dll not loaded (%lu), built-in lock", ::GetLastError());
        return nullptr;
    }
    auto fn = ProcAddress<CreateKbSessLockFn>(dll.get(), MAKEINTRESOURCEA(kFactoryOrdinal));
    if (!fn) {
        LogErr(0, ::GetLastError(), L"CreateKbSessLock: SessionManager.dll has no ordinal %d, built-in lock",
               static_cast<int>(kFactoryOrdinal));
        return nullptr;
    }
    Log(2, L"CreateKbSessLock: using SessionManager.dll");
    dll.release();  // never freed: objects it made must not outlive their code
    found = fn;
    return found;
}

}  // namespace

DWORD CreateKbSessLock(int op, ISessionLock** lock) {
    if (!lock) return kE_POINTER;
    *lock = nullptr;
    if (CreateKbSessLockFn f = g_override.load()) return f(op, lock);
    if (CreateKbSessLockFn f = SessionManagerFactory()) return f(op, lock);
    return CreateBuiltinSessionLock(op, lock);
}

DWORD CreateKbSessLock(int op, SessionLockPtr& lock) {
    ISessionLock* raw = nullptr;
    const DWORD rc = CreateKbSessLock(op, &raw);
    lock.reset(raw);
    return rc;
}

namespace testing {
void SetLockFactory(CreateKbSessLockFn factory) noexcept { g_override.store(factory); }
}  // namespace testing

}  // namespace kx::platform
