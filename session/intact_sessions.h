// The intact sessions of a destination: those a conversion may use because
// they are neither being backed up nor being merged.
#pragma once

#include <windows.h>

#include <memory>
#include <vector>

#include "KestrixHA/session.h"

struct IntactSessionListHandle {
    // Ascending. Closing a handle frees the record but leaves this array
    // allocated, as the interface has always done.
    std::unique_ptr<unsigned[]> sessions;
    size_t count = 0;
};

namespace kx::session {

DWORD GetIntactSessions(const wchar_t* root, std::vector<DWORD>& sessions);

// The exports of the same names (MVCM_...).
[[nodiscard]] DWORD OpenIntactSessionList(const wchar_t* root, IntactSessionListHandle** handle);
[[nodiscard]] DWORD QueryIntactSessionList(IntactSessionListHandle* handle, unsigned* sessions, int capacity,
                                           unsigned* count);
void CloseIntactSessionList(IntactSessionListHandle* handle);

}  // namespace kx::session
