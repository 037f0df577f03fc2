// kxha vss snapshot: a shadow-copy set of the named volumes through
// MVCM_CreateVssMgr, shown and then removed (or, with --keep, left on the
// system). It shows whether the host can make the shadow copies a
// conversion of its live volumes needs.
#include <windows.h>
#include <objbase.h>

#include "KestrixHA/vss.h"
#include "commands.h"
#include "output.h"
#include "owners.h"

namespace kxha {
namespace {

std::wstring GuidText(const GUID& id) {
    wchar_t text[40] = {};
    ::StringFromGUID2(id, text, 40);
    return text;
}

int Snapshot(const Args& args) {
    const std::vector<std::wstring> pos = Positionals(args, {});
    if (pos.size() < 2) {
        Err(L"usage: kxha vss snapshot <volume or path>... [--keep] [--json]\n");
        return 2;
    }
    const std::vector<std::wstring> volumes(pos.begin() + 1, pos.end());
    const bool keep = HasFlag(args, L"--keep");
    const HRESULT com = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    // Writers call back into the requester; it must accept their calls.
    ::CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_PKT_PRIVACY, RPC_C_IMP_LEVEL_IDENTIFY,
                           nullptr, EOAC_NONE, nullptr);
    int status = 0;
    {
        VssManager mgr;  // released before COM is left
        DWORD rc = MVCM_CreateVssMgr(Put(mgr));
        if (rc == 0) mgr->KeepSnapshotSet(keep);
        if (rc == 0) rc = mgr->CreateSnapshotSet(volumes);
        GUID setId{};
        std::vector<VssSnapshotInfo> snaps;
        if (rc == 0) rc = mgr->GetSnapshotSetId(&setId);
        if (rc == 0) rc = mgr->GetSnapshots(snaps);
        if (rc != 0) {
            status = Fail(L"making the snapshot set", rc);
        } else if (HasFlag(args, L"--json")) {
            std::wstring list;
            for (const auto& s : snaps)
                list += std::wstring(list.empty() ? L"" : L", ") + L"{\"volume\": " + JsonString(s.volume) +
                        L", \"device\": " + JsonString(s.shadowDevice) + L", \"snapshot\": " +
                        JsonString(GuidText(s.snapshotId)) + L"}";
            Out(L"{\"set\": " + JsonString(GuidText(setId)) + L", \"kept\": " + (keep ? L"true" : L"false") +
                L", \"volumes\": [" + list + L"]}\n");
        } else {
            Out(L"snapshot set " + GuidText(setId) + L"\n");
            for (const auto& s : snaps)
                Out(L"  " + s.volume + L"  " + s.shadowDevice + L"  " + GuidText(s.snapshotId) + L"\n");
            Out(keep ? L"the set is left on the system\n" : L"the set is removed\n");
        }
    }
    if (SUCCEEDED(com)) ::CoUninitialize();
    return status;
}

}  // namespace

int CmdVss(const Args& args) {
    if (!args.empty() && args[0] == L"snapshot") return Snapshot(args);
    Err(std::wstring(L"usage: ") + kVssUsage + L"\n");
    return 2;
}

}  // namespace kxha
