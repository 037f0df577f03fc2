// Session coordination: locking a range of backup sessions for conversion,
// sessions under merge, the manual conversion configuration and the intact
// sessions of a destination.
#pragma once

#include <string>
#include <vector>

#include "KestrixHA/api.h"

// The lock of a session range, handed out by HA_LockZekSessions and given
// back to HA_UnlockZekSessions.
struct SessionLockHandle;

// What HA_LockZekSessions leaves in the handle slot in manual conversion mode
// when it took no lock. Not a pointer; every call that takes a handle tests
// for it first.
#define MANUAL_VCM_LOCK_HANDLE (reinterpret_cast<SessionLockHandle*>(static_cast<ULONG_PTR>(0x123)))

// The result of a manual-mode lock whose range overlaps a merge.
#define HA_E_SESSIONS_UNDER_MERGE 0xF0000001u

// Locks sessions begin..end of `root` for a conversion (begin >= 0; begin 0
// stands for the start of the chain and locks just 0 and end) or, with a
// negative begin, session `end` for an Instant VM. In manual mode a range
// that reaches into a merge is refused with HA_E_SESSIONS_UNDER_MERGE.
KXHA_API DWORD HA_LockZekSessions(const wchar_t* root, int begin, int end, SessionLockHandle** handle, int manualVcm);
KXHA_API void HA_UnlockZekSessions(SessionLockHandle* handle);
// Takes each locked session's "block0000000002.ctf" out of the lock; the
// code of the last exclusion made.
KXHA_API DWORD HA_UnlockCTF2(SessionLockHandle* handle);
// Whether the disk of a session bitmap file was a full disk (the file's
// differencing flag is 0).
KXHA_API DWORD CheckIfIsFullZekBeforeMerged(const wchar_t* bitmapPath, bool* isFull);
// Appends the sessions under merge (from the markers in <root>\ToPurge),
// ascending, followed by the session the merge folds them into.
KXHA_API DWORD MVCM_GetMergeSessions(const wchar_t* root, std::vector<DWORD>& sessions);

// The manual conversion configuration, kept in
// <install path>\Configuration\vcm.ini.
struct VCMConfigure {
    bool manualVCM;
    std::wstring indexFolder;
};

// Reads vcm.ini. A missing file reads as manual mode off. With manual mode
// on and no index folder, the folder is <this DLL's folder>\temp\MVCM.
KXHA_API DWORD ReadVCMConfigure(VCMConfigure* config);
// Rewrites the "Configuration" section of vcm.ini (creating the file, UTF-16
// with its "[VCMSIG]" mark, when missing).
KXHA_API DWORD WriteVCMConfigure(const VCMConfigure* config);
// The folder a conversion reads and writes for a session folder: the session
// folder itself, or in manual mode its own folder under the index folder.
KXHA_API DWORD MVCM_GetSessionRWFolder(const std::wstring& sessionPath, std::wstring& rwFolder);

// The intact sessions of a destination (neither being backed up nor merged),
// fixed when the handle is opened.
struct IntactSessionListHandle;
KXHA_API DWORD MVCM_OpenIntactSessionListHandle(const wchar_t* root, IntactSessionListHandle** handle);
// Copies the sessions, ascending. 234 (ERROR_MORE_DATA) with *count set to
// the number of sessions when `capacity` is too small.
KXHA_API DWORD MVCM_QueryIntactSessionList(IntactSessionListHandle* handle, unsigned* sessions, int capacity,
                                           unsigned* count);
// Frees the handle record. Its number array is left allocated, as the
// interface has always done.
KXHA_API void MVCM_CloseIntactSessionListHandle(IntactSessionListHandle* handle);
