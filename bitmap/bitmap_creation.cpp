#include "bitmap/bitmap_creation.h"

#include <io.h>

#include <algorithm>
#include <vector>

#include "bitmap/zek_bitmap_writer.h"
#include "bitmap/bitmap_catalogue.h"
#include "common/dest_layout.h"
#include "common/dir_list.h"
#include "common/unique_resource.h"
#include "common/wstring_format.h"
#include "log/call_frame.h"
#include "platform/backup_info.h"
#include "platform/folder_ops.h"
#include "platform/session_lock.h"

namespace kx::bitmap {

namespace {

bool CanReadWrite(const std::wstring& path) { return _waccess(path.c_str(), 6) == 0; }

// CreateDirectory where an existing folder is fine; logs other failures.
DWORD EnsureFolder(const wchar_t* fn, const std::wstring& folder) {
    if (::CreateDirectoryW(folder.c_str(), nullptr) || ::GetLastError() == ERROR_ALREADY_EXISTS) return 0;
    const DWORD rc = LastErrorOr();
    Log(0, L"%s() failed to create directory [%s], rc = [%d]", fn, folder.c_str(), rc);
    return rc;
}

// The session lock for the time a session is read.
class SessionLockScope {
public:
    ~SessionLockScope() {
        if (lock_) lock_->UnlockSession();
    }
    DWORD Lock(const wchar_t* fn, const std::wstring& root, DWORD session) {
        Log(1, L"%s() LockSession begin, root = %s, sess = %d", fn, root.c_str(), session);
        platform::SessionLockPtr lock;
        DWORD rc = platform::CreateKbSessLock(platform::OP_BITMAP, lock);
        if (rc || !lock) {
            if (!rc) rc = kFailNoCode;
            Log(0, L"%s() CreateKbSessLock failed, rc = %d", fn, rc);
            return rc;
        }
        platform::SessionLockRequest request;
        request.wait = 20000;  // milliseconds
        request.root = root;
        request.jobDescription = L"offcopy_from_hpv_common";
        request.sessions = {session};
        std::vector<platform::SessionLockConflict> conflicts;
        rc = lock->LockSession(request, conflicts);
        for (const auto& c : conflicts)
            Log(0, L"%s() session %d is held: ProcessId:%d, OP:%d, Computer:%s, User:%s, Desc:%s, File:%s", fn, session,
                c.processId, c.op, c.Computer.c_str(), c.User.c_str(), c.Desc.c_str(), c.File.c_str());
        if (rc) {
            Log(0, L"%s() LockSession failed, root = %s, sess = %d, rc = %d", fn, root.c_str(), session, rc);
            return rc;
        }
        lock_ = std::move(lock);
        return 0;
    }
    platform::ISessionLock* get() const { return lock_.get(); }

private:
    platform::SessionLockPtr lock_;
};

// Copies description files and writes bitmaps of one session folder into
// `target`. 0, or the code that ends the session.
DWORD ProcessSessionFiles(const wchar_t* fn, const std::wstring& source, const std::wstring& target, DWORD flag,
                          bool generate) {
    const std::wstring pattern = JoinPath(source, L"*");
    DWORD rc = 0;
    const ListResult listed = ListDirectory(pattern, [&](const WIN32_FIND_DATAW& fd) {
        const std::wstring name = fd.cFileName;
        if (IsFolder(fd)) {
            Log(4, L"%s(): skip directory [%s]", fn, name.c_str());
            return true;
        }
        if (name.size() < 10) {
            Log(4, L"%s(): skip file [%s]", fn, name.c_str());
            return true;
        }
        Log(4, L"%s(): Processing [%s]", fn, name.c_str());
        if (EndsWithNoCase(name, L".xml") || EndsWithNoCase(name, L".ctf")) {
            Log(4, L"%s(): Copying file [%s]...", fn, name.c_str());
            if (!::CopyFileW(JoinPath(source, name).c_str(), JoinPath(target, name).c_str(), FALSE)) {
                rc = LastErrorOr();
                Log(0, L"%s() failed at CopyFile(), rc = [%d]", fn, rc);
            }
        } else if (EndsWithNoCase(name, L".Zek") && generate) {
            Log(2, L"%s(): generating bitmap for [%s]...", fn, name.c_str());
            rc = CreateBitmap4ZekFile(source.c_str(), target.c_str(), name.c_str(), flag);
        } else {
            Log(4, L"%s(): skip file [%s]", fn, name.c_str());
        }
        return rc == 0;
    });
    if (rc) return rc;
    if (listed.atFirstFind)
        Log(0, L"%s() failed to FindFirstFile(%s), rc = [%d]", fn, pattern.c_str(), listed.code);
    else if (listed)
        Log(0, L"%s() failed to FindNextFile(), rc = [%d]", fn, listed.code);
    return listed.code;
}

}  // namespace

DWORD CreateBitmap4SessionEx(const wchar_t* sessionsFolder, const wchar_t* targetFolder, const wchar_t* sessionName,
                             DWORD bRegen, DWORD flag, bool generateBitmaps) {
    constexpr const wchar_t* fn = kCreateBitmap4SessionEx.name;
    return RunExport<kCreateBitmap4SessionEx>(
        [&](auto& frame) -> DWORD {
            if (IsNullOrEmpty(sessionsFolder) || IsNullOrEmpty(targetFolder) || !IsSessionName(sessionName))
                return frame.InvalidParameter();
            const std::wstring source = JoinPath(sessionsFolder, sessionName);
            const std::wstring target = JoinPath(targetFolder, sessionName);
            std::wstring root;
            DWORD session = 0;
            if (!GetRootAndSessNumFromPath(source.c_str(), root, &session)) {
                Log(0, L"%s() failed to get root and sess_num from path [%s]", fn, source.c_str());
                return kFailNoCode;
            }
            if (CanReadWrite(target)) {
                Log(4, L"%s(): Session [%s] already has bitmap", fn, sessionName);
                if (!bRegen) return 0;
                if (DWORD rc = DestroyDirectory(target.c_str())) return rc;
            }
            if (DWORD rc = EnsureFolder(fn, target)) return rc;

            SessionLockScope lock;
            DWORD rc = lock.Lock(fn, root, session);
            if (rc == 0) rc = ProcessSessionFiles(fn, source, target, flag, generateBitmaps);
            // A session that was not prepared completely leaves nothing behind, so
            // that the next run prepares it again.
            if (rc) (void)DestroyDirectory(target.c_str());
            if (lock.get())
                Log(1, L"%s() LockSession end, ret=%d, pKbLock=0x%p", fn, rc, static_cast<void*>(lock.get()));
            return rc;
        },
        OrNull(sessionsFolder), OrNull(targetFolder), OrNull(sessionName), bRegen);
}

std::wstring ReadLastConvertedSession(const std::wstring& bitmapFolder) {
    const std::wstring file = JoinPath(bitmapFolder, kLastSessionFile);
    unique_hfile h(::CreateFileW(file.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                                 FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!h) return {};
    char text[64] = {};
    DWORD got = 0;
    ::ReadFile(h.get(), text, sizeof text - 1, &got, nullptr);
    std::wstring name;
    for (DWORD i = 0; i < got && text[i] > ' '; ++i) name += static_cast<wchar_t>(text[i]);
    return name;
}

DWORD CreateBitmap4BackupDestEx(const wchar_t* root, const wchar_t* bitmapRoot, DWORD begin, DWORD end, DWORD bRegen,
                                DWORD flag) {
    constexpr const wchar_t* fn = kCreateBitmap4BackupDestEx.name;
    return RunExport<kCreateBitmap4BackupDestEx>(
        [&](auto& frame) -> DWORD {
            Log(1, L"%s sess begin = %d, end = %d, bRegen = %d", fn, begin, end, bRegen);
            if (IsNullOrEmpty(root) || IsNullOrEmpty(bitmapRoot)) return frame.InvalidParameter();
            const std::wstring sessions = JoinPath(root, kVStore);
            const std::wstring bitmaps = JoinPath(bitmapRoot, kBitmapFolder);
            DWORD rc = EnsureFolder(fn, root);
            if (!rc && !CanReadWrite(sessions)) {
                Log(0, L"%s() failed due to can't access sessions [%s], rc = [%d]", fn, sessions.c_str(),
                    ::GetLastError());
                rc = ERROR_FILE_NOT_FOUND;
            }
            if (!rc) rc = EnsureFolder(fn, bitmaps);
            if (rc) return rc;
            const std::wstring last = ReadLastConvertedSession(bitmaps);

            std::vector<std::wstring> names;
            const ListResult listed = ListDirectory(JoinPath(sessions, L"S*"), [&](const WIN32_FIND_DATAW& fd) {
                const std::wstring name = fd.cFileName;
                if (!IsFolder(fd)) {
                    Log(4, L"%s(): skip non-directory [%s]", fn, name.c_str());
                } else if (!platform::IsSessionValid(JoinPath(sessions, name))) {
                    Log(1, L"%s() validate session(%s) failed, just skip it.", fn, name.c_str());
                } else {
                    names.push_back(name);
                }
            });
            // No session folder at all ends the listing like an empty one.
            if (listed && !(listed.atFirstFind && listed.code == ERROR_FILE_NOT_FOUND)) {
                Log(0, L"%s() failed to FindNextFile(), rc = [%d]", fn, listed.code);
                return listed.code;
            }
            std::sort(names.begin(), names.end(),
                      [](const std::wstring& a, const std::wstring& b) { return _wcsicmp(a.c_str(), b.c_str()) < 0; });
            for (auto it = names.rbegin(); it != names.rend(); ++it) {
                if (!last.empty() && _wcsicmp(it->c_str(), last.c_str()) <= 0) break;
                const bool full = platform::IsFullSession(JoinPath(sessions, *it));
                if (full)
                    Log(2, L"%s(): No need to create Bitmap file for Full session [%s]. Backup session information only..",
                        fn, it->c_str());
                else
                    Log(2, L"%s(): Create Bitmap file for Non-Full session [%s]...", fn, it->c_str());
                Log(2, L"%s(): Processing session [%s]", fn, it->c_str());
                rc = CreateBitmap4SessionEx(sessions.c_str(), bitmaps.c_str(), it->c_str(), bRegen, flag, !full);
                if (rc) break;
            }
            return rc;
        },
        OrNull(root));
}

DWORD CreateSessionBitmapEx(const wchar_t* path, const wchar_t* bitmapRoot, DWORD begin, DWORD end, DWORD bRegen,
                            DWORD flag) {
    constexpr const wchar_t* fn = kCreateSessionBitmapEx.name;
    return RunExport<kCreateSessionBitmapEx>(
        [&](auto& frame) -> DWORD {
            // Its line for a bad argument is its end line.
            if (IsNullOrEmpty(path) || (bitmapRoot && !*bitmapRoot))
                return frame.WithoutEndLine(frame.InvalidParameter());
            std::vector<std::wstring> roots;
            DWORD rc = GetBackupDestList(path, roots);
            if (rc) {
                Log(0, L"%s() failed for can't get backup destination list", fn);
                return rc;
            }
            const std::wstring& dest = roots.back();
            Log(2, L"%s(): checking backup destination [%s]", fn, dest.c_str());
            return CreateBitmap4BackupDestEx(dest.c_str(), bitmapRoot ? bitmapRoot : dest.c_str(), begin, end, bRegen,
                                             flag);
        },
        OrNull(path));
}

DWORD CreateBitmap4Session(const wchar_t* sessionsFolder, const wchar_t* targetFolder, const wchar_t* sessionName,
                           DWORD flag) {
    return RunExport<kCreateBitmap4Session>(
        [&](auto&) { return CreateBitmap4SessionEx(sessionsFolder, targetFolder, sessionName, 0, flag, true); });
}

DWORD CreateBitmap4BackupDest(const wchar_t* root, DWORD flag, const wchar_t* bitmapRoot) {
    return RunExport<kCreateBitmap4BackupDest>([&](auto& frame) -> DWORD {
        if (IsNullOrEmpty(root)) return frame.InvalidParameter();
        return CreateBitmap4BackupDestEx(root, bitmapRoot ? bitmapRoot : root, 0, 0, 0, flag);
    });
}

DWORD CreateSessionBitmap(DWORD flag, const wchar_t* path) {
    return RunExport<kCreateSessionBitmap>([&](auto&) { return CreateSessionBitmapEx(path, path, 0, 0, 0, flag); });
}

DWORD MarkLastConvertedSession(const wchar_t* bitmapRoot, const wchar_t* session) {
    constexpr const wchar_t* fn = kMarkLastConvertedSession.name;
    return RunExport<kMarkLastConvertedSession>(
        [&](auto&) -> DWORD {
            if (IsNullOrEmpty(bitmapRoot) || !session) return ERROR_INVALID_PARAMETER;
            const std::wstring folder = JoinPath(bitmapRoot, kBitmapFolder);
            if (DWORD rc = EnsureFolder(fn, folder)) return rc;
            const std::wstring file = JoinPath(folder, kLastSessionFile);
            unique_hfile h(::CreateFileW(file.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                                         FILE_ATTRIBUTE_NORMAL, nullptr));
            if (!h) {
                const DWORD rc = LastErrorOr();
                Log(0, L"%s() failed to open file [%s], rc = [%d]", fn, file.c_str(), rc);
                return rc;
            }
            std::string text;
            for (const wchar_t* p = session; *p; ++p) text += static_cast<char>(*p < 0x80 ? *p : '?');
            DWORD written = 0;
            if (!::WriteFile(h.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr)) {
                const DWORD rc = LastErrorOr();
                Log(0, L"%s() failed to write file [%s], rc = [%d]", fn, file.c_str(), rc);
                return rc;
            }
            return 0;
        },
        OrNull(bitmapRoot), OrNull(session));
}

}  // namespace kx::bitmap
