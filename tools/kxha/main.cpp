#include <windows.h>

#include <cstdio>
#include <cwchar>

#include "commands.h"
#include "common/unique_resource.h"

namespace kxha {

const std::vector<Command>& Commands() {
    static const std::vector<Command> commands = {
        {L"bitmap", L"prepare, list, check, remove and read session bitmaps",
         L"kxha bitmap <subcommand> ... [--json]\n\n"
         L"  create <destination> [--bitmap-root DIR] [--regen]   prepare bitmaps of the new sessions\n"
         L"  list <path>                        prepared sessions of every destination of a path\n"
         L"  disks <path> <session>             bitmap files of a prepared session\n"
         L"  check <root> <session>             does a prepared session match its session folder\n"
         L"  delete <path> [session]            remove prepared sessions up to and including session\n"
         L"  obsolete <path> <begin> <end>      remove bitmaps made obsolete by a full session\n"
         L"  show <file> [--max-extents N]      header, set sectors and extents of a bitmap file\n"
         L"  union <disk file> <lowest session> changed sectors of a disk across sessions",
         CmdBitmap},
        {L"lock", L"lock a session range against the agent's merges",
         L"kxha lock <root> <begin> <end> [--manual] [--hold SECONDS] [--json]", CmdLock},
        {L"merges", L"sessions under merge in a destination", L"kxha merges <root> [--json]", CmdMerges},
        {L"intact", L"sessions a conversion may use", L"kxha intact <root> [--json]", CmdIntact},
        {L"vcm", L"show or change the manual conversion configuration",
         L"kxha vcm get|set [--manual 0|1] [--index-folder DIR] [--json]", CmdVcm},
        {L"demo", L"run a virtual-standby cycle and a guest repair on demo data",
         L"kxha demo [folder] [--guest-only] [--guest-data DIR] [--json]\n\n"
         L"  --guest-only      only the guest stage: repair the demo guest for Hyper-V and check it\n"
         L"  --guest-data DIR  the demo guest's hives and hal.dll (default: demo-data next to kxha.exe)",
         CmdDemo},
        {L"guest", L"read, compare and repair an offline Windows guest's registry hives", kGuestUsage, CmdGuest},
        {L"version", L"show the library's version resource", L"kxha version [--json]", CmdVersion},
        {L"log", L"show where the debug log is and its last lines", L"kxha log [--lines N] [--json]", CmdLog},
        {L"hyperv", L"mark files, destination sizes, recovery paths and pending deletes of Hyper-V VMs",
         L"kxha hyperv <subcommand> ... [--json]\n\n"
         L"  mark <root> <mark file>               the destination root that holds the mark file\n"
         L"  mark-vm <vm guid> <mark file>         the same, from the destinations of the VM's snapshots\n"
         L"  offcopy-size <root>                   bytes in the destinations on the root's volume\n"
         L"  paths <vm guid> [--name NAME]         where the VM's recovery information is copied\n"
         L"  record show <vm guid> [--data-folder DIR]\n"
         L"  record add <vm guid> [--data-folder DIR] [--folder DIR]... [--pair BASE|DIFFERENCING]...\n"
         L"  record replay <vm guid> [--data-folder DIR] [--without-hyperv]\n\n"
         L"record works on <data folder>\\<vm guid>_vcm_to_del.ini; add prints the record afterwards.\n"
         L"Without --data-folder the folder comes from Hyper-V. replay removes what the record names\n"
         L"unless the VM still uses it;\n"
         L"--without-hyperv (with --data-folder) skips that check: only files held open are kept.",
         CmdHyperV},
        {L"host", L"the host's network adapters, facts and name resolution; adapter changes", kHostUsage, CmdHost},
        {L"disk", L"show a VHD or VHDX disk's geometry and boot sector; repair them for Hyper-V", kDiskUsage, CmdDisk},
        {L"iso", L"build an ISO image (ISO 9660 + Joliet) of a folder", kIsoUsage, CmdIso},
        {L"vss", L"make a shadow-copy set of host volumes, show its devices, remove it", kVssUsage, CmdVss},
        {L"vmware", L"VMware guest identifiers, .NET versions, VMware Tools state, VDDK version", kVmwareUsage, CmdVmware},
        {L"disks", L"the host's on-line disks and volumes; disk identity conflicts", kDisksUsage, CmdDisks},
        {L"iscsi", L"the initiator's IQN, target discovery, attach and logout", kIscsiUsage, CmdIscsi},
    };
    return commands;
}

namespace {
void Write(FILE* f, const std::wstring& text) {
    int n = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr, nullptr);
    std::string s(n, '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), s.data(), n, nullptr, nullptr);
    fwrite(s.data(), 1, s.size(), f);
    fflush(f);
}

int Usage() {
    std::wstring text = L"usage: kxha <command> [options]\n\ncommands:\n";
    for (const auto& c : Commands()) {
        wchar_t line[256];
        swprintf(line, 256, L"  %-10ls %ls\n", c.name, c.summary);
        text += line;
    }
    text += L"\n'kxha <command> --help' shows a command's options.\n";
    Out(text);
    return 0;
}
}  // namespace

void Out(const std::wstring& text) { Write(stdout, text); }
void Err(const std::wstring& text) { Write(stderr, text); }

int Fail(const std::wstring& what, unsigned long code, const wchar_t* meaning) {
    kx::unique_hlocal sys;
    if (!meaning)
        ::FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
                         nullptr, code, 0, reinterpret_cast<wchar_t*>(sys.put()), 0, nullptr);
    std::wstring text = meaning ? meaning : sys ? static_cast<const wchar_t*>(sys.get()) : L"no system text for this code";
    while (!text.empty() && (text.back() == L'\n' || text.back() == L'\r' || text.back() == L' ')) text.pop_back();
    wchar_t head[64];
    swprintf(head, 64, L"%lu (0x%08lX)", code, code);
    Err(L"error: " + what + L" failed, rc = " + head + L": " + text + L"\n");
    return 1;
}

bool HasFlag(const Args& args, const wchar_t* flag) {
    for (const auto& a : args)
        if (a == flag) return true;
    return false;
}

}  // namespace kxha

int wmain(int argc, wchar_t** argv) {
    using namespace kxha;
    if (argc < 2 || !wcscmp(argv[1], L"--help") || !wcscmp(argv[1], L"-h") || !wcscmp(argv[1], L"help"))
        return argc < 2 ? (Usage(), 2) : Usage();
    Args args(argv + 2, argv + argc);
    for (const auto& c : Commands()) {
        if (c.name != std::wstring(argv[1])) continue;
        if (HasFlag(args, L"--help") || HasFlag(args, L"-h")) {
            Out(std::wstring(L"usage: ") + c.usage + L"\n\n" + c.summary + L"\n");
            return 0;
        }
        return c.run(args);
    }
    Err(std::wstring(L"kxha: unknown command '") + argv[1] + L"'; see 'kxha --help'\n");
    return 2;
}
