// The backup core: questions about backup destinations and sessions that the
// backup agent answers. The built-in default reads the destination layout on
// disk:
//   - the destinations of a path are its header root (the path's own root
//     when it has no leaf_root.ini or its Header is "default") followed by the
//     leaf roots of the header's header_root.ini, without duplicates; a path
//     inside a session folder stands for its root. The last one is the newest
//     leaf.
//   - the sessions of a root are its VStore\S########## folders.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace kx::platform {

// All destinations of `path`, as a block on the process heap: the roots one
// after the other, each with its terminating null, and a final null. The
// caller frees it with HeapFree(GetProcessHeap()). 0, 87, or the failing
// code of reading the root files.
DWORD KbGetAllBackupDestinations(const wchar_t* path, wchar_t** block, DWORD* count);

// The same, as a list.
DWORD GetAllBackupDestinations(const std::wstring& path, std::vector<std::wstring>& roots);

// The destination root that a path stands for (the root of a session folder
// path, else the path less a trailing separator).
std::wstring DestinationRootOf(const std::wstring& path);

// The numbers of the session folders of a root, in the order listed.
// 0 (also for a root without VStore: no sessions), or the failing code.
DWORD EnumerateSessions(const std::wstring& root, std::vector<DWORD>& sessions);

// The destination among the destinations of `path` that holds session
// `session`; empty when none does.
DWORD QueryKbSessRootByNum(const std::wstring& path, DWORD session, std::wstring& sessionRoot);

// The password of an encrypted session, by session GUID. The built-in core
// cannot decrypt sessions: ERROR_NOT_SUPPORTED.
DWORD QuerySessionPassword(const std::wstring& sessionGuid, DWORD flag, std::wstring* password);

}  // namespace kx::platform
