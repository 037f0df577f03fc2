#include "session/merge_markers.h"

#include <algorithm>
#include <cwchar>
#include <string>

#include "common/result_codes.h"
#include "common/dir_list.h"
#include "log/call_frame.h"

namespace kx::session {

namespace {
// A listing that fails (no ToPurge folder, no marker) adds nothing.
void AppendMarkers(const std::wstring& folder, const wchar_t* pattern, std::vector<DWORD>& found) {
    (void)ListDirectory(folder + pattern, [&](const WIN32_FIND_DATAW& fd) {
        if (IsFolder(fd)) return;
        wchar_t name[MAX_PATH];
        wcscpy(name, fd.cFileName);  // cFileName holds at most MAX_PATH characters with its null
        _wcsupr(name);
        DWORD n = 0xFFFFFFFF;  // a name that doesn't parse stays at this value
        if (swscanf(name, L"S%010u", &n) != 1) n = 0xFFFFFFFF;
        found.push_back(n);
    });
}
}  // namespace

DWORD GetMergeSessions(const wchar_t* root, std::vector<DWORD>& sessions) {
    return RunExport<kMVCM_GetMergeSessions>([&](auto& frame) -> DWORD {
        if (!root) return frame.InvalidParameter();
        return MergeSessions(root, sessions);
    });
}

DWORD MergeSessions(const wchar_t* root, std::vector<DWORD>& sessions) {
    std::wstring folder = root;
    while (!folder.empty() && (folder.back() == L'\\' || folder.back() == L'/')) folder.pop_back();
    folder += L"\\ToPurge\\";
    std::vector<DWORD> found;
    AppendMarkers(folder, L"*.idx_step1", found);
    AppendMarkers(folder, L"*.idx_step2", found);
    if (found.empty()) return 0;
    std::sort(found.begin(), found.end());
    found.push_back(found.back() + 1);
    sessions.insert(sessions.end(), found.begin(), found.end());
    return 0;
}

}  // namespace kx::session
