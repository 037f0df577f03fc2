// Merge markers: the backup agent's merge job leaves <root>\ToPurge\S##########
// .idx_step1 / .idx_step2 files for the sessions it is folding away.
#pragma once

#include <windows.h>

#include <vector>

namespace kx::session {

// Appends the merged sessions, sorted, and then the newest merged session
// plus one (the session they are folded into). A missing folder or no
// markers leave `sessions` as it is. 0, or 0x80070057 for a marker name too
// long to handle.
// The export MVCM_GetMergeSessions (a failure inside, out of memory
// included, is E_FAIL), and its work.
[[nodiscard]] DWORD GetMergeSessions(const wchar_t* root, std::vector<DWORD>& sessions);
[[nodiscard]] DWORD MergeSessions(const wchar_t* root, std::vector<DWORD>& sessions);

}  // namespace kx::session
