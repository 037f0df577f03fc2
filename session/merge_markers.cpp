#include "session/merge_markers.h"

#include <algorithm>
#include <cwchar>
#include <string>

#include "common/result_codes.h"
#include "common/unique_resource.h"

namespace kx::session {

namespace {
DWORD AppendMarkers(const std::wstring& folder, const wchar_t* pattern, std::vector<DWORD>& found) {
    WIN32_FIND_DATAW fd;
    unique_hfind find(::FindFirstFileW((folder + pattern).c_str(), &fd));
    if (!find) return 0;
    do {
        if (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) continue;
        wchar_t name[MAX_PATH];
        if (wcslen(fd.cFileName) >= MAX_PATH) return kE_INVALIDARG;
        wcscpy(name, fd.cFileName);
        _wcsupr(name);
        DWORD n = 0xFFFFFFFF;  // a name that doesn't parse stays at this value
        if (swscanf(name, L"S%010u", &n) != 1) n = 0xFFFFFFFF;
        found.push_back(n);
    } while (::FindNextFileW(find.get(), &fd));
    return 0;
}
}  // namespace

DWORD GetMergeSessions(const wchar_t* root, std::vector<DWORD>& sessions) {
    if (!root) return kE_INVALIDARG;
    std::wstring folder = root;
    while (!folder.empty() && (folder.back() == L'\\' || folder.back() == L'/')) folder.pop_back();
    folder += L"\\ToPurge\\";
    std::vector<DWORD> found;
    if (DWORD rc = AppendMarkers(folder, L"*.idx_step1", found)) return rc;
    if (DWORD rc = AppendMarkers(folder, L"*.idx_step2", found)) return rc;
    if (found.empty()) return 0;
    std::sort(found.begin(), found.end());
    found.push_back(found.back() + 1);
    sessions.insert(sessions.end(), found.begin(), found.end());
    return 0;
}

}  // namespace kx::session
