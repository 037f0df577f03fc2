#include "bitmap/bitmap_catalogue.h"

#include <io.h>

#include <cwctype>

#include "bitmap/bitmap_creation.h"
#include "common/dest_layout.h"
#include "common/dir_list.h"
#include "common/unique_resource.h"
#include "common/wstring_format.h"
#include "platform/backup_core.h"
#include "log/call_frame.h"
#include "platform/backup_info.h"
#include "platform/folder_ops.h"

namespace kx::bitmap {

namespace {

// The folder names of <folder>\S*. A failing next-find is logged here; the
// caller logs a failing first find (ERROR_FILE_NOT_FOUND: nothing matched).
ListResult ListSessionFolders(const wchar_t* fn, const std::wstring& folder, std::vector<std::wstring>& names) {
    const ListResult listed = ListDirectory(JoinPath(folder, L"S*"), [&](const WIN32_FIND_DATAW& fd) {
        if (!IsFolder(fd)) {
            Log(4, L"%s(): skip non-directory [%s]", fn, fd.cFileName);
            return;
        }
        names.emplace_back(fd.cFileName);
    });
    if (listed && !listed.atFirstFind) Log(0, L"%s() failed to FindNextFile(), rc = [%d]", fn, listed.code);
    return listed;
}

DWORD Destinations(const wchar_t* fn, const wchar_t* path, std::vector<std::wstring>& roots) {
    DWORD rc = GetBackupDestList(path, roots);
    if (rc) Log(0, L"%s() failed for can't get backup destination list", fn);
    return rc;
}

// ERROR_PATH_NOT_FOUND, logged, for a destination root or path that is not there.
DWORD RequireFolder(const wchar_t* fn, const wchar_t* folder) {
    const DWORD attr = ::GetFileAttributesW(folder);
    if (attr != INVALID_FILE_ATTRIBUTES && (attr & FILE_ATTRIBUTE_DIRECTORY)) return 0;
    Log(0, L"%s() failed: [%s] doesn't exist or is not a folder", fn, folder);
    return ERROR_PATH_NOT_FOUND;
}

DWORD SessionNumber(const wchar_t* name) {
    DWORD n = 0;
    for (const wchar_t* p = name; *p; ++p)
        if (iswdigit(*p)) n = n * 10 + static_cast<DWORD>(*p - L'0');
    return n;
}

}  // namespace

DWORD GetBackupDestList(const wchar_t* path, std::vector<std::wstring>& roots) {
    constexpr const wchar_t* fn = kGetBackupDestList.name;
    return RunExport<kGetBackupDestList>(
        [&](auto& frame) -> DWORD {
            if (!path) return frame.InvalidParameter();
            wchar_t* block = nullptr;
            DWORD count = 0;
            const DWORD rc = platform::KbGetAllBackupDestinations(path, &block, &count);
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
            return frame.End(0, static_cast<int>(roots.size()));
        },
        OrNull(path));
}

DWORD GetBitmapList4BackupDest(const wchar_t* root, std::vector<std::wstring>& sessions) {
    constexpr const wchar_t* fn = kGetBitmapList4BackupDest.name;
    return RunExport<kGetBitmapList4BackupDest>(
        [&](auto& frame) -> DWORD {
            if (IsNullOrEmpty(root)) return frame.InvalidParameter();
            const std::wstring folder = JoinPath(root, kBitmapFolder);
            DWORD rc = 0;
            const size_t before = sessions.size();
            if (_waccess(folder.c_str(), 0) != 0) {
                rc = ERROR_PATH_NOT_FOUND;
                Log(0, L"%s() Can't access bitmap path [%s], rc = [%d]", fn, folder.c_str(), rc);
            } else {
                const ListResult listed = ListSessionFolders(fn, folder, sessions);
                rc = listed.code;
                if (listed.atFirstFind && rc == ERROR_FILE_NOT_FOUND) {
                    rc = 0;  // a bitmap folder without prepared sessions
                } else if (listed.atFirstFind) {
                    Log(0, L"%s() failed to FindFirstFile(%s\\S*), rc = [%d]", fn, folder.c_str(), rc);
                }
            }
            return frame.End(rc, rc, static_cast<int>(sessions.size() - before));
        },
        OrNull(root));
}

DWORD GetSessionBitmapList(const wchar_t* path, std::vector<std::wstring>& sessions) {
    constexpr const wchar_t* fn = kGetSessionBitmapList.name;
    return RunExport<kGetSessionBitmapList>(
        [&](auto& frame) -> DWORD {
            if (IsNullOrEmpty(path)) return frame.InvalidParameter();
            sessions.clear();
            std::vector<std::wstring> roots;
            DWORD rc = Destinations(fn, path, roots);
            for (const auto& r : roots) {
                Log(2, L"%s(): checking backup destination [%s]", fn, r.c_str());
                if (DWORD e = GetBitmapList4BackupDest(r.c_str(), sessions)) rc = e;
            }
            return frame.End(rc, rc, static_cast<int>(sessions.size()));
        },
        OrNull(path));
}

DWORD GetBitmapDiskList(const wchar_t* path, const wchar_t* session, std::vector<std::wstring>& files) {
    constexpr const wchar_t* fn = kGetBitmapDiskList.name;
    return RunExport<kGetBitmapDiskList>(
        [&](auto& frame) -> DWORD {
            if (IsNullOrEmpty(path) || !IsSessionName(session)) return frame.InvalidParameter();
            if (DWORD rc = RequireFolder(fn, path)) return rc;
            std::vector<std::wstring> roots;
            DWORD rc = Destinations(fn, path, roots);
            const size_t before = files.size();
            for (const auto& r : roots) {
                Log(4, L"%s(): checking backup destination [%s]", fn, r.c_str());
                const std::wstring folder = JoinPath(JoinPath(r, kBitmapFolder), session);
                // A session lives in one destination; the others don't have its folder.
                if (_waccess(folder.c_str(), 0) != 0) continue;
                const DWORD e = GetFileListByPattern(JoinPath(folder, L"*.Bitmap").c_str(), files);
                if (e && e != ERROR_FILE_NOT_FOUND) rc = e;
                break;
            }
            for (size_t i = before; i < files.size(); ++i)
                Log(4, L"%s(): %d: %s", fn, static_cast<int>(i - before), files[i].c_str());
            return rc;
        },
        OrNull(path), OrNull(session));
}

DWORD CheckSessionBitmap(const wchar_t* root, const wchar_t* session, SessionBitmapCheck* result) {
    constexpr const wchar_t* fn = kCheckSessionBitmap.name;
    return RunExport<kCheckSessionBitmap>(
        [&](auto& frame) -> DWORD {
            if (IsNullOrEmpty(root) || !IsSessionName(session) || !result) return frame.InvalidParameter();
            *result = {};
            if (DWORD rc = RequireFolder(fn, root)) return rc;
            const std::wstring sessionFolder = JoinPath(JoinPath(root, kVStore), session);
            const std::wstring bitmapFolder = JoinPath(JoinPath(root, kBitmapFolder), session);
            result->sessionExists = _waccess(sessionFolder.c_str(), 0) == 0;
            result->bitmapExists = _waccess(bitmapFolder.c_str(), 0) == 0;
            result->match = result->sessionExists && result->bitmapExists;
            DWORD rc = 0;
            if (result->match) {
                const ListResult listed =
                    ListDirectory(JoinPath(sessionFolder, L"*"), [&](const WIN32_FIND_DATAW& fd) {
                        std::wstring name = fd.cFileName;
                        if (IsFolder(fd)) {
                            Log(4, L"%s(): skip directory [%s]", fn, name.c_str());
                            return;
                        }
                        const bool zek = EndsWithNoCase(name, L".Zek");
                        if (!zek && !EndsWithNoCase(name, L".xml") && !EndsWithNoCase(name, L".ctf")) {
                            Log(4, L"%s(): skip file [%s]", fn, name.c_str());
                            return;
                        }
                        Log(4, L"%s: Checking file [%s]", fn, name.c_str());
                        if (zek) name = name.substr(0, name.size() - 3) + L"Bitmap";
                        if (_waccess(JoinPath(bitmapFolder, name).c_str(), 0) != 0) {
                            Log(0, L"%s(), file [%s] doesn't existed on both directories", fn, fd.cFileName);
                            result->match = 0;
                        }
                    });
                if (listed) {
                    rc = listed.code;
                    result->match = 0;
                }
            }
            return frame.End(rc, result->sessionExists, result->bitmapExists, result->match);
        },
        OrNull(root), OrNull(session));
}

DWORD DeleteBitmap4BackupDest(const wchar_t* root, const wchar_t* limit) {
    constexpr const wchar_t* fn = kDeleteBitmap4BackupDest.name;
    return RunExport<kDeleteBitmap4BackupDest>(
        [&](auto& frame) -> DWORD {
            if (IsNullOrEmpty(root) || !limit) return frame.InvalidParameter();
            const std::wstring folder = JoinPath(root, kBitmapFolder);
            if (_waccess(folder.c_str(), 0) != 0) {
                Log(0, L"%s() failed due to can't access bitmap path [%s], rc = [%d]", fn, folder.c_str(),
                    ::GetLastError());
                return ERROR_FILE_NOT_FOUND;
            }
            std::vector<std::wstring> names;
            const ListResult listed = ListSessionFolders(fn, folder, names);
            DWORD rc = listed.code;
            if (listed.atFirstFind && rc == ERROR_FILE_NOT_FOUND) {
                rc = 0;
                if (::RemoveDirectoryW(folder.c_str())) {
                    Log(2, L"%s(): successfully delete VCM-bitmap folder [%s], because no session bitmap exist", fn,
                        folder.c_str());
                } else if (::GetLastError() == ERROR_DIR_NOT_EMPTY) {
                    rc = ERROR_DIR_NOT_EMPTY;
                    Log(0, L"%s(): delete VCM-bitmap folder[%s] failed and error code is [%d]", fn, folder.c_str(),
                        rc);
                } else {
                    Log(0, L"%s(): delete VCM-bitmap folder[%s] failed because some files in this folder", fn,
                        folder.c_str());
                }
            } else if (listed.atFirstFind) {
                Log(0, L"%s() failed to FindFirstFile(%s\\S*), rc = [%d]", fn, folder.c_str(), rc);
            } else {
                const size_t limitLength = wcslen(limit);
                for (auto it = names.rbegin(); it != names.rend(); ++it) {
                    // The limit itself goes too.
                    if (it->size() == limitLength && _wcsicmp(it->c_str(), limit) <= 0) {
                        Log(2, L"%s(): Delete bitmap [%s]", fn, it->c_str());
                        if (DWORD e = DestroyDirectory(JoinPath(folder, *it).c_str())) rc = e;
                    } else {
                        Log(4, L"%s(): Skip [%s]", fn, it->c_str());
                    }
                }
            }
            return rc;
        },
        OrNull(root), OrNull(limit));
}

DWORD DeleteSessionBitmap(const wchar_t* path, const wchar_t* session) {
    constexpr const wchar_t* fn = kDeleteSessionBitmap.name;
    return RunExport<kDeleteSessionBitmap>(
        [&](auto& frame) -> DWORD {
            const bool all = IsNullOrEmpty(session);
            if (IsNullOrEmpty(path) || (!all && !IsSessionName(session))) return frame.InvalidParameter();
            const wchar_t* limit = all ? L"S9999999999" : session;
            if (all)
                Log(2, L"%s() remove all bitmaps", fn);
            else
                Log(2, L"%s() remove bitmaps for sessions before [%s]", fn, session);
            std::vector<std::wstring> roots;
            DWORD rc = Destinations(fn, path, roots);
            for (const auto& r : roots) {
                Log(2, L"%s(): checking backup destination [%s]", fn, r.c_str());
                DWORD e = DeleteBitmap4BackupDest(r.c_str(), limit);
                // A destination without bitmaps has nothing to delete.
                if (e && e != ERROR_FILE_NOT_FOUND) rc = e;
                if ((e = MarkLastConvertedSession(r.c_str(), all ? L"S0000000000" : session))) rc = e;
            }
            return rc;
        },
        OrNull(path), OrNull(session));
}

DWORD DetectAndRemoveObsolteBitmap(const wchar_t* path, const wchar_t* begin, const wchar_t* end) {
    constexpr const wchar_t* fn = kDetectAndRemoveObsolteBitmap.name;
    return RunExport<kDetectAndRemoveObsolteBitmap>(
        [&](auto& frame) -> DWORD {
            if (IsNullOrEmpty(path) || !IsSessionName(begin) || !IsSessionName(end)) return frame.InvalidParameter();
            const DWORD first = SessionNumber(begin), last = SessionNumber(end);
            if (first == last) {
                Log(2, L"%s() beginning session equals end session, skip checking", fn);
                return 0;
            }
            if (DWORD rc = RequireFolder(fn, path)) return rc;
            std::vector<std::wstring> roots;
            if (DWORD rc = Destinations(fn, path, roots)) return rc;
            for (auto r = roots.rbegin(); r != roots.rend(); ++r) {
                for (DWORD n = first + 1; n <= last && n != 0; ++n) {
                    const std::wstring xml = JoinPath(JoinPath(JoinPath(*r, kBitmapFolder), SessionFolderName(n)),
                                                      platform::kBackupInfoFile);
                    platform::BackupInfo info;
                    if (platform::ReadBackupInfo(xml, &info) == 0 && EqualsNoCase(info.backupKind, L"Full")) {
                        Log(2, L"%s(): session %s is a full backup, bitmaps up to [%s] are obsolete", fn,
                            SessionFolderName(n).c_str(), end);
                        return DeleteSessionBitmap(path, end);
                    }
                }
            }
            return 0;
        },
        OrNull(path));
}

}  // namespace kx::bitmap
