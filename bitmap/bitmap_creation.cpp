#include "bitmap/bitmap_creation.h"

#include <io.h>

#include <algorithm>
#include <vector>

#include "bitmap/zek_bitmap_writer.h"
#include "bitmap/bitmap_catalogue.h"
#include "common/call_frame.h"
#include "common/dest_layout.h"
#include "common/folder_ops.h"
#include "common/unique_resource.h"
#include "common/wstring_format.h"
#include "platform/backup_info.h"
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
        if (lock_) {
            lock_->UnlockSession();
            lock_->Release();
        }
    }
    DWORD Lock(const wchar_t* fn, const std::wstring& root, DWORD session) {
        Log(1, L"%s() LockSession begin, root = %s, sess = %d", fn, root.c_str(), session);
        DWORD rc = platform::CreateKbSessLock(platform::OP_BITMAP, &lock_);
        if (rc || !lock_) {
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
        rc = lock_->LockSession(request, conflicts);
        for (const auto& c : conflicts)
            Log(0, L"%s() session %d is held: ProcessId:%d, OP:%d, Computer:%s, User:%s, Desc:%s, File:%s", fn, session,
                c.processId, c.op, c.Computer.c_str(), c.User.c_str(), c.Desc.c_str(), c.File.c_str());
        if (rc) {
            lock_->Release();
            lock_ = nullptr;
        }
        return rc;
    }
    platform::ISessionLock* get() const { return lock_; }

private:
    platform::ISessionLock* lock_ = nullptr;
};

// Copies description files and writes bitmaps of one session folder into
// `target`. 0, or the code that ends the session.
DWORD ProcessSessionFiles(const wchar_t* fn, const std::wstring& source, const std::wstring& target, DWORD flag,
                          bool generate) {
    const std::wstring pattern = Format(L"%s\\*", source.c_str());
    WIN32_FIND_DATAW fd;
    unique_hfind find(::FindFirstFileW(pattern.c_str(), &fd));
    if (!find) {
        const DWORD rc = LastErrorOr();
        Log(0, L"%s() failed to FindFirstFile(%s), rc = [%d]", fn, pattern.c_str(), rc);
        return rc;
    }
    DWORD rc = 0;
    do {
        const std::wstring name = fd.cFileName;
        if (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
            Log(4, L"%s(): skip directory [%s]", fn, name.c_str());
            continue;
        }
        if (name.size() < 10) {
            Log(4, L"%s(): skip file [%s]", fn, name.c_str());
            continue;
        }
        Log(4, L"%s(): Processing [%s]", fn, name.c_str());
        if (EndsWithNoCase(name, L".xml") || EndsWithNoCase(name, L".ctf")) {
            Log(4, L"%s(): Copying file [%s]...", fn, name.c_str());
            const std::wstring from = Format(L"%s\\%s", source.c_str(), name.c_str());
            const std::wstring to = Format(L"%s\\%s", target.c_str(), name.c_str());
            if (!::CopyFileW(from.c_str(), to.c_str(), FALSE)) {
                rc = LastErrorOr();
                Log(0, L"%s() failed at CopyFile(), rc = [%d]", fn, rc);
                break;
            }
        } else if (EndsWithNoCase(name, L".Zek") && generate) {
            Log(2, L"%s(): generating bitmap for [%s]...", fn, name.c_str());
            if (DWORD zrc = CreateBitmap4ZekFileImpl(source.c_str(), target.c_str(), name.c_str(), flag)) return zrc;
        } else {
            Log(4, L"%s(): skip file [%s]", fn, name.c_str());
        }
    } while (::FindNextFileW(find.get(), &fd));
    if (!rc) rc = ::GetLastError();
    if (rc == ERROR_NO_MORE_FILES) return 0;
    Log(0, L"%s() failed to FindNextFile(), rc = [%d]", fn, rc);
    return rc;
}

}  // namespace

