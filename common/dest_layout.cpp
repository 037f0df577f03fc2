#include "common/dest_layout.h"

#include <cwchar>

#include "common/result_codes.h"
#include "common/wstring_format.h"

namespace kx {

std::wstring SessionFolderName(DWORD session) { return Format(L"S%010u", session); }

bool IsPlainName(const wchar_t* name) noexcept {
    if (!name || !*name) return false;
    if (name[0] == L'.' && (name[1] == 0 || (name[1] == L'.' && name[2] == 0))) return false;
    return !wcspbrk(name, L"\\/:");
}

bool IsSessionName(const wchar_t* name) noexcept {
    if (!name || (name[0] != L'S' && name[0] != L's')) return false;
    for (int i = 1; i <= 10; ++i)
        if (name[i] < L'0' || name[i] > L'9') return false;
    return name[11] == 0;
}

DWORD HA_GetKbSessPathByRootAndNum(const wchar_t* root, DWORD session, std::wstring& path) {
    if (!root || !*root) return kE_INVALIDARG;
    path = JoinPath(root, kVStore) + L'\\' + Format(L"S%010d", static_cast<int>(session));
    return 0;
}

bool GetRootAndSessNumFromPath(const wchar_t* path, std::wstring& root, DWORD* session) {
    if (!path) return false;
    const std::wstring full(path);
    const size_t slash = full.rfind(L'\\');
    const std::wstring last = slash == std::wstring::npos ? full : full.substr(slash + 1);
    if (last.empty() || (last[0] != L'S' && last[0] != L's')) return false;
    int number = 0;
    if (swscanf(last.c_str() + 1, L"%010d", &number) != 1) return false;

    const size_t at = full.find(kVStore);
    root = (at != std::wstring::npos && at >= 2) ? full.substr(0, at - 1) : std::wstring();
    if (session) *session = static_cast<DWORD>(number);
    return true;
}

DWORD GetHeaderRoot(const wchar_t* root, std::wstring& header) {
    header.clear();
    if (!root) return kE_INVALIDARG;
    const std::wstring ini = JoinPath(root, kLeafRootIni);
    wchar_t value[MAX_PATH] = {};
    ::SetLastError(0);
    ::GetPrivateProfileStringW(L"HEADER LOCATION", L"Header", L"default", value, MAX_PATH - 1, ini.c_str());
    if (EqualsNoCase(value, L"default")) return LastErrorOr();
    header = value;
    return 0;
}

DWORD GetLeafRoots(const wchar_t* root, std::vector<std::wstring>& roots) {
    if (!root) return kE_INVALIDARG;
    const std::wstring ini = JoinPath(root, kHeaderRootIni);
    if (::GetFileAttributesW(ini.c_str()) == INVALID_FILE_ATTRIBUTES) {
        roots.push_back(root);
        return 0;
    }
    const int count = static_cast<int>(::GetPrivateProfileIntW(L"LEAF COUNT", L"Count", 0, ini.c_str()));
    for (int i = 0; i < count; ++i) {
        wchar_t value[MAX_PATH] = {};
        const std::wstring key = Format(L"Leaf%d", i);
        ::SetLastError(0);
        ::GetPrivateProfileStringW(L"LEAF LOCATION", key.c_str(), L"", value, MAX_PATH - 1, ini.c_str());
        if (!*value) return LastErrorOr();
        roots.emplace_back(value);
    }
    return 0;
}

}  // namespace kx
