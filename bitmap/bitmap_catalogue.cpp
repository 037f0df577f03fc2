#include "bitmap/bitmap_catalogue.h"

#include <io.h>

#include <cwctype>

#include "bitmap/bitmap_creation.h"
#include "common/call_frame.h"
#include "common/dest_layout.h"
#include "common/folder_ops.h"
#include "common/unique_resource.h"
#include "common/wstring_format.h"
#include "platform/backup_core.h"
#include "platform/backup_info.h"

namespace kx::bitmap {

namespace {

// The folder names of <folder>\S*. 0, or the failing code (the first find's
// code when nothing matches).
DWORD ListSessionFolders(const wchar_t* fn, const std::wstring& folder, std::vector<std::wstring>& names,
                         DWORD* firstFindError) {
    const std::wstring pattern = Format(L"%s\\S*", folder.c_str());
    WIN32_FIND_DATAW fd;
    unique_hfind find(::FindFirstFileW(pattern.c_str(), &fd));
    if (!find) {
        *firstFindError = LastErrorOr();
        return *firstFindError;
    }
    do {
        if (!(fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY)) {
            Log(4, L"%s(): skip non-directory [%s]", fn, fd.cFileName);
            continue;
        }
        names.emplace_back(fd.cFileName);
    } while (::FindNextFileW(find.get(), &fd));
    const DWORD e = ::GetLastError();
    if (e == ERROR_NO_MORE_FILES) return 0;
    Log(0, L"%s() failed to FindNextFile(), rc = [%d]", fn, e);
    return e;
}

DWORD Destinations(const wchar_t* fn, const wchar_t* path, std::vector<std::wstring>& roots) {
    DWORD rc = GetBackupDestListImpl(path, roots);
    if (rc) Log(0, L"%s() failed for can't get backup destination list", fn);
    return rc;
}

DWORD SessionNumber(const wchar_t* name) {
    DWORD n = 0;
    for (const wchar_t* p = name; *p; ++p)
        if (iswdigit(*p)) n = n * 10 + static_cast<DWORD>(*p - L'0');
    return n;
}

}  // namespace

DWORD GetBackupDestListImpl(const wchar_t* path, std::vector<std::wstring>& roots) {
    constexpr const wchar_t* fn = L"GetBackupDestList";
    Log(1, L"%s(%s) starts...", fn, OrNull(path));
    if (!path) {
        Log(0, L"%s() failed due to invalid parameter", fn);
        return ERROR_INVALID_PARAMETER;
    }
    wchar_t* block = nullptr;
    DWORD count = 0;
    DWORD rc = platform::KbGetAllBackupDestinations(path, &block, &count);
    unique_heap_ptr owned(block);
    if (rc) {
        Log(0, L"%s() failed for KbGetAllBackupDestinations(), rc = [%d]", fn, rc);
        return rc;
    }
    roots.clear();
    for (const wchar_t* p = block; p && *p; p += wcslen(p) + 1) roots.emplace_back(p);
    if (roots.empty()) {
        Log(0, L"%s() failed since the backup destination list is empty", fn);
        return ERROR_NOT_FOUND;
    }
    Log(1, L"%s() finished, list size = [%d]", fn, static_cast<int>(roots.size()));
    return 0;
}

DWORD GetBitmapList4BackupDestImpl(const wchar_t* root, std::vector<std::wstring>& sessions) {
    constexpr const wchar_t* fn = L"GetBitmapList4BackupDest";
    Log(1, L"%s(%s) starts...", fn, OrNull(root));
    if (!root) {
        Log(0, L"%s() failed due to invalid parameter", fn);
        return ERROR_INVALID_PARAMETER;
    }
    const std::wstring folder = Format(L"%s\\%s", root, kBitmapFolder);
    DWORD rc = 0;
    const size_t before = sessions.size();
    if (_waccess(folder.c_str(), 0) != 0) {
        rc = ERROR_PATH_NOT_FOUND;
        Log(0, L"%s() Can't access bitmap path [%s], rc = [%d]", fn, folder.c_str(), rc);
    } else {
        DWORD firstFind = 0;
        rc = ListSessionFolders(fn, folder, sessions, &firstFind);
        if (firstFind == ERROR_FILE_NOT_FOUND) {
            rc = 0;  // a bitmap folder without prepared sessions
        } else if (firstFind) {
            Log(0, L"%s() failed to FindFirstFile(%s\\S*), rc = [%d]", fn, folder.c_str(), rc);
        }
    }
    Log(1, L"%s() finished, rc = [%d], count = [%d]", fn, rc, static_cast<int>(sessions.size() - before));
    return rc;
}

DWORD GetSessionBitmapListImpl(const wchar_t* path, std::vector<std::wstring>& sessions) {
    constexpr const wchar_t* fn = L"GetSessionBitmapList";
    Log(1, L"%s(%s) starts...", fn, OrNull(path));
    if (!path) {
        Log(0, L"%s() failed due to invalid parameter", fn);
        return ERROR_INVALID_PARAMETER;
    }
    sessions.clear();
    std::vector<std::wstring> roots;
    DWORD rc = Destinations(fn, path, roots);
    for (const auto& r : roots) {
        Log(2, L"%s(): checking backup destination [%s]", fn, r.c_str());
        if (DWORD e = GetBitmapList4BackupDestImpl(r.c_str(), sessions)) rc = e;
    }
    Log(1, L"%s() finished, rc = [%d], total bitmap count = [%d]", fn, rc, static_cast<int>(sessions.size()));
    return rc;
}

DWORD GetBitmapDiskListImpl(const wchar_t* path, const wchar_t* session, std::vector<std::wstring>& files) {
    constexpr const wchar_t* fn = L"GetBitmapDiskList";
    Log(1, L"%s(%s, %s) starts...", fn, OrNull(path), OrNull(session));
    if (!path || !session) {
        Log(0, L"%s() failed due to invalid parameter", fn);
        return ERROR_INVALID_PARAMETER;
    }
    std::vector<std::wstring> roots;
    DWORD rc = Destinations(fn, path, roots);
    const size_t before = files.size();
    for (const auto& r : roots) {
        Log(4, L"%s(): checking backup destination [%s]", fn, r.c_str());
        const std::wstring folder = Format(L"%s\\%s\\%s", r.c_str(), kBitmapFolder, session);
        // A session lives in one destination; the others don't have its folder.
        if (_waccess(folder.c_str(), 0) != 0) continue;
        const DWORD e = GetFileListByPatternImpl((folder + L"\\*.Bitmap").c_str(), files);
        if (e && e != ERROR_FILE_NOT_FOUND) rc = e;
        break;
    }
    for (size_t i = before; i < files.size(); ++i)
        Log(4, L"%s(): %d: %s", fn, static_cast<int>(i - before), files[i].c_str());
    Log(1, L"%s() finished, rc = [%d]", fn, rc);
    return rc;
}

DWORD CheckSessionBitmapImpl(const wchar_t* root, const wchar_t* session, SessionBitmapCheck* result) {
    constexpr const wchar_t* fn = L"CheckSessionBitmap";
    Log(1, L"%s(%s, %s, ...) starts", fn, OrNull(root), OrNull(session));
    if (!root || !session || !result) {
        Log(0, L"%s() failed due to invalid parameter", fn);
        return ERROR_INVALID_PARAMETER;
    }
    *result = {};
    const std::wstring sessionFolder = Format(L"%s\\VStore\\%s", root, session);
    const std::wstring bitmapFolder = Format(L"%s\\%s\\%s", root, kBitmapFolder, session);
    result->sessionExists = _waccess(sessionFolder.c_str(), 0) == 0;
    result->bitmapExists = _waccess(bitmapFolder.c_str(), 0) == 0;
    result->match = result->sessionExists && result->bitmapExists;
    DWORD rc = 0;
    if (result->match) {
        const std::wstring pattern = Format(L"%s\\*", sessionFolder.c_str());
        WIN32_FIND_DATAW fd;
        unique_hfind find(::FindFirstFileW(pattern.c_str(), &fd));
        if (!find) {
            rc = LastErrorOr();
            result->match = 0;
        } else {
            do {
                std::wstring name = fd.cFileName;
                if (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) {
                    Log(4, L"%s(): skip directory [%s]", fn, name.c_str());
                    continue;
                }
                const bool zek = EndsWithNoCase(name, L".Zek");
                if (!zek && !EndsWithNoCase(name, L".xml") && !EndsWithNoCase(name, L".ctf")) {
                    Log(4, L"%s(): skip file [%s]", fn, name.c_str());
                    continue;
                }
                Log(4, L"%s: Checking file [%s]", fn, name.c_str());
                if (zek) name = name.substr(0, name.size() - 3) + L"Bitmap";
                if (_waccess((bitmapFolder + L"\\" + name).c_str(), 0) != 0) {
                    Log(0, L"%s(), file [%s] doesn't existed on both directories", fn, fd.cFileName);
                    result->match = 0;
                }
            } while (::FindNextFileW(find.get(), &fd));
        }
    }
    Log(1, L"%s() finished, ifSession = [%d] ifBitmap = [%d], ifMatch = [%d]", fn, result->sessionExists,
        result->bitmapExists, result->match);
    return rc;
}

DWORD DeleteBitmap4BackupDestImpl(const wchar_t* root, const wchar_t* limit) {
    constexpr const wchar_t* fn = L"DeleteBitmap4BackupDest";
    Log(1, L"%s(%s, %s) starts...", fn, OrNull(root), OrNull(limit));
    if (!root || !limit) {
        Log(0, L"%s() failed due to invalid parameter", fn);
        return ERROR_INVALID_PARAMETER;
    }
    const std::wstring folder = Format(L"%s\\%s", root, kBitmapFolder);
    if (_waccess(folder.c_str(), 0) != 0) {
        Log(0, L"%s() failed due to can't access bitmap path [%s], rc = [%d]", fn, folder.c_str(), ::GetLastError());
        return ERROR_FILE_NOT_FOUND;
    }
    std::vector<std::wstring> names;
    DWORD firstFind = 0;
    DWORD rc = ListSessionFolders(fn, folder, names, &firstFind);
    if (firstFind == ERROR_FILE_NOT_FOUND) {
        rc = 0;
        if (::RemoveDirectoryW(folder.c_str())) {
            Log(2, L"%s(): successfully delete VCM-bitmap folder [%s], because no session bitmap exist", fn,
                folder.c_str());
        } else if (::GetLastError() == ERROR_DIR_NOT_EMPTY) {
            rc = ERROR_DIR_NOT_EMPTY;
            Log(0, L"%s(): delete VCM-bitmap folder[%s] failed and error code is [%d]", fn, folder.c_str(), rc);
        } else {
            Log(0, L"%s(): delete VCM-bitmap folder[%s] failed because some files in this folder", fn, folder.c_str());
        }
    } else if (firstFind) {
        Log(0, L"%s() failed to FindFirstFile(%s\\S*), rc = [%d]", fn, folder.c_str(), rc);
    } else {
        const size_t limitLength = wcslen(limit);
        for (auto it = names.rbegin(); it != names.rend(); ++it) {
            // The limit itself goes too.
            if (it->size() == limitLength && _wcsicmp(it->c_str(), limit) <= 0) {
                Log(2, L"%s(): Delete bitmap [%s]", fn, it->c_str());
                if (DWORD e = DestroyDirectoryImpl(Format(L"%s\\%s", folder.c_str(), it->c_str()).c_str())) rc = e;
            } else {
                Log(4, L"%s(): Skip [%s]", fn, it->c_str());
            }
        }
    }
    Log(1, L"%s() finished, rc = [%d]", fn, rc);
    return rc;
}

DWORD DeleteSessionBitmapImpl(const wchar_t* path, const wchar_t* session) {
    constexpr const wchar_t* fn = L"DeleteSessionBitmap";
    Log(1, L"%s(%s, %s) starts...", fn, OrNull(path), OrNull(session));
    if (!path) {
        Log(0, L"%s() failed due to invalid parameter", fn);
        return ERROR_INVALID_PARAMETER;
    }
    const bool all = IsNullOrEmpty(session);
    const wchar_t* limit = all ? L"S9999999999" : session;
    if (all)
        Log(2, L"%s() remove all bitmaps", fn);
    else
        Log(2, L"%s() remove bitmaps for sessions before [%s]", fn, session);
    std::vector<std::wstring> roots;
    DWORD rc = Destinations(fn, path, roots);
    for (const auto& r : roots) {
        Log(2, L"%s(): checking backup destination [%s]", fn, r.c_str());
        DWORD e = DeleteBitmap4BackupDestImpl(r.c_str(), limit);
        // A destination without bitmaps has nothing to delete.
        if (e && e != ERROR_FILE_NOT_FOUND) rc = e;
        if ((e = MarkLastConvertedSession(r.c_str(), all ? L"S0000000000" : session))) rc = e;
    }
    Log(1, L"%s() finished, rc = [%d]", fn, rc);
    return rc;
}

DWORD DetectAndRemoveObsolteBitmapImpl(const wchar_t* path, const wchar_t* begin, const wchar_t* end) {
    constexpr const wchar_t* fn = L"DetectAndRemoveObsolteBitmap";
    Log(1, L"%s(%s) starts...", fn, OrNull(path));
    if (!path || !begin || !end) {
        Log(0, L"%s() failed due to invalid parameter", fn);
        return ERROR_INVALID_PARAMETER;
    }
    const DWORD first = SessionNumber(begin), last = SessionNumber(end);
    if (first == last) {
        Log(2, L"%s() beginning session equals end session, skip checking", fn);
        return 0;
    }
    std::vector<std::wstring> roots;
    if (DWORD rc = Destinations(fn, path, roots)) return rc;
    for (auto r = roots.rbegin(); r != roots.rend(); ++r) {
        for (DWORD n = first + 1; n <= last && n != 0; ++n) {
            const std::wstring xml =
                Format(L"%s\\%s\\S%010u\\%s", r->c_str(), kBitmapFolder, n, platform::kBackupInfoFile);
            platform::BackupInfo info;
            if (platform::ReadBackupInfo(xml, &info) == 0 && EqualsNoCase(info.backupKind, L"Full")) {
                Log(2, L"%s(): session S%010u is a full backup, bitmaps up to [%s] are obsolete", fn, n, end);
                return DeleteSessionBitmapImpl(path, end);
            }
        }
    }
    return 0;
}

}  // namespace kx::bitmap
