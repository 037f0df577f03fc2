// kxha lock / merges / intact / vcm: session coordination.
#include <cwchar>

#include "KestrixHA.h"
#include "commands.h"
#include "output.h"
#include "owners.h"

namespace kxha {

namespace {
std::wstring NumList(const std::vector<unsigned long>& v, bool json) {
    std::wstring o = json ? L"[" : L"";
    for (size_t i = 0; i < v.size(); ++i) o += (i ? (json ? L", " : L" ") : L"") + Num(v[i]);
    return json ? o + L"]" : o;
}
}  // namespace

int CmdLock(const Args& args) {
    const auto pos = Positionals(args, {L"--hold"});
    if (pos.size() < 3) {
        Err(L"usage: kxha lock <root> <begin> <end> [--manual] [--hold SECONDS] [--json]\n");
        return 2;
    }
    const bool json = HasFlag(args, L"--json");
    const int begin = _wtoi(pos[1].c_str()), end = _wtoi(pos[2].c_str());
    if (begin > end) {
        Err(L"kxha lock: the range " + pos[1] + L".." + pos[2] + L" is reversed; give the lower session first\n");
        return 2;
    }
    const DWORD hold = wcstoul(Option(args, L"--hold", L"0").c_str(), nullptr, 10);
    SessionLock lock;
    const DWORD rc = HA_LockZekSessions(pos[0].c_str(), begin, end, Put(lock), HasFlag(args, L"--manual") ? 1 : 0);
    if (rc == HA_E_SESSIONS_UNDER_MERGE) {
        Err(L"error: sessions " + pos[1] + L".." + pos[2] + L" reach into a merge in progress (rc = 0xF0000001)\n");
        return 1;
    }
    if (rc) return Fail(L"locking sessions " + pos[1] + L".." + pos[2] + L" of " + pos[0], rc);
    if (json)
        Out(L"{\"locked\": true, \"root\": " + JsonString(pos[0]) + L", \"begin\": " + pos[1] + L", \"end\": " + pos[2] +
            L", \"hold_seconds\": " + Num(hold) + L"}\n");
    else
        Out(L"Locked sessions " + pos[1] + L".." + pos[2] + L" of " + pos[0] +
            (hold ? L"; holding for " + Num(hold) + L" s" : std::wstring()) + L"\n");
    if (hold) ::Sleep(hold * 1000);
    lock.reset();
    if (!json) Out(L"Unlocked\n");
    return 0;
}

int CmdMerges(const Args& args) {
    const auto pos = Positionals(args, {});
    if (pos.empty()) {
        Err(L"usage: kxha merges <root> [--json]\n");
        return 2;
    }
    std::vector<DWORD> sessions;
    if (DWORD rc = MVCM_GetMergeSessions(pos[0].c_str(), sessions)) return Fail(L"MVCM_GetMergeSessions", rc);
    std::vector<unsigned long> v(sessions.begin(), sessions.end());
    if (HasFlag(args, L"--json"))
        Out(L"{\"merging\": " + NumList(v, true) + L"}\n");
    else
        Out(v.empty() ? L"No merge in progress\n"
                      : L"Sessions under merge: " + NumList(v, false) + L" (the last is the one they fold into)\n");
    return 0;
}

int CmdIntact(const Args& args) {
    const auto pos = Positionals(args, {});
    if (pos.empty()) {
        Err(L"usage: kxha intact <root> [--json]\n");
        return 2;
    }
    IntactList list(nullptr, &MVCM_CloseIntactSessionListHandle);
    if (DWORD rc = MVCM_OpenIntactSessionListHandle(pos[0].c_str(), Put(list)))
        return Fail(L"MVCM_OpenIntactSessionListHandle", rc);
    unsigned count = 0;
    DWORD rc = MVCM_QueryIntactSessionList(list.get(), nullptr, 0, &count);
    std::vector<unsigned> sessions(count);
    if (rc == ERROR_MORE_DATA)
        rc = MVCM_QueryIntactSessionList(list.get(), sessions.data(), static_cast<int>(count), &count);
    list.reset();
    if (rc) return Fail(L"MVCM_QueryIntactSessionList", rc);
    std::vector<unsigned long> v(sessions.begin(), sessions.begin() + count);
    if (HasFlag(args, L"--json"))
        Out(L"{\"intact\": " + NumList(v, true) + L"}\n");
    else
        Out(L"Intact sessions: " + (v.empty() ? std::wstring(L"none") : NumList(v, false)) + L"\n");
    return 0;
}

int CmdVcm(const Args& args) {
    const bool json = HasFlag(args, L"--json");
    if (!args.empty() && args[0] == L"set") {
        VCMConfigure c{};
        if (DWORD rc = ReadVCMConfigure(&c)) return Fail(L"ReadVCMConfigure", rc);
        const std::wstring manual = Option(args, L"--manual");
        if (!manual.empty()) c.manualVCM = manual != L"0";
        const std::wstring folder = Option(args, L"--index-folder", L"\x1");
        if (folder != L"\x1") c.indexFolder = folder;
        if (DWORD rc = WriteVCMConfigure(&c)) return Fail(L"WriteVCMConfigure", rc);
    } else if (args.empty() || args[0] != L"get") {
        Err(L"usage: kxha vcm get|set [--manual 0|1] [--index-folder DIR] [--json]\n");
        return 2;
    }
    VCMConfigure c{};
    if (DWORD rc = ReadVCMConfigure(&c)) return Fail(L"ReadVCMConfigure", rc);
    if (json)
        Out(L"{\"manual_vcm\": " + std::wstring(c.manualVCM ? L"true" : L"false") + L", \"index_folder\": " +
            JsonString(c.indexFolder) + L"}\n");
    else
        Out(L"Manual VCM:   " + std::wstring(c.manualVCM ? L"on" : L"off") + L"\nIndex folder: " +
            (c.indexFolder.empty() ? L"(not used)" : c.indexFolder) + L"\n");
    return 0;
}

}  // namespace kxha
