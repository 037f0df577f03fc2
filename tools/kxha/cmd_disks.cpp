// kxha disks: the host's on-line disks and volumes as the disk service
// sees them, and the check that disk identities about to be attached are
// not on line already.
#include <windows.h>

#include "KestrixHA/disk_vds.h"
#include "commands.h"
#include "disks_view.h"
#include "output.h"

namespace kxha {

namespace {

int List(const Args& args) {
    std::vector<VdsDiskRecord> disks;
    std::vector<VdsVolumeRecord> volumes;
    const DWORD rc = GetOnlineDisksAndVolumes(disks, volumes);
    if (rc != 0) return Fail(L"GetOnlineDisksAndVolumes", rc, rc == kNoCode ? L"the disk service could not be started" : nullptr);
    Out(HasFlag(args, L"--json") ? DisksJson(disks, volumes) : DisksTable(disks, volumes));
    return 0;
}

// Exit 0 when none of the identities is on line, 3 when one is (or the
// check could not be made).
int CheckSignature(const Args& args) {
    const std::vector<std::wstring> ids = Positionals(Args(args.begin() + 1, args.end()), {});
    if (ids.empty()) {
        Err(std::wstring(L"usage: ") + kDisksUsage + L"\n");
        return 2;
    }
    const bool free = CheckDiskSignatureConflict(ids) == 1;
    if (HasFlag(args, L"--json"))
        Out(std::wstring(L"{\"identities\": ") + JsonList(ids) + L", \"free\": " + (free ? L"true" : L"false") + L"}\n");
    else
        Out(free ? L"no on-line disk carries these identities\n"
                 : L"conflict: an on-line disk carries one of these identities (or the check could not be made)\n");
    return free ? 0 : 3;
}

struct Subcommand {
    const wchar_t* name;
    int (*run)(const Args& args);
};

// One row per sub-command; `kxha disks` alone (or with flags only) lists.
const Subcommand kSubcommands[] = {
    {L"list", List},
    {L"check-signature", CheckSignature},
    {L"file-attrs", [](const Args& args) { return RunDisksFileAttrs(Args(args.begin() + 1, args.end())); }},
    {L"raw", [](const Args& args) { return RunDisksRaw(Args(args.begin() + 1, args.end())); }},
};

}  // namespace

int CmdDisks(const Args& args) {
    if (args.empty() || args[0].rfind(L"--", 0) == 0) return List(args);
    for (const Subcommand& s : kSubcommands)
        if (args[0] == s.name) return s.run(args);
    Err(std::wstring(L"usage: ") + kDisksUsage + L"\n");
    return 2;
}

}  // namespace kxha
