// kxha iscsi: the host's initiator name, the targets a portal serves,
// attaching a target and logging out, through the library's iSCSI exports.
#include <windows.h>

#include "KestrixHA/iscsi.h"
#include "commands.h"
#include "output.h"

namespace kxha {

namespace {

// What a failure means where the system's text says too little.
const wchar_t* Meaning(DWORD rc, const wchar_t* invalid) {
    if (rc == ERROR_INVALID_PARAMETER) return invalid;
    if (rc == ERROR_MOD_NOT_FOUND) return L"this host has no iSCSI initiator (iscsidsc.dll)";
    return nullptr;
}

int Iqn(bool json) {
    DWORD chars = 0;
    DWORD rc = GetIqnNumber(nullptr, &chars);
    std::wstring name(chars ? chars : 1, L'\0');
    if (rc == ERROR_INSUFFICIENT_BUFFER) rc = GetIqnNumber(name.data(), &chars);
    if (rc != ERROR_SUCCESS && rc != ERROR_INVALID_DATA) return Fail(L"GetIqnNumber", rc, Meaning(rc, nullptr));
    name.resize(rc == ERROR_SUCCESS || chars < name.size() ? chars : 0);
    if (rc == ERROR_INVALID_DATA)
        return Fail(L"GetIqnNumber", rc, (L"the initiator's node name is not valid: \"" + name + L"\"").c_str());
    Out(json ? L"{\"iqn\": " + JsonString(name) + L"}\n" : name + L"\n");
    return 0;
}

std::wstring Pad(const std::wstring& s, size_t width) {
    return s.size() >= width ? s + L"  " : s + std::wstring(width - s.size() + 2, L' ');
}

int Discover(const std::wstring& portal, bool json) {
    std::vector<IscsiTargetInfo> targets;
    if (DWORD rc = DiscoverTarget(portal.c_str(), &targets))
        return Fail(L"DiscoverTarget", rc, Meaning(rc, L"not a portal address"));
    std::wstring o;
    if (json) {
        o = L"[";
        for (size_t i = 0; i < targets.size(); ++i) {
            const auto& t = targets[i];
            o += (i ? L",\n " : L"") + std::wstring(L"{\"name\": ") + JsonString(t.name) +
                 L", \"authority\": " + JsonString(t.authority) + L", \"nutanix\": " +
                 (t.nutanix ? L"true" : L"false") + L", \"viaPortal\": " + (t.viaPortal ? L"true" : L"false") +
                 L"}";
        }
        Out(o + L"]\n");
        return 0;
    }
    size_t width = 6;
    for (const auto& t : targets) width = t.name.size() > width ? t.name.size() : width;
    o = Pad(L"TARGET", width) + L"NUTANIX  THIS PORTAL\n";
    for (const auto& t : targets)
        o += Pad(t.name, width) + Pad(t.nutanix ? L"yes" : L"no", 7) + (t.viaPortal ? L"yes" : L"no") + L"\n";
    Out(targets.empty() ? L"no targets\n" : o);
    return 0;
}

int Attach(const std::wstring& target, const std::wstring& portal, bool json) {
    IscsiAttachInfo info;
    if (DWORD rc = AttachIscsiTarget(target.c_str(), portal.empty() ? nullptr : portal.c_str(), &info))
        return Fail(L"AttachIscsiTarget", rc,
                    rc == ERROR_NOT_FOUND ? L"the target is no longer reported"
                                          : Meaning(rc, L"not an iSCSI name or portal address"));
    if (json)
        Out(L"{\"session\": " + JsonString(info.sessionId) + L", \"disks\": " + JsonList(info.disks) +
            L", \"logins\": " + Num(info.tries) + L"}\n");
    else {
        std::wstring o = L"session " + info.sessionId + (info.tries ? L"" : L" (already attached)") + L"\n";
        for (const auto& d : info.disks) o += L"disk    " + d + L"\n";
        Out(o);
    }
    return 0;
}

int Logout(const std::wstring& what, bool json) {
    DWORD count = 0;
    if (DWORD rc = LogoutIscsiSession(what.c_str(), &count))
        return Fail(L"LogoutIscsiSession", rc, Meaning(rc, L"neither a session id nor an iSCSI name"));
    Out(json ? L"{\"loggedOut\": " + Num(count) + L"}\n"
             : (count ? Num(count) + L" session(s) logged out\n" : L"no session to log out\n"));
    return 0;
}

}  // namespace

int CmdIscsi(const Args& args) {
    const auto pos = Positionals(args, {L"--portal"});
    const bool json = HasFlag(args, L"--json");
    const std::wstring verb = pos.empty() ? L"" : pos[0];
    if (verb == L"iqn" && pos.size() == 1) return Iqn(json);
    if (verb == L"discover" && pos.size() == 2) return Discover(pos[1], json);
    if (verb == L"attach" && pos.size() == 2) return Attach(pos[1], Option(args, L"--portal"), json);
    if (verb == L"logout" && pos.size() == 2) return Logout(pos[1], json);
    Err(std::wstring(L"usage: ") + kIscsiUsage + L"\n");
    return 2;
}

}  // namespace kxha
