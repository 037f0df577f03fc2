// Exported conversion session lock and merge detection.
#include "KestrixHA/session.h"
#include "common/call_frame.h"
#include "session/conversion_lock.h"
#include "session/merge_markers.h"

KXHA_API DWORD HA_LockZekSessions(const wchar_t* root, int begin, int end, SessionLockHandle** handle, int manualVcm) {
    return kx::RunExport(L"HA_LockZekSessions",
                         [&] { return kx::session::LockZekSessions(root, begin, end, handle, manualVcm); });
}

KXHA_API void HA_UnlockZekSessions(SessionLockHandle* handle) {
    kx::RunExportVoid(L"HA_UnlockZekSessions", [&] { kx::session::UnlockZekSessions(handle); });
}

KXHA_API DWORD HA_UnlockCTF2(SessionLockHandle* handle) {
    return kx::RunExport(L"HA_UnlockCTF2", [&] { return kx::session::UnlockCTF2(handle); });
}

KXHA_API DWORD CheckIfIsFullZekBeforeMerged(const wchar_t* bitmapPath, bool* isFull) {
    return kx::RunExport(L"CheckIfIsFullZekBeforeMerged",
                         [&] { return kx::session::CheckIfIsFullZekBeforeMerged(bitmapPath, isFull); });
}

KXHA_API DWORD MVCM_GetMergeSessions(const wchar_t* root, std::vector<DWORD>& sessions) {
    // Out of memory is reported as E_FAIL; nothing is thrown to the caller.
    try {
        return kx::session::GetMergeSessions(root, sessions);
    } catch (...) {
        return kx::kE_FAIL;
    }
}
