// kxha version: the version resource of the KestrixHA.dll that was loaded.
#include <windows.h>

#include <vector>

#include "KestrixHA.h"
#include "commands.h"

namespace kxha {

namespace {
std::wstring Field(const std::vector<BYTE>& info, const wchar_t* name) {
    struct Lang { WORD language, codepage; }* langs = nullptr;
    UINT size = 0;
    if (!::VerQueryValueW(info.data(), L"\\VarFileInfo\\Translation", reinterpret_cast<void**>(&langs), &size) ||
        size < sizeof(Lang))
        return L"";
    wchar_t query[128];
    swprintf(query, 128, L"\\StringFileInfo\\%04x%04x\\%ls", langs[0].language, langs[0].codepage, name);
    wchar_t* value = nullptr;
    if (!::VerQueryValueW(info.data(), query, reinterpret_cast<void**>(&value), &size) || !value) return L"";
    return value;
}

std::wstring JsonEscape(const std::wstring& s) {
    std::wstring out;
    for (wchar_t c : s) {
        if (c == L'\\' || c == L'"') out += L'\\';
        out += c;
    }
    return out;
}
}  // namespace

int CmdVersion(const Args& args) {
    HMODULE dll = ::GetModuleHandleW(L"KestrixHA.dll");
    wchar_t path[MAX_PATH] = {};
    if (!dll || !::GetModuleFileNameW(dll, path, MAX_PATH)) return Fail(L"locating KestrixHA.dll", ::GetLastError());
    DWORD ignored = 0, size = ::GetFileVersionInfoSizeW(path, &ignored);
    std::vector<BYTE> info(size ? size : 1);
    if (!size || !::GetFileVersionInfoW(path, 0, size, info.data()))
        return Fail(L"reading the version resource", ::GetLastError());
    const std::wstring company = Field(info, L"CompanyName"), product = Field(info, L"ProductName"),
                       version = Field(info, L"FileVersion"), update = Field(info, L"UpdateNumber");
    if (HasFlag(args, L"--json")) {
        Out(L"{\"company\": \"" + JsonEscape(company) + L"\", \"product\": \"" + JsonEscape(product) +
            L"\", \"version\": \"" + JsonEscape(version) + L"\", \"update\": \"" + JsonEscape(update) +
            L"\", \"path\": \"" + JsonEscape(path) + L"\"}\n");
    } else {
        Out(L"KestrixHA.dll " + version + L" (" + company + L" " + product + L", Update " + update + L")\n" + path +
            L"\n");
    }
    return 0;
}

}  // namespace kxha
