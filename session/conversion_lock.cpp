#include "session/conversion_lock.h"

#include <memory>
#include <new>

#include "bitmap/disk_bmp_file_reader.h"
#include "common/dest_layout.h"
#include "common/result_codes.h"
#include "common/wstring_format.h"
#include "log/debug_log.h"
#include "platform/backup_core.h"
#include "session/activity_log.h"
#include "session/merge_markers.h"

namespace kx::session {

namespace {

struct LockReleaser {
    void operator()(platform::ISessionLock* l) const noexcept {
        if (l) l->Release();
    }
};
using LockPtr = std::unique_ptr<platform::ISessionLock, LockReleaser>;

void ReportConflicts(const wchar_t* root, const std::vector<platform::SessionLockConflict>& conflicts) {
    ActivityLog activity;
    for (const auto& c : conflicts) {
        Log(0, L"ProcessId:%d, OP:%d, ErrorCode:%d, Domain:%s, Computer:%s, User:%s, Desc:%s, File:%s\n", c.processId,
            c.op, c.errorCode, c.Domain.c_str(), c.Computer.c_str(), c.User.c_str(), c.Desc.c_str(), c.File.c_str());
        activity.Report(LockHolderMessage(c.op), kLockRefusedActivity, root, c.File.c_str(), c.Computer.c_str(),
                        c.processId);
    }
}

}  // namespace

std::vector<DWORD> RequestedSessions(int begin, int end) {
    if (begin < 0) return {static_cast<DWORD>(end)};                // Instant VM
    if (begin == end) return {static_cast<DWORD>(begin)};
    if (begin == 0) return {0, static_cast<DWORD>(end)};            // 0 stands for the start of the chain
    std::vector<DWORD> sessions;
    for (int s = begin; s <= end; ++s) sessions.push_back(static_cast<DWORD>(s));
    return sessions;
}

DWORD LockZekSessions(const wchar_t* root, int begin, int end, SessionLockHandle** handle, int manualVcm) {
    Log(2, L"HA_LockZekSessions::begin, root = %s, being = %d, end = %d, ph = 0x%p", root ? root : L"NULL", begin, end,
        handle);
    if (!root || !*root || !handle) return kE_INVALIDARG;
    *handle = nullptr;

    if (manualVcm) {
        Log(2, L"HA_LockZekSessions, manual VCM, new lock mechanism");
        *handle = MANUAL_VCM_LOCK_HANDLE;
        std::vector<DWORD> merging;
        GetMergeSessions(root, merging);
        if (!merging.empty()) {
            Log(2, L"Sessions are under merging [%d-->%d], and conversion session range is [%d-->%d]",
                merging.front(), merging.back(), begin, end);
            if (merging.back() >= static_cast<DWORD>(begin)) {
                Log(2, L"Cannot do conversion because session is under merge [%d, %d]", merging.back(), begin);
                return HA_E_SESSIONS_UNDER_MERGE;
            }
        }
    }

    const bool instantVm = begin < 0;
    platform::SessionLockRequest request;
    request.wait = kWaitForSessions;
    request.flags = 0;
    request.root = root;
    request.jobDescription = instantVm ? L"Instant VM" : L"offcopy_from_esx_nonproxy";
    request.sessions = RequestedSessions(begin, end);

    platform::ISessionLock* raw = nullptr;
    DWORD rc = platform::CreateKbSessLock(instantVm ? platform::OP_RESTORE : platform::OP_VCM, &raw);
    LockPtr lock(raw);
    if (rc || !lock) {
        if (!rc) rc = kFailNoCode;
        Log(0, instantVm ? L"HA_LockZekSessions::CreateKbSessLock(OP_RESTORE) failed, rc = %d"
                         : L"HA_LockZekSessions::CreateKbSessLock(OP_VCM) failed, rc = %d",
            rc);
        Log(2, L"HA_LockZekSessions::end, rc = %d", rc);
        return rc;
    }

    std::vector<platform::SessionLockConflict> conflicts;
    rc = lock->LockSession(request, conflicts);
    if (rc == 0) {
        auto* h = new SessionLockHandle{root, begin, end, nullptr};
        h->lock = lock.release();
        *handle = h;
    } else {
        Log(0, L"HA_LockZekSession::LockSession end, ret=%d", rc);
        ReportConflicts(root, conflicts);
    }
    Log(2, L"HA_LockZekSessions::end, rc = %d", rc);
    return rc;
}

void UnlockZekSessions(SessionLockHandle* handle) {
    Log(2, L"HA_UnlockZekSess, hLock = 0x%p", handle);
    if (!handle) return;
    if (handle == MANUAL_VCM_LOCK_HANDLE) {
        Log(2, L"HA_UnlockZekSessions, manual VCM, skip");
        return;
    }
    std::unique_ptr<SessionLockHandle> owned(handle);
    if (owned->lock) {
        owned->lock->UnlockSession();
        owned->lock->Release();
    }
}

DWORD UnlockCTF2(SessionLockHandle* handle) {
    Log(2, L"HA_UnlockCTF2, hLock = 0x%p", handle);
    if (!handle) return kE_INVALIDARG;
    if (handle == MANUAL_VCM_LOCK_HANDLE) {
        Log(2, L"HA_UnlockCTF2, manual VCM, skip");
        return 0;
    }
    if (!handle->lock) {
        Log(0, L"HA_UnlockCTF2, pLock in handle is NULL");
        return kE_INVALIDARG;
    }
    DWORD rc = 0;
    for (int s = handle->firstSession; s <= handle->lastSession; ++s) {
        std::wstring sessionRoot;
        platform::QueryKbSessRootByNum(handle->root, static_cast<DWORD>(s), sessionRoot);
        if (sessionRoot.empty()) continue;
        const std::wstring relative =
            std::wstring(kVStore) + L"\\" + Format(L"S%010d", s) + L"\\" + L"block0000000002.ctf";
        rc = handle->lock->ExcludeFile(sessionRoot, relative);
        if (rc) {
            Log(0, L"HA_UnlockCTF2, exclude ctf2 failed, root = %s, file = %s, rc = %d", sessionRoot.c_str(),
                relative.c_str(), rc);
            break;
        }
    }
    return rc;
}

DWORD CheckIfIsFullZekBeforeMerged(const wchar_t* bitmapPath, bool* isFull) {
    if (!isFull) return kE_INVALIDARG;
    *isFull = false;
    if (!bitmapPath || !*bitmapPath) return kE_INVALIDARG;
    bitmap::BitmapFileHeader header{};
    if (DWORD rc = bitmap::ReadBitmapHeader(bitmapPath, &header)) return rc;
    *isFull = header.differencing == 0;
    return 0;
}

}  // namespace kx::session
