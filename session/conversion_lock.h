// Locking a range of backup sessions for a conversion or an Instant VM
// through the session manager.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "KestrixHA/session.h"
#include "platform/session_lock.h"

struct SessionLockHandle {
    std::wstring root;
    int firstSession = 0;
    int lastSession = 0;
    kx::platform::ISessionLock* lock = nullptr;  // owned
};

namespace kx::session {

inline constexpr DWORD kWaitForSessions = 10000;
inline constexpr DWORD kLockRefusedActivity = 0x800B005F;

// The sessions a lock request names for begin..end.
std::vector<DWORD> RequestedSessions(int begin, int end);

DWORD LockZekSessions(const wchar_t* root, int begin, int end, SessionLockHandle** handle, int manualVcm);
void UnlockZekSessions(SessionLockHandle* handle);
DWORD UnlockCTF2(SessionLockHandle* handle);
DWORD CheckIfIsFullZekBeforeMerged(const wchar_t* bitmapPath, bool* isFull);

}  // namespace kx::session
