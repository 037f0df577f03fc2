#include "platform/folder_ops.h"

#include <io.h>

#include "common/dir_list.h"
#include "common/wstring_format.h"
#include "log/call_frame.h"

namespace kx {

namespace {

constexpr const wchar_t* kDestroy = kDestroyDirectory.name;

// Empties `folder` and removes it; the first failure ends the work.
DWORD DestroyTree(const std::wstring& folder) {
    if (folder.size() >= MAX_PATH) {
        Log(0, L"%s() failed: path [%s] is longer than MAX_PATH", kDestroy, folder.c_str());
        return ERROR_FILENAME_EXCED_RANGE;
    }
    if (_waccess(folder.c_str(), 6) != 0) {
        Log(0, L"%s() failed: [%s] doesn't exist or no permission to destroy", kDestroy, folder.c_str());
        return ERROR_ACCESS_DENIED;
    }
    const std::wstring pattern = Format(L"%s\\*.*", folder.c_str());
    DWORD rc = 0;
    const ListResult listed = ListDirectory(pattern, [&](const WIN32_FIND_DATAW& fd) {
        const std::wstring path = JoinPath(folder, fd.cFileName);
        if (IsFolder(fd)) {
            Log(2, L"%s(): Removing directory [%s]", kDestroy, path.c_str());
            if ((rc = DestroyTree(path)))
                Log(0, L"%s() failed to RemoveDirectoryW(%s), rc = [%d]", kDestroy, path.c_str(), rc);
        } else {
            Log(4, L"%s(): Removing file [%s]", kDestroy, path.c_str());
            if (!::DeleteFileW(path.c_str())) {
                rc = LastErrorOr();
                Log(0, L"%s() failed to DeleteFileW(%s), rc = [%d]", kDestroy, path.c_str(), rc);
            }
        }
        return rc == 0;
    });
    if (rc) return rc;
    if (listed.atFirstFind) {
        Log(0, L"%s() failed at FindFirstFile(%s), rc = [%d]", kDestroy, pattern.c_str(), listed.code);
        return listed.code;
    }
    if (listed) {
        Log(0, L"%s() failed to FindNextFile(), rc = [%d]", kDestroy, listed.code);
        return listed.code;
    }
    if (!::RemoveDirectoryW(folder.c_str())) {
        rc = LastErrorOr();
        Log(0, L"%s() failed to RemoveDirectory(%s), rc = [%d]", kDestroy, folder.c_str(), rc);
    }
    return rc;
}

}  // namespace

DWORD DestroyDirectory(const wchar_t* folder) {
    return RunExport<kDestroyDirectory>(
        [&](auto& frame) -> DWORD {
            if (IsNullOrEmpty(folder)) return frame.InvalidParameter();
            return DestroyTree(folder);
        },
        OrNull(folder));
}

DWORD GetFileListByPattern(const wchar_t* pattern, std::vector<std::wstring>& files) {
    return RunExport<kGetFileListByPattern>(
        [&](auto& frame) -> DWORD {
            const std::wstring p = pattern ? pattern : L"";
            const size_t slash = p.rfind(L'\\');
            if (slash == std::wstring::npos || p.size() >= MAX_PATH) {
                const DWORD rc = frame.InvalidParameter(p.c_str());
                return frame.End(rc, 0, rc);
            }
            const std::wstring folder = p.substr(0, slash);
            int count = 0;
            const ListResult listed = ListDirectory(p, [&](const WIN32_FIND_DATAW& fd) {
                files.push_back(JoinPath(folder, fd.cFileName));
                ++count;
            });
            if (listed.atFirstFind) {
                Log(0, L"%s() failed to FindFirstFile(%s), rc = [%d]", kGetFileListByPattern.name, p.c_str(),
                    listed.code);
                return frame.End(listed.code, 0, listed.code);
            }
            if (listed) Log(0, L"%s() failed to FindNextFile(), rc = [%d]", kGetFileListByPattern.name, listed.code);
            return frame.End(listed.code, count, listed.code);
        },
        OrNull(pattern));
}

}  // namespace kx
