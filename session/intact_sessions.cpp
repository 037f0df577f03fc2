#include "session/intact_sessions.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "common/dest_layout.h"
#include "common/result_codes.h"
#include "common/wstring_format.h"
#include "log/call_frame.h"
#include "platform/backup_core.h"
#include "platform/backup_info.h"
#include "session/merge_markers.h"

namespace kx::session {

DWORD GetIntactSessions(const wchar_t* root, std::vector<DWORD>& sessions) {
    sessions.clear();
    if (!root || !*root) {
        Log(0, L"MVCM_GetIntactSess, NULL or EMPTY input root");
        return kE_INVALIDARG;
    }
    // The destination's device: its root folder must be there.
    const DWORD attr = ::GetFileAttributesW(root);
    if (attr == INVALID_FILE_ATTRIBUTES || !(attr & FILE_ATTRIBUTE_DIRECTORY)) {
        const DWORD rc = attr == INVALID_FILE_ATTRIBUTES ? LastErrorOr() : ERROR_DIRECTORY;
        Log(0, L"MVCM_GetIntactSess::CreateDevObject failed, root = %s, rc = 0x%08X", root, rc);
        return rc;
    }
    if (DWORD rc = platform::EnumerateSessions(root, sessions)) {
        Log(0, L"MVCM_GetIntactSess::GetSessionCnt&Number failed, rc = 0x%08X", rc);
        return rc;
    }
    if (sessions.empty()) {
        Log(1, L"MVCM_GetIntactSess::sess cnt == 0 or pSess == NULL");
        return 0;
    }
    std::sort(sessions.begin(), sessions.end());

    std::wstring newest;
    HA_GetKbSessPathByRootAndNum(root, sessions.back(), newest);
    const bool backupRunning = ::GetFileAttributesW(JoinPath(root, L"backup.lck").c_str()) != INVALID_FILE_ATTRIBUTES;
    if (backupRunning || !platform::IsSessionValid(newest)) {
        Log(2, L"MVCM_GetIntactSessions, session %s is under backup, skip it", newest.c_str());
        sessions.pop_back();
    }

    std::vector<DWORD> merging;
    if (DWORD rc = GetMergeSessions(root, merging)) return rc;
    std::erase_if(sessions, [&](DWORD s) {
        if (std::find(merging.begin(), merging.end(), s) == merging.end()) return false;
        Log(0, L"Exclude session in merging, root=%s, SessionNumber=%u", root, s);
        return true;
    });
    return 0;
}

DWORD OpenIntactSessionList(const wchar_t* root, IntactSessionListHandle** handle) {
    return RunExport<kMVCM_OpenIntactSessionListHandle>([&](auto& frame) -> DWORD {
        if (!handle) {
            Log(0, L"MVCM_OpenIntactSessListHandle, pHandle == NULL");
            return frame.InvalidParameter();
        }
        if (IsNullOrEmpty(root)) {
            Log(0, L"MVCM_OpenIntactSessListHandle, pwszRoot == NULL or empty");
            return frame.InvalidParameter();
        }
        *handle = nullptr;
        std::vector<DWORD> sessions;
        if (DWORD rc = GetIntactSessions(root, sessions)) {
            Log(0, L"MVCM_OpenIntactSessListHandle, get_intact_sess failed, root = %s, rc = 0x%X", root, rc);
            return rc;
        }
        auto h = std::make_unique<IntactSessionListHandle>();
        if (!sessions.empty()) {
            h->sessions = std::make_unique_for_overwrite<unsigned[]>(sessions.size());
            std::copy(sessions.begin(), sessions.end(), h->sessions.get());
            h->count = sessions.size();
        }
        *handle = h.release();
        return 0;
    });
}

DWORD QueryIntactSessionList(IntactSessionListHandle* handle, unsigned* sessions, int capacity, unsigned* count) {
    return RunExport<kMVCM_QueryIntactSessionList>([&](auto& frame) -> DWORD {
        if (!handle) {
            Log(0, L"MVCM_QueryIntactSessionList, input handle == NULL");
            return kE_POINTER;
        }
        if (!count) return frame.InvalidParameter();
        if (capacity < 0 || static_cast<size_t>(capacity) < handle->count) {
            *count = static_cast<unsigned>(handle->count);
            return ERROR_MORE_DATA;
        }
        if (handle->count && !sessions) return frame.InvalidParameter();
        if (handle->count) std::memcpy(sessions, handle->sessions.get(), handle->count * sizeof(unsigned));
        *count = static_cast<unsigned>(handle->count);
        return 0;
    });
}

void CloseIntactSessionList(IntactSessionListHandle* handle) {
    RunExportVoid<kMVCM_CloseIntactSessionListHandle>([&] {
        std::unique_ptr<IntactSessionListHandle> owned(handle);
        if (owned) (void)owned->sessions.release();  // the array outlives the handle by contract
    });
}

}  // namespace kx::session
