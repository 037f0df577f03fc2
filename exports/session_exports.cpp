// Exported session coordination: the conversion lock, merge detection, the
// manual-conversion configuration and intact-session queries. Each runs in
// the export frame of its module.
#include "KestrixHA/session.h"
#include "session/conversion_lock.h"
#include "session/intact_sessions.h"
#include "session/merge_markers.h"
#include "session/vcm_config.h"

namespace s = kx::session;

KXHA_API DWORD HA_LockZekSessions(const wchar_t* root, int begin, int end, SessionLockHandle** handle, int manualVcm) {
    return s::LockZekSessions(root, begin, end, handle, manualVcm);
}

KXHA_API void HA_UnlockZekSessions(SessionLockHandle* handle) { s::UnlockZekSessions(handle); }

KXHA_API DWORD HA_UnlockCTF2(SessionLockHandle* handle) { return s::UnlockCTF2(handle); }

KXHA_API DWORD CheckIfIsFullZekBeforeMerged(const wchar_t* bitmapPath, bool* isFull) {
    return s::CheckIfIsFullZekBeforeMerged(bitmapPath, isFull);
}

KXHA_API DWORD MVCM_GetMergeSessions(const wchar_t* root, std::vector<DWORD>& sessions) {
    return s::GetMergeSessions(root, sessions);
}

KXHA_API DWORD ReadVCMConfigure(VCMConfigure* config) { return s::ReadVCMConfig(config); }

KXHA_API DWORD WriteVCMConfigure(const VCMConfigure* config) { return s::WriteVCMConfig(config); }

KXHA_API DWORD MVCM_GetSessionRWFolder(const std::wstring& sessionPath, std::wstring& rwFolder) {
    return s::GetSessionRWFolder(sessionPath, rwFolder);
}

KXHA_API DWORD MVCM_OpenIntactSessionListHandle(const wchar_t* root, IntactSessionListHandle** handle) {
    return s::OpenIntactSessionList(root, handle);
}

KXHA_API DWORD MVCM_QueryIntactSessionList(IntactSessionListHandle* handle, unsigned* sessions, int capacity,
                                           unsigned* count) {
    return s::QueryIntactSessionList(handle, sessions, capacity, count);
}

KXHA_API void MVCM_CloseIntactSessionListHandle(IntactSessionListHandle* handle) { s::CloseIntactSessionList(handle); }
