// kxha hyperv: the Hyper-V book-keeping of the library from the command
// line: which destination a mark file tags, the bytes of the destinations on
// a volume, where a VM's recovery information goes, and the VM's
// pending-delete record.
#include <windows.h>

#include "KestrixHA/hyperv.h"
#include "commands.h"
#include "output.h"

namespace kxha {

namespace {

// Meanings of the library's own codes for these calls.
const wchar_t* Meaning(DWORD rc) {
    switch (rc) {
        case 0xFFFFFFFF: return L"the Hyper-V operations can't be opened on this host";
        case 0xFFFFFFFE: return L"no such VM, or the VM has no .vhd/.avhd/.vhdx/.avhdx disk";
        case ERROR_FILE_NOT_FOUND: return L"no destination holds the mark file";
        default: return nullptr;
    }
}

// Every value of a flag that may be given more than once.
std::vector<std::wstring> Values(const Args& args, const wchar_t* flag) {
    std::vector<std::wstring> out;
    for (size_t i = 0; i + 1 < args.size(); ++i)
        if (args[i] == flag) out.push_back(args[++i]);
    return out;
}

const wchar_t* OrNullText(const std::wstring& s) { return s.empty() ? nullptr : s.c_str(); }

int Mark(const std::vector<std::wstring>& pos, bool json, bool byVm) {
    if (pos.size() != 3) return Fail(L"hyperv mark", ERROR_INVALID_PARAMETER, L"expected <root|vm guid> <mark file>");
    std::wstring dir;
    const DWORD rc = byVm ? GetDirOfMarkFileByVm_HyperV(pos[1], pos[2], dir) : GetDirOfMarkFile_HyperV(pos[1], pos[2], dir);
    if (rc) return Fail(byVm ? L"GetDirOfMarkFileByVm_HyperV" : L"GetDirOfMarkFile_HyperV", rc, Meaning(rc));
    Out(json ? L"{\"markFile\": " + JsonString(pos[2]) + L", \"root\": " + JsonString(dir) + L"}\n" : dir + L"\n");
    return 0;
}

int OffcopySize(const std::vector<std::wstring>& pos, bool json) {
    if (pos.size() != 2) return Fail(L"hyperv offcopy-size", ERROR_INVALID_PARAMETER, L"expected <root>");
    ULONGLONG total = 0;
    if (DWORD rc = GetOffcopySize_HyperV(pos[1].c_str(), &total)) return Fail(L"GetOffcopySize_HyperV", rc);
    Out(json ? L"{\"root\": " + JsonString(pos[1]) + L", \"bytes\": " + Num(total) + L"}\n"
             : Num(total) + L" bytes in the destinations on the volume of " + pos[1] + L"\n");
    return 0;
}

// One path export, through its size protocol: ask, then fetch.
DWORD FetchPath(DWORD (*call)(const wchar_t*, const wchar_t*, wchar_t*, DWORD*), const std::wstring& name,
                const std::wstring& guid, std::wstring& path) {
    DWORD chars = 0;
    DWORD rc = call(OrNullText(name), guid.c_str(), nullptr, &chars);
    if (rc != ERROR_INSUFFICIENT_BUFFER) return rc ? rc : ERROR_INVALID_DATA;
    std::vector<wchar_t> buf(chars);
    if ((rc = call(OrNullText(name), guid.c_str(), buf.data(), &chars)) == 0) path = buf.data();
    return rc;
}

int Paths(const std::vector<std::wstring>& pos, const Args& args, bool json) {
    if (pos.size() != 2) return Fail(L"hyperv paths", ERROR_INVALID_PARAMETER, L"expected <vm guid>");
    const std::wstring name = Option(args, L"--name");
    std::wstring drInfo, adrInfoC;
    if (DWORD rc = FetchPath(&GetDrInfoLocalCopyPathForSnapNow_HyperV, name, pos[1], drInfo))
        return Fail(L"GetDrInfoLocalCopyPathForSnapNow_HyperV", rc, Meaning(rc));
    if (DWORD rc = FetchPath(&GetAdrInfoCLocalCopyPathForSnapNow_HyperV, name, pos[1], adrInfoC))
        return Fail(L"GetAdrInfoCLocalCopyPathForSnapNow_HyperV", rc, Meaning(rc));
    Out(json ? L"{\"vm\": " + JsonString(pos[1]) + L", \"drInfo\": " + JsonString(drInfo) + L", \"adrInfoC\": " +
                   JsonString(adrInfoC) + L"}\n"
             : L"recovery information: " + drInfo + L"\nAdrInfoC:             " + adrInfoC + L"\n");
    return 0;
}

std::wstring PairsJson(const std::vector<PendingDiskPair>& pairs) {
    std::wstring o = L"[";
    for (size_t i = 0; i < pairs.size(); ++i)
        o += (i ? L", " : L"") + std::wstring(L"{\"base\": ") + JsonString(pairs[i].first) + L", \"differencing\": " +
             JsonString(pairs[i].second) + L"}";
    return o + L"]";
}

int Record(const std::vector<std::wstring>& pos, const Args& args, bool json) {
    if (pos.size() != 3) return Fail(L"hyperv record", ERROR_INVALID_PARAMETER, L"expected show|add|replay <vm guid>");
    const std::wstring& verb = pos[1];
    const std::wstring& vm = pos[2];
    const std::wstring dataFolder = Option(args, L"--data-folder");
    if (verb == L"add") {
        std::vector<PendingDiskPair> pairs;
        for (const auto& p : Values(args, L"--pair")) {
            const size_t bar = p.find(L'|');
            if (bar == std::wstring::npos)
                return Fail(L"hyperv record add", ERROR_INVALID_PARAMETER, L"a pair is given as BASE|DIFFERENCING");
            pairs.emplace_back(p.substr(0, bar), p.substr(bar + 1));
        }
        if (DWORD rc = KxAddPendingDelRecord(vm.c_str(), OrNullText(dataFolder), Values(args, L"--folder"), pairs))
            return Fail(L"KxAddPendingDelRecord", rc,
                        rc == ERROR_INVALID_PARAMETER ? L"a pair must be x.vhd with x_00000000-0000-0000-0000-"
                                                        L"000000000000.avhd, or the same with .vhdx/.avhdx"
                                                      : Meaning(rc));
    } else if (verb == L"replay") {
        DWORD removed = 0, pending = 0;
        if (DWORD rc = KxReplayPendingDelRecord(vm.c_str(), OrNullText(dataFolder), HasFlag(args, L"--without-hyperv"),
                                                &removed, &pending))
            return Fail(L"KxReplayPendingDelRecord", rc, Meaning(rc));
        Out(json ? L"{\"removed\": " + Num(removed) + L", \"pending\": " + Num(pending) + L"}\n"
                 : Num(removed) + L" removed, " + Num(pending) + L" still pending\n");
        return 0;
    } else if (verb != L"show") {
        return Fail(L"hyperv record", ERROR_INVALID_PARAMETER, (L"unknown record command " + verb).c_str());
    }
    std::vector<std::wstring> folders;
    std::vector<PendingDiskPair> pairs;
    if (DWORD rc = KxReadPendingDelRecord(vm.c_str(), OrNullText(dataFolder), folders, pairs))
        return Fail(L"KxReadPendingDelRecord", rc, Meaning(rc));
    if (json) {
        Out(L"{\"folders\": " + JsonList(folders) + L", \"pairs\": " + PairsJson(pairs) + L"}\n");
        return 0;
    }
    std::wstring o;
    for (const auto& f : folders) o += L"folder " + f + L"\n";
    for (const auto& [base, diff] : pairs) o += L"pair   " + base + L" | " + diff + L"\n";
    Out(o.empty() ? L"nothing pending\n" : o);
    return 0;
}

}  // namespace

int CmdHyperV(const Args& args) {
    const bool json = HasFlag(args, L"--json");
    const auto pos = Positionals(args, {L"--name", L"--data-folder", L"--folder", L"--pair"});
    const std::wstring sub = pos.empty() ? L"" : pos[0];
    if (sub == L"mark") return Mark(pos, json, false);
    if (sub == L"mark-vm") return Mark(pos, json, true);
    if (sub == L"offcopy-size") return OffcopySize(pos, json);
    if (sub == L"paths") return Paths(pos, args, json);
    if (sub == L"record") return Record(pos, args, json);
    Err(L"usage: kxha hyperv mark|mark-vm|offcopy-size|paths|record ...; see 'kxha hyperv --help'\n");
    return 2;
}

}  // namespace kxha