DWORD CreateBitmap4SessionEx(const wchar_t* sessionsFolder, const wchar_t* targetFolder, const wchar_t* sessionName,
                             DWORD bRegen, DWORD flag, bool generateBitmaps) {
    constexpr const wchar_t* fn = L"CreateBitmap4SessionEx";
    Log(1, L"%s(%s, %s, %s, %d) starts", fn, OrNull(sessionsFolder), OrNull(targetFolder), OrNull(sessionName), bRegen);
    if (!sessionsFolder || !targetFolder || !sessionName) {
        Log(0, L"%s() failed due to invalid parameter", fn);
        return ERROR_INVALID_PARAMETER;
    }
    const std::wstring source = Format(L"%s\\%s", sessionsFolder, sessionName);
    const std::wstring target = Format(L"%s\\%s", targetFolder, sessionName);
    std::wstring root;
    DWORD session = 0;
    if (!GetRootAndSessNumFromPath(source.c_str(), root, &session)) {
        Log(0, L"%s() failed to get root and sess_num from path [%s]", fn, source.c_str());
        return kFailNoCode;
    }
    if (CanReadWrite(target)) {
        Log(4, L"%s(): Session [%s] already has bitmap", fn, sessionName);
        if (!bRegen) return 0;
        if (DWORD rc = DestroyDirectoryImpl(target.c_str())) return rc;
    }
    if (DWORD rc = EnsureFolder(fn, target)) return rc;

    SessionLockScope lock;
    DWORD rc = lock.Lock(fn, root, session);
    if (rc == 0) rc = ProcessSessionFiles(fn, source, target, flag, generateBitmaps);
    // A session that was not prepared completely leaves nothing behind, so
    // that the next run prepares it again.
    if (rc) DestroyDirectoryImpl(target.c_str());
    if (lock.get()) Log(1, L"%s() LockSession end, ret=%d, pKbLock=0x%p", fn, rc, lock.get());
    return rc;
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
    constexpr const wchar_t* fn = L"CreateBitmap4BackupDestEx";
    Log(1, L"%s(%s) starts...", fn, OrNull(root));
    Log(1, L"%s sess begin = %d, end = %d, bRegen = %d", fn, begin, end, bRegen);
    if (!root || !bitmapRoot) {
        Log(0, L"%s() failed due to invalid parameter", fn);
        return ERROR_INVALID_PARAMETER;
    }
    const std::wstring sessions = Format(L"%s\\%s", root, kVStore);
    const std::wstring bitmaps = Format(L"%s\\%s", bitmapRoot, kBitmapFolder);
    DWORD rc = EnsureFolder(fn, root);
    if (!rc && !CanReadWrite(sessions)) {
        Log(0, L"%s() failed due to can't access sessions [%s], rc = [%d]", fn, sessions.c_str(), ::GetLastError());
        rc = ERROR_FILE_NOT_FOUND;
    }
    if (!rc) rc = EnsureFolder(fn, bitmaps);
    if (rc) {
        Log(1, L"%s() finished, rc = [%d]", fn, rc);
        return rc;
    }
    const std::wstring last = ReadLastConvertedSession(bitmaps);

    std::vector<std::wstring> names;
    const std::wstring pattern = Format(L"%s\\S*", sessions.c_str());
    WIN32_FIND_DATAW fd;
    unique_hfind find(::FindFirstFileW(pattern.c_str(), &fd));
    if (find) {
        do {
            const std::wstring name = fd.cFileName;
            if (!(fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) {
                Log(4, L"%s(): skip non-directory [%s]", fn, name.c_str());
                continue;
            }
            if (!platform::IsSessionValid(Format(L"%s\\%s", sessions.c_str(), name.c_str()))) {
                Log(1, L"%s() validate session(%s) failed, just skip it.", fn, name.c_str());
                continue;
            }
            names.push_back(name);
        } while (::FindNextFileW(find.get(), &fd));
    }
    // No session folder at all ends the listing like an empty one.
    const DWORD listEnd = find ? ::GetLastError() : (::GetLastError() == ERROR_FILE_NOT_FOUND ? ERROR_NO_MORE_FILES
                                                                                               : LastErrorOr());
    if (listEnd == ERROR_NO_MORE_FILES) {
        std::sort(names.begin(), names.end(),
                  [](const std::wstring& a, const std::wstring& b) { return _wcsicmp(a.c_str(), b.c_str()) < 0; });
        for (auto it = names.rbegin(); it != names.rend(); ++it) {
            if (!last.empty() && _wcsicmp(it->c_str(), last.c_str()) <= 0) break;
            const bool full = platform::IsFullSession(Format(L"%s\\%s", sessions.c_str(), it->c_str()));
            if (full)
                Log(2, L"%s(): No need to create Bitmap file for Full session [%s]. Backup session information only..",
                    fn, it->c_str());
            else
                Log(2, L"%s(): Create Bitmap file for Non-Full session [%s]...", fn, it->c_str());
            Log(2, L"%s(): Processing session [%s]", fn, it->c_str());
            rc = CreateBitmap4SessionEx(sessions.c_str(), bitmaps.c_str(), it->c_str(), bRegen, flag, !full);
            if (rc) break;
        }
    } else {
        rc = listEnd;
        Log(0, L"%s() failed to FindNextFile(), rc = [%d]", fn, rc);
    }
    Log(1, L"%s() finished, rc = [%d]", fn, rc);
    return rc;
}

DWORD CreateSessionBitmapEx(const wchar_t* path, const wchar_t* bitmapRoot, DWORD begin, DWORD end, DWORD bRegen,
                            DWORD flag) {
    constexpr const wchar_t* fn = L"CreateSessionBitmapEx";
    Log(4, L"%s(%s) starts", fn, OrNull(path));
    if (!path) {
        Log(1, L"%s() finished, rc = [ERROR_INVALID_PARAMETER]", fn);
        return ERROR_INVALID_PARAMETER;
    }
    std::vector<std::wstring> roots;
    DWORD rc = GetBackupDestListImpl(path, roots);
    if (rc) {
        Log(0, L"%s() failed for can't get backup destination list", fn);
    } else {
        const std::wstring& dest = roots.back();
        Log(2, L"%s(): checking backup destination [%s]", fn, dest.c_str());
        rc = CreateBitmap4BackupDestEx(dest.c_str(), bitmapRoot ? bitmapRoot : dest.c_str(), begin, end, bRegen, flag);
    }
    Log(1, L"%s() finished, rc = %d", fn, rc);
    return rc;
}

DWORD MarkLastConvertedSession(const wchar_t* bitmapRoot, const wchar_t* session) {
    constexpr const wchar_t* fn = L"MarkLastConvertedSession";
    Log(1, L"%s(%s, %s) starts...", fn, OrNull(bitmapRoot), OrNull(session));
    if (!bitmapRoot || !session) return ERROR_INVALID_PARAMETER;
    const std::wstring folder = Format(L"%s\\%s", bitmapRoot, kBitmapFolder);
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
}

}  // namespace kx::bitmap
