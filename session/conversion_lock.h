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
    kx::platform::SessionLockPtr lock;
};

namespace kx::session {

inline constexpr DWORD kWaitForSessions = 10000;
inline constexpr DWORD kLockRefusedActivity = 0x800B005F;

// The sessions a lock request names for begin..end.
std::vector<DWORD> RequestedSessions(int begin, int end);

// The exports HA_LockZekSessions, HA_UnlockZekSessions, HA_UnlockCTF2 and
// CheckIfIsFullZekBeforeMerged, each in the export frame.
[[nodiscard]] DWORD LockZekSessions(const wchar_t* root, int begin, int end, SessionLockHandle** handle,
                                    int manualVcm);
void UnlockZekSessions(SessionLockHandle* handle);
[[nodiscard]] DWORD UnlockCTF2(SessionLockHandle* handle);
[[nodiscard]] DWORD CheckIfIsFullZekBeforeMerged(const wchar_t* bitmapPath, bool* isFull);

}  // namespace kx::session
