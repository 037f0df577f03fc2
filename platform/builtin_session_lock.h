// The built-in session lock manager: the ISessionLock that stands in when the
// session manager's own DLL is not installed.
//
// On disk
// -------
// One lock file per session, in a folder of its own under the destination
// root (the session folders under VStore stay untouched):
//
//     <root>\SessionLocks\S##########.lock
//
// Holding a session means holding that file open with GENERIC_READ |
// GENERIC_WRITE and FILE_SHARE_READ only. A second would-be holder, in this
// or any other process, on this or another host when the root is a share,
// fails its write-open with a sharing violation; readers (FILE_SHARE_READ |
// FILE_SHARE_WRITE) can still read the holder's record. The system closes a
// process's handles when it ends, so a crashed holder frees its sessions at
// once. A file that nobody holds open is free: the next holder opens it with
// CREATE_ALWAYS (truncating the previous record) and writes its own.
//
// While it holds the file, the holder also keeps an exclusive byte-range
// lock on one byte far beyond the record (kHeldMarkerOffset), taken after
// the record is written. Readers test that byte with a shared, fail-at-once
// LockFileEx to tell a held file from a stale one without ever opening it for
// writing, so looking at a lock never gets in the way of taking it.
//
// The record is UTF-16LE text with a byte-order mark, one "Name=value" per
// line (CR and LF in values become spaces):
//
//     [SessionLock]
//     ProcessId=<decimal>
//     Op=<decimal operation code>
//     Domain=, Computer=, User=      the holder's account and host
//     Desc=<job description>
//     File=<the lock file's path as the holder opened it>
//     Root=<destination root>  Session=<decimal>
//     Excluded=<full path>           one line per excluded file, 0..n
//     Check=<8 hex digits>           FNV-1a over every UTF-16 unit before it
//
// The record is rewritten in place (ExcludeFile); a reader that finds no
// valid Check line (a write in progress) reads again for a short while.
//
// Results
// -------
// LockSession is all or nothing: sessions are taken in ascending order
// (duplicates once); when one is held elsewhere, everything taken in that
// attempt is let go and the whole request is tried again every 50 ms until
// `wait` milliseconds have passed (INFINITE waits for good). A refusal returns
// ERROR_LOCK_VIOLATION (33) with one conflict per session found held in the
// last attempt; each conflict carries errorCode ERROR_LOCK_VIOLATION and the
// holder's record (or, if the record could not be read, just File). Other
// results: 0; ERROR_INVALID_PARAMETER for an empty root; ERROR_DIRECTORY when
// the root is not a folder; ERROR_INVALID_STATE when the object already holds
// sessions (unlock first); the system's code when the root is missing or the
// lock folder or a lock file cannot be created. An empty session list locks
// nothing and returns 0 without touching the destination.
//
// UnlockSession closes the files and deletes those nobody else has open.
// Release unlocks what is still held and destroys the object.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "platform/session_lock.h"

namespace kx::platform {

inline constexpr const wchar_t* kSessionLockFolder = L"SessionLocks";
inline constexpr ULONGLONG kHeldMarkerOffset = 0x40000000;  // 1 GiB

// <root>\SessionLocks\S##########.lock
std::wstring SessionLockFilePath(const std::wstring& root, DWORD session);

// What the holder of one session wrote into its lock file.
struct SessionLockRecord {
    DWORD processId = 0;
    int op = 0;
    std::wstring domain, computer, user, desc, file, root;
    DWORD session = 0;
    std::vector<std::wstring> excluded;  // full paths given to ExcludeFile
};

// The current holder of (root, session): 0 and its record; ERROR_NOT_LOCKED
// when nobody holds it; ERROR_INVALID_DATA when it is held but its record
// stays unreadable; or the system's code. Never disturbs a holder or a
// would-be holder.
DWORD ReadSessionLock(const std::wstring& root, DWORD session, SessionLockRecord& record);

// A new built-in lock object for jobs of operation `op`.
DWORD CreateBuiltinSessionLock(int op, ISessionLock** lock);

}  // namespace kx::platform
