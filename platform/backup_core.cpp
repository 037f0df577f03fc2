#include "platform/backup_core.h"

#include <cwchar>

#include "common/dest_layout.h"
#include "common/dir_list.h"
#include "common/result_codes.h"
#include "common/unique_resource.h"
#include "common/wstring_format.h"

namespace kx::platform {

std::wstring DestinationRootOf(const std::wstring& path) {
    // root\VStore\S########## (or a path below it) stands for root.
    const std::wstring marker = L"\\VStore\\";
    for (size_t at = path.find(marker); at != std::wstring::npos; at = path.find(marker, at + 1)) {
        const wchar_t* rest = path.c_str() + at + marker.size();
        if ((rest[0] == L'S' || rest[0] == L's') && iswdigit(rest[1])) return path.substr(0, at);
    }
    std::wstring root = path;
    while (root.size() > 3 && (root.back() == L'\\' || root.back() == L'/')) root.pop_back();
    return root;
}

DWORD GetAllBackupDestinations(const std::wstring& path, std::vector<std::wstring>& roots) {
    roots.clear();
    const std::wstring root = DestinationRootOf(path);
    if (root.empty()) return ERROR_INVALID_PARAMETER;
    std::wstring header;
    if (GetHeaderRoot(root.c_str(), header) != 0 || header.empty()) header = root;
    std::vector<std::wstring> leaves;
    if (DWORD rc = GetLeafRoots(header.c_str(), leaves)) return rc;
    roots.push_back(header);
    for (auto& leaf : leaves) {
        bool seen = false;
        for (auto& r : roots) seen = seen || EqualsNoCase(DestinationRootOf(r), DestinationRootOf(leaf));
        if (!seen) roots.push_back(leaf);
    }
    return 0;
}

DWORD KbGetAllBackupDestinations(const wchar_t* path, wchar_t** block, DWORD* count) {
    if (!path || !*path || !block || !count) return ERROR_INVALID_PARAMETER;
    *block = nullptr;
    *count = 0;
    std::vector<std::wstring> roots;
    if (DWORD rc = GetAllBackupDestinations(path, roots)) return rc;
    size_t chars = 1;
    for (auto& r : roots) chars += r.size() + 1;
    auto* out = static_cast<wchar_t*>(::HeapAlloc(::GetProcessHeap(), HEAP_ZERO_MEMORY, chars * sizeof(wchar_t)));
    if (!out) return ERROR_NOT_ENOUGH_MEMORY;
    wchar_t* p = out;
    for (auto& r : roots) {
        wmemcpy(p, r.c_str(), r.size() + 1);
        p += r.size() + 1;
    }
    *block = out;
    *count = static_cast<DWORD>(roots.size());
    return 0;
}

DWORD EnumerateSessions(const std::wstring& root, std::vector<DWORD>& sessions) {
    const ListResult listed = ListDirectory(JoinPath(root, kVStore) + L"\\S*", [&](const WIN32_FIND_DATAW& fd) {
        if (!IsFolder(fd) || wcslen(fd.cFileName) != 11) return;
        bool digits = true;
        for (int i = 1; i < 11; ++i) digits = digits && iswdigit(fd.cFileName[i]);
        if (digits) sessions.push_back(static_cast<DWORD>(wcstoul(fd.cFileName + 1, nullptr, 10)));
    });
    if (listed.atFirstFind && (listed.code == ERROR_FILE_NOT_FOUND || listed.code == ERROR_PATH_NOT_FOUND)) return 0;
    return listed.code;
}

DWORD QueryKbSessRootByNum(const std::wstring& path, DWORD session, std::wstring& sessionRoot) {
    sessionRoot.clear();
    std::vector<std::wstring> roots;
    if (DWORD rc = GetAllBackupDestinations(path, roots)) return rc;
    for (auto& r : roots) {
        std::wstring folder;
        HA_GetKbSessPathByRootAndNum(r.c_str(), session, folder);
        const DWORD attr = ::GetFileAttributesW(folder.c_str());
        if (attr != INVALID_FILE_ATTRIBUTES && (attr & FILE_ATTRIBUTE_DIRECTORY)) {
            sessionRoot = r;
            return 0;
        }
    }
    return 0;
}

DWORD QuerySessionPassword(const std::wstring& sessionGuid, DWORD flag, std::wstring* password) {
    (void)sessionGuid;
    (void)flag;
    password->clear();
    return ERROR_NOT_SUPPORTED;
}

}  // namespace kx::platform
