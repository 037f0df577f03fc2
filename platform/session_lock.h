// The session manager's lock: a lock on (destination root, session number)
// pairs that keeps the backup agent from merging or purging sessions while
// this library reads them.
//
// CreateKbSessLock is ordinal 100 of "SessionManager.dll" when that DLL can
// be loaded; otherwise the built-in lock manager stands in.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "common/unique_resource.h"

namespace kx::platform {

// Operation codes of the jobs that take locks.
inline constexpr int OP_BITMAP = 6;    // bitmap preparation of a session
inline constexpr int OP_VCM = 11;      // conversion
inline constexpr int OP_RESTORE = 16;  // Instant VM

struct SessionLockRequest {
    DWORD wait = 0;        // how long to wait for the sessions, in milliseconds
    DWORD flags = 0;
    std::wstring root;     // the backup destination root
    std::wstring jobDescription;
    std::vector<DWORD> sessions;
};

// One holder of a session that a refused request asked for.
struct SessionLockConflict {
    DWORD processId = 0;
    int op = 0;            // the operation code of the holder's job
    DWORD errorCode = 0;
    std::wstring Domain, Computer, User, Desc, File;
    ULONGLONG reserved = 0;
};

class ISessionLock {
public:
    virtual void Release() = 0;
    // All or nothing: 0 when every session of the request is held; otherwise
    // a non-zero Win32 code and `conflicts` lists who holds what.
    virtual DWORD LockSession(const SessionLockRequest& request, std::vector<SessionLockConflict>& conflicts) = 0;
    virtual DWORD QueryLock(std::vector<SessionLockConflict>& holders) = 0;  // not used by this library
    // Takes one file of a locked session out of the lock (recorded with the
    // holder so that readers of the lock see it).
    virtual DWORD ExcludeFile(const std::wstring& sessionRoot, const std::wstring& relativePath) = 0;
    virtual DWORD UnlockSession() = 0;

protected:
    virtual ~ISessionLock() = default;
};

using CreateKbSessLockFn = DWORD (*)(int op, ISessionLock** lock);

// The factory: ordinal 100 of "SessionManager.dll" when it loads, else the
// built-in manager. 0 and a lock object, or the factory's code.
DWORD CreateKbSessLock(int op, ISessionLock** lock);

using SessionLockPtr = unique_released<ISessionLock>;
// The same, owned.
[[nodiscard]] DWORD CreateKbSessLock(int op, SessionLockPtr& lock);

namespace testing {
// Replaces the factory (nullptr restores the default).
void SetLockFactory(CreateKbSessLockFn factory) noexcept;
}  // namespace testing

}  // namespace kx::platform
