#include "session/conversion_lock.h"

#include <memory>
#include <new>

#include "bitmap/disk_bmp_file_reader.h"
#include "common/dest_layout.h"
#include "common/result_codes.h"
#include "common/wstring_format.h"
#include "log/call_frame.h"
#include "platform/backup_core.h"
#include "platform/activity_log.h"
#include "session/merge_markers.h"

namespace kx::session {

namespace {

void ReportConflicts(const wchar_t* root, const std::vector<platform::SessionLockConflict>& conflicts) {
    platform::ActivityLog activity;
    for (const auto& c : conflicts) {
        Log(0, L"ProcessId:%d, OP:%d, ErrorCode:%d, Domain:%s, Computer:%s, User:%s, Desc:%s, File:%s\n", c.processId,
            c.op, c.errorCode, c.Domain.c_str(), c.Computer.c_str(), c.User.c_str(), c.Desc.c_str(), c.File.c_str());
        activity.Report(platform::LockHolderMessage(c.op), kLockRefusedActivity, root, c.File.c_str(), c.Computer.c_str(),
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
    return RunExport<kHA_LockZekSessions>(
        [&](auto& frame) -> DWORD {
            if (IsNullOrEmpty(root) || !handle) return frame.WithoutEndLine(frame.InvalidParameter());
            *handle = nullptr;

            if (manualVcm) {
                Log(2, L"HA_LockZekSessions, manual VCM, new lock mechanism");
                *handle = MANUAL_VCM_LOCK_HANDLE;
                std::vector<DWORD> merging;
                (void)GetMergeSessions(root, merging);
                if (!merging.empty()) {
                    Log(2, L"Sessions are under merging [%d-->%d], and conversion session range is [%d-->%d]",
                        merging.front(), merging.back(), begin, end);
                    if (merging.back() >= static_cast<DWORD>(begin)) {
                        Log(2, L"Cannot do conversion because session is under merge [%d, %d]", merging.back(), begin);
                        return frame.WithoutEndLine(HA_E_SESSIONS_UNDER_MERGE);
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

            platform::SessionLockPtr lock;
            DWORD rc = platform::CreateKbSessLock(instantVm ? platform::OP_RESTORE : platform::OP_VCM, lock);
            if (rc || !lock) {
                if (!rc) rc = kFailNoCode;
                Log(0, L"HA_LockZekSessions::CreateKbSessLock(%s) failed, rc = %d", instantVm ? L"OP_RESTORE" : L"OP_VCM",
                    rc);
                return rc;
            }

            std::vector<platform::SessionLockConflict> conflicts;
            rc = lock->LockSession(request, conflicts);
            if (rc == 0) {
                *handle = std::make_unique<SessionLockHandle>(root, begin, end, std::move(lock)).release();
            } else {
                Log(0, L"HA_LockZekSession::LockSession end, ret=%d", rc);
                ReportConflicts(root, conflicts);
            }
            return rc;
        },
        OrNull(root), begin, end, static_cast<void*>(handle));
}

void UnlockZekSessions(SessionLockHandle* handle) {
    RunExportVoid<kHA_UnlockZekSessions>(
        [&] {
            if (!handle) return;
            if (handle == MANUAL_VCM_LOCK_HANDLE) {
                Log(2, L"HA_UnlockZekSessions, manual VCM, skip");
                return;
            }
            std::unique_ptr<SessionLockHandle> owned(handle);
            if (owned->lock) owned->lock->UnlockSession();
        },
        static_cast<void*>(handle));
}

DWORD UnlockCTF2(SessionLockHandle* handle) {
    return RunExport<kHA_UnlockCTF2>(
        [&](auto& frame) -> DWORD {
            if (!handle) return frame.InvalidParameter();
            if (handle == MANUAL_VCM_LOCK_HANDLE) {
                Log(2, L"HA_UnlockCTF2, manual VCM, skip");
                return 0;
            }
            if (!handle->lock) {
                Log(0, L"HA_UnlockCTF2, pLock in handle is NULL");
                return frame.InvalidParameter();
            }
            DWORD rc = 0;
            for (int s = handle->firstSession; s <= handle->lastSession; ++s) {
                std::wstring sessionRoot;
                (void)platform::QueryKbSessRootByNum(handle->root, static_cast<DWORD>(s), sessionRoot);
                if (sessionRoot.empty()) continue;
                const std::wstring relative = JoinPath(JoinPath(kVStore, SessionFolderName(static_cast<DWORD>(s))),
                                                       L"block0000000002.ctf");
                rc = handle->lock->ExcludeFile(sessionRoot, relative);
                if (rc) {
                    Log(0, L"HA_UnlockCTF2, exclude ctf2 failed, root = %s, file = %s, rc = %d", sessionRoot.c_str(),
                        relative.c_str(), rc);
                    break;
                }
            }
            return rc;
        },
        static_cast<void*>(handle));
}

DWORD CheckIfIsFullZekBeforeMerged(const wchar_t* bitmapPath, bool* isFull) {
    return RunExport<kCheckIfIsFullZekBeforeMerged>([&](auto& frame) -> DWORD {
        if (!isFull) return frame.InvalidParameter();
        *isFull = false;
        if (IsNullOrEmpty(bitmapPath)) return frame.InvalidParameter();
        bitmap::BitmapFileHeader header{};
        if (DWORD rc = bitmap::ReadBitmapHeader(bitmapPath, &header)) return rc;
        *isFull = header.differencing == 0;
        return 0;
    });
}

}  // namespace kx::session
