// The intact sessions of a destination: those a conversion may use because
// they are neither being backed up nor being merged.
#pragma once

#include <windows.h>

#include <vector>

#include "KestrixHA/session.h"

struct IntactSessionListHandle {
    unsigned* sessions = nullptr;  // on the process heap, ascending
    size_t count = 0;
};

namespace kx::session {

DWORD GetIntactSessions(const wchar_t* root, std::vector<DWORD>& sessions);

DWORD OpenIntactSessionList(const wchar_t* root, IntactSessionListHandle** handle);
DWORD QueryIntactSessionList(IntactSessionListHandle* handle, unsigned* sessions, int capacity, unsigned* count);
void CloseIntactSessionList(IntactSessionListHandle* handle);

}  // namespace kx::session
