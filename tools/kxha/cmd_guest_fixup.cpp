// kxha guest diff / fixup: what differs between two hive files, and the
// whole off-line repair of a guest with the table of what it changed.
#include "commands.h"
#include "guest_fixup.h"
#include "output.h"

namespace kxha {

int GuestDiff(const std::vector<std::wstring>& pos, const Args& args) {
    std::vector<HiveChange> changes;
    std::wstring what;
    if (DWORD rc = DiffHiveFiles(pos[1], pos[2], &changes, &what)) return Fail(what, rc, HiveErrorText(rc));
    if (HasFlag(args, L"--json"))
        Out(L"{\"a\": " + JsonString(pos[1]) + L", \"b\": " + JsonString(pos[2]) + L", \"count\": " +
            Num(changes.size()) + L", \"changes\": " + ChangesJson(changes) + L"}\n");
    else
        Out(ChangeTable(changes));
    return 0;
}

int GuestFixup(const std::vector<std::wstring>& pos, const Args& args) {
    const auto target = TargetByName(Option(args, L"--target"));
    FixupPlan plan;
    plan.windows = pos[1];
    plan.hostName = Option(args, L"--hostname");
    plan.rdp = HasFlag(args, L"--rdp");
    plan.bootVolume = Option(args, L"--boot-volume");
    plan.uefi = HasFlag(args, L"--uefi");
    if (!target || (plan.uefi && plan.bootVolume.empty())) {
        Err(std::wstring(L"usage: ") + kGuestUsage + L"\n");
        return 2;
    }
    plan.targetType = target->type;
    plan.ec2 = target->ec2;
    return ReportFixup(RunGuestFixup(plan));
}

}  // namespace kxha
