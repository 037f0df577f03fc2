#include "common/folder_ops.h"

#include <io.h>

#include "common/result_codes.h"
#include "common/unique_resource.h"
#include "common/wstring_format.h"
#include "log/debug_log.h"

namespace kx {

bool IsDotEntry(const wchar_t* name) noexcept {
    return name[0] == L'.' && (name[1] == 0 || (name[1] == L'.' && name[2] == 0));
}

namespace {

constexpr const wchar_t* kDestroy = L"DestroyDirectory";

bool IsFolder(const WIN32_FIND_DATAW& fd) noexcept { return (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0; }

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
    WIN32_FIND_DATAW fd;
    unique_hfind find(::FindFirstFileW(pattern.c_str(), &fd));
    if (!find) {
        const DWORD rc = LastErrorOr();
        Log(0, L"%s() failed at FindFirstFile(%s), rc = [%d]", kDestroy, pattern.c_str(), rc);
        return rc;
    }
    do {
        if (IsDotEntry(fd.cFileName)) continue;
        const std::wstring path = Format(L"%s\\%s", folder.c_str(), fd.cFileName);
        if (IsFolder(fd)) {
            Log(2, L"%s(): Removing directory [%s]", kDestroy, path.c_str());
            if (DWORD rc = DestroyTree(path)) {
                Log(0, L"%s() failed to RemoveDirectoryW(%s), rc = [%d]", kDestroy, path.c_str(), rc);
                return rc;
            }
        } else {
            Log(4, L"%s(): Removing file [%s]", kDestroy, path.c_str());
            if (!::DeleteFileW(path.c_str())) {
                const DWORD rc = LastErrorOr();
                Log(0, L"%s() failed to DeleteFileW(%s), rc = [%d]", kDestroy, path.c_str(), rc);
                return rc;
            }
        }
    } while (::FindNextFileW(find.get(), &fd));
    if (DWORD e = ::GetLastError(); e != ERROR_NO_MORE_FILES) {
        Log(0, L"%s() failed to FindNextFile(), rc = [%d]", kDestroy, e);
        return e;
    }
    find.reset();
    if (!::RemoveDirectoryW(folder.c_str())) {
        const DWORD rc = LastErrorOr();
        Log(0, L"%s() failed to RemoveDirectory(%s), rc = [%d]", kDestroy, folder.c_str(), rc);
        return rc;
    }
    return 0;
}

std::wstring WithTrailingSlash(const std::wstring& s) { return (!s.empty() && s.back() == L'\\') ? s : s + L'\\'; }

}  // namespace

DWORD DestroyDirectoryImpl(const wchar_t* folder) {
    Log(1, L"%s() starts (%s)", kDestroy, folder ? folder : L"NULL");
    if (!folder || !*folder) {
        Log(0, L"%s() failed due to invalid parameter", kDestroy);
        return ERROR_INVALID_PARAMETER;
    }
    const DWORD rc = DestroyTree(folder);
    Log(1, L"%s() finished, rc = [%d]", kDestroy, rc);
    return rc;
}

DWORD GetFileListByPatternImpl(const wchar_t* pattern, std::vector<std::wstring>& files) {
    constexpr const wchar_t* kName = L"GetFileListByPattern";
    Log(1, L"%s(%s) starts...", kName, pattern ? pattern : L"NULL");
    const std::wstring p = pattern ? pattern : L"";
    const size_t slash = p.rfind(L'\\');
    if (slash == std::wstring::npos || p.size() >= MAX_PATH) {
        Log(0, L"%s() failed due to incorrect pattern [%s]", kName, p.c_str());
        return ERROR_INVALID_PARAMETER;
    }
    const std::wstring folder = p.substr(0, slash);
    WIN32_FIND_DATAW fd;
    unique_hfind find(::FindFirstFileW(p.c_str(), &fd));
    if (!find) {
        const DWORD rc = LastErrorOr();
        Log(0, L"%s() failed to FindFirstFile(%s), rc = [%d]", kName, p.c_str(), rc);
        return rc;
    }
    size_t count = 0;
    do {
        if (IsDotEntry(fd.cFileName)) continue;
        files.push_back(Format(L"%s\\%s", folder.c_str(), fd.cFileName));
        ++count;
    } while (::FindNextFileW(find.get(), &fd));
    DWORD rc = ::GetLastError();
    if (rc == ERROR_NO_MORE_FILES) {
        rc = 0;
    } else {
        Log(0, L"%s() failed to FindNextFile(), rc = [%d]", kName, rc);
    }
    Log(1, L"%s() finished, total file count = [%d] rc = [%d]", kName, static_cast<int>(count), rc);
    return rc;
}

DWORD CopyFolderFiles(const std::wstring& source, const std::wstring& target) {
    const std::wstring src = WithTrailingSlash(source), dst = WithTrailingSlash(target);
    WIN32_FIND_DATAW fd;
    unique_hfind find(::FindFirstFileW((src + L"*").c_str(), &fd));
    if (!find) return HresultFromWin32(LastErrorOr());
    do {
        if (IsFolder(fd)) continue;
        const std::wstring from = src + fd.cFileName, to = dst + fd.cFileName;
        if (!::CopyFileW(from.c_str(), to.c_str(), FALSE)) {
            const DWORD hr = HresultFromWin32(::GetLastError());
            Log(0, L"CopyFile failed [%s] --> [%s], hr = 0x%08x", from.c_str(), to.c_str(), hr);
            return hr;
        }
        Log(0, L"CopyFile [%s] --> [%s]", from.c_str(), to.c_str());
    } while (::FindNextFileW(find.get(), &fd));
    const DWORD e = ::GetLastError();
    return e == ERROR_NO_MORE_FILES ? 0 : HresultFromWin32(e);
}

DWORD CopyFolderTree(const std::wstring& source, const std::wstring& target) {
    if (DWORD hr = CopyFolderFiles(source, target)) return hr;
    const std::wstring src = WithTrailingSlash(source), dst = WithTrailingSlash(target);
    WIN32_FIND_DATAW fd;
    unique_hfind find(::FindFirstFileW((src + L"*").c_str(), &fd));
    if (!find) return LastErrorOr();
    do {
        if (!IsFolder(fd) || IsDotEntry(fd.cFileName)) continue;
        const std::wstring sub = dst + fd.cFileName;
        if (!::CreateDirectoryW(sub.c_str(), nullptr) && ::GetLastError() != ERROR_ALREADY_EXISTS) {
            const DWORD hr = HresultFromWin32(::GetLastError());
            Log(0, L"CreateDirectory failed [%s], hr = 0x%08x", sub.c_str(), hr);
            return hr;
        }
        if (DWORD hr = CopyFolderTree(src + fd.cFileName, sub)) return hr;
    } while (::FindNextFileW(find.get(), &fd));
    const DWORD e = ::GetLastError();
    return e == ERROR_NO_MORE_FILES ? 0 : e;
}

}  // namespace kx
