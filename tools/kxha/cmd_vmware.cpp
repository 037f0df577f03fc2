// kxha vmware: the guest identifier of a Windows release, the .NET
// Framework versions of the host or of an offline guest, the state of the
// VMware Tools service and the VDDK library's version.
#include <windows.h>

#include <algorithm>
#include <cwchar>

#include "KestrixHA/vmware.h"
#include "commands.h"
#include "output.h"

namespace kxha {

namespace {

// "major.minor" or "major.minor.build", decimal.
bool ParseRelease(const std::wstring& text, DWORD part[3]) {
    part[0] = part[1] = part[2] = 0;
    size_t at = 0;
    for (int i = 0; i < 3; ++i) {
        size_t end = at;
        while (end < text.size() && iswdigit(text[end])) ++end;
        if (end == at || end - at > 9) return false;
        part[i] = static_cast<DWORD>(std::wcstoul(text.substr(at, end - at).c_str(), nullptr, 10));
        if (end == text.size()) return i >= 1;
        if (text[end] != L'.') return false;
        at = end + 1;
    }
    return false;
}

// Two columns: the names padded to the longest.
std::wstring Table(const std::vector<std::pair<std::wstring, std::wstring>>& rows) {
    size_t width = 0;
    for (const auto& r : rows) width = std::max(width, r.first.size());
    std::wstring text;
    for (const auto& r : rows) text += r.first + std::wstring(width - r.first.size() + 2, L' ') + r.second + L"\n";
    return text;
}

bool IsFolder(const std::wstring& path) {
    const DWORD a = ::GetFileAttributesW(path.c_str());
    return a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_DIRECTORY);
}

const wchar_t* ArchName(DWORD arch) {
    switch (arch) {
        case 0: return L"x86";
        case 9: return L"x64";
        case 12: return L"arm64";
        case 6: return L"ia64";
    }
    return L"unknown";
}

// A release given as major.minor[.build], or read from a guest's Windows folder.
int GuestId(const std::vector<std::wstring>& pos, const Args& args) {
    DWORD part[3];
    KxWindowsRelease r{};
    std::wstring id;
    DWORD rc;
    const wchar_t* what = L"GetGuestID";
    if (pos.size() >= 2 && ParseRelease(pos[1], part)) {
        r = {part[0], part[1], part[2], HasFlag(args, L"--server"), HasFlag(args, L"--x86") ? 0u : 9u};
        rc = GetGuestID(r.major, r.minor, r.build, r.server, r.architecture, id);
    } else if (pos.size() >= 2 && IsFolder(pos[1])) {
        what = L"GetGuestIDEx";
        rc = GetGuestIDEx(pos[1], nullptr, nullptr, id, &r);
    } else {
        return Fail(what, ERROR_INVALID_PARAMETER,
                    L"give the Windows version as major.minor[.build], or a guest's Windows folder");
    }
    if (rc != ERROR_SUCCESS && rc != ERROR_NOT_FOUND) return Fail(what, rc);
    const std::wstring release = Num(r.major) + L"." + Num(r.minor) + L"." + Num(r.build);
    const wchar_t* edition = r.server ? L"server" : L"client";
    if (HasFlag(args, L"--json")) {
        Out(L"{\"release\": " + JsonString(release) + L", \"edition\": " + JsonString(edition) +
            L", \"architecture\": " + JsonString(ArchName(r.architecture)) + L", \"guestId\": " + JsonString(id) +
            L", \"known\": " + (rc ? L"false" : L"true") + L"}\n");
    } else {
        Out(Table({{L"RELEASE", release},
                   {L"EDITION", edition},
                   {L"ARCHITECTURE", ArchName(r.architecture)},
                   {L"GUEST ID", id + (rc ? L" (fallback: release not known)" : L"")}}));
    }
    return rc ? 1 : 0;
}

int DotNet(const std::vector<std::wstring>& pos, const Args& args) {
    std::wstring highest;
    std::vector<std::wstring> installed;
    const bool guest = pos.size() >= 2;
    if (guest && !IsFolder(pos[1]))
        return Fail(L"getDotNetVersionEx", ERROR_BAD_ENVIRONMENT, (L"no Windows folder " + pos[1]).c_str());
    const DWORD rc = guest ? getDotNetVersionEx(pos[1], nullptr, highest, &installed)
                           : getDotNetVersion(highest, &installed);
    if (rc != ERROR_SUCCESS && rc != ERROR_PRODUCT_UNINSTALLED)
        return Fail(guest ? L"getDotNetVersionEx" : L"getDotNetVersion", rc);
    const std::wstring where = guest ? pos[1] : L"host";
    if (HasFlag(args, L"--json")) {
        Out(L"{\"where\": " + JsonString(where) + L", \"newest\": " + (highest.empty() ? L"null" : JsonString(highest)) +
            L", \"installed\": " + JsonList(installed) + L"}\n");
    } else if (installed.empty()) {
        Out(L"no .NET Framework installed on " + where + L"\n");
    } else {
        std::wstring list;
        for (const auto& v : installed) list += (list.empty() ? L"" : L", ") + v;
        Out(Table({{L"WHERE", where}, {L"NEWEST", highest}, {L"INSTALLED", list}}));
    }
    return 0;
}

const wchar_t* StateName(DWORD state) {
    static const wchar_t* const names[] = {L"not installed",   L"stopped",       L"start pending", L"stop pending",
                                           L"running",         L"continue pending", L"pause pending", L"paused"};
    return state < 8 ? names[state] : L"unknown";
}

int ToolsStatus(const Args& args) {
    DWORD state = 0;
    if (DWORD rc = CheckVMToolStatus(&state)) return Fail(L"CheckVMToolStatus", rc);
    if (HasFlag(args, L"--json"))
        Out(L"{\"service\": \"VMTools\", \"state\": " + Num(state) + L", \"status\": " + JsonString(StateName(state)) +
            L"}\n");
    else
        Out(Table({{L"SERVICE", L"VMTools"}, {L"STATUS", StateName(state)}}));
    return 0;
}

int Vddk(const Args& args) {
    std::wstring version, library;
    const DWORD rc = GetVddkVersion(version, &library);
    if (rc != ERROR_SUCCESS && rc != ERROR_PRODUCT_UNINSTALLED) return Fail(L"GetVddkVersion", rc);
    if (HasFlag(args, L"--json"))
        Out(L"{\"version\": " + (version.empty() ? std::wstring(L"null") : JsonString(version)) + L", \"library\": " +
            (library.empty() ? std::wstring(L"null") : JsonString(library)) + L"}\n");
    else if (rc)
        Out(L"VDDK is not installed\n");
    else
        Out(Table({{L"VERSION", version}, {L"LIBRARY", library}}));
    return 0;
}

}  // namespace

int CmdVmware(const Args& args) {
    const auto pos = Positionals(args, {});
    const std::wstring sub = pos.empty() ? L"" : pos[0];
    if (sub == L"guest-id") return GuestId(pos, args);
    if (sub == L"dotnet") return DotNet(pos, args);
    if (sub == L"tools-status") return ToolsStatus(args);
    if (sub == L"vddk") return Vddk(args);
    Err(std::wstring(L"usage: ") + kVmwareUsage + L"\n");
    return 2;
}

}  // namespace kxha
