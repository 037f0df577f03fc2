#include "guest_fixup.h"

#include <functional>
#include <memory>

#include "KestrixHA.h"
#include "commands.h"
#include "output.h"
#include "owners.h"

namespace kxha {

namespace {

std::wstring Joined(std::wstring folder, const std::wstring& rest) {
    if (folder.empty() || (folder.back() != L'\\' && folder.back() != L'/')) folder += L'\\';
    return folder + rest;
}

// A folder of the host's temp folder, removed with what it holds.
class ScratchFolder {
public:
    ScratchFolder() {
        wchar_t tmp[MAX_PATH];
        ::GetTempPathW(MAX_PATH, tmp);
        path_ = std::wstring(tmp) + L"kxha-fixup-" + Num(::GetCurrentProcessId()) + L"-" + Num(::GetTickCount64());
        made_ = ::CreateDirectoryW(path_.c_str(), nullptr) != FALSE;
        if (!made_) error_ = ::GetLastError();
    }
    ~ScratchFolder() {
        if (made_) DestroyDirectory(path_.c_str());
    }
    ScratchFolder(const ScratchFolder&) = delete;
    ScratchFolder& operator=(const ScratchFolder&) = delete;
    const std::wstring& path() const { return path_; }
    DWORD error() const { return error_; }

private:
    std::wstring path_;
    bool made_ = false;
    DWORD error_ = 0;
};

using Loader = std::unique_ptr<RegistryHiveLoader>;

struct Step {
    const wchar_t* name;
    std::function<DWORD()> run;
};

}  // namespace

std::optional<FixupTarget> TargetByName(const std::wstring& name) {
    static const struct {
        const wchar_t* name;
        FixupTarget target;
    } targets[] = {{L"hyperv", {0, false}}, {L"vmware", {1, false}}, {L"ec2", {2, true}},
                   {L"xen", {3, false}},    {L"nutanix", {5, false}}};
    for (const auto& t : targets)
        if (name == t.name) return t.target;
    return std::nullopt;
}

FixupResult RunGuestFixup(const FixupPlan& plan) {
    FixupResult result;
    const auto failed = [&](const std::wstring& step, DWORD rc) {
        result.failedStep = step;
        result.rc = rc;
        return result;
    };

    // The hives as they were, to diff against; a missing one is not copied
    // (the load that follows reports it).
    std::vector<HiveChanges> hives = {{L"system", Joined(plan.windows, L"system32\\config\\system"), {}},
                                      {L"software", Joined(plan.windows, L"system32\\config\\software"), {}}};
    if (!plan.bootVolume.empty())
        hives.push_back({L"BCD", Joined(plan.bootVolume, plan.uefi ? L"EFI\\Microsoft\\Boot\\BCD" : L"Boot\\BCD"), {}});
    ScratchFolder scratch;
    if (scratch.error()) return failed(L"making a folder for the copies of the hives", scratch.error());
    std::vector<bool> copied;
    for (const HiveChanges& h : hives) {
        const bool present = ::GetFileAttributesW(h.path.c_str()) != INVALID_FILE_ATTRIBUTES;
        if (present && !::CopyFileW(h.path.c_str(), (scratch.path() + L"\\" + h.name).c_str(), FALSE))
            return failed(L"copying the hives aside", ::GetLastError());
        copied.push_back(present);
    }

    {
        Loader system, software;
        const std::wstring& dir = plan.windows;
        DWORD rc;
        if ((rc = GetSystemHiveKeyEx(dir, Put(system)))) return failed(L"GetSystemHiveKeyEx", rc);
        if (plan.repair && (rc = GetSoftwareHiveKeyEx(dir, Put(software))))
            return failed(L"GetSoftwareHiveKeyEx", rc);
        BYTE changed = 0;
        if (!plan.helperSource.empty() &&
            (rc = Ivm_InjectHelperServiceToHiveEx(dir, plan.helperSource, system.get())))
            return failed(L"Ivm_InjectHelperServiceToHiveEx", rc);
        const Step steps[] = {
            {plan.ec2 ? L"InjectDriverForEC2Ex" : L"InjectIDEDriverEx",
             [&] {
                 return plan.ec2 ? InjectDriverForEC2Ex(dir, system.get())
                                 : InjectIDEDriverEx(dir, system.get(), software.get());
             }},
            {L"RVCM_EnableVirtualPlatformServicesEx",
             [&] { return RVCM_EnableVirtualPlatformServicesEx(dir, plan.targetType, nullptr, system.get(), software.get()); }},
            {L"EnableTerminalService",
             [&] { return plan.rdp ? EnableTerminalService(dir, system.get(), software.get()) : DWORD{0}; }},
            {L"DisableDynamicUpdate", [&] { return DisableDynamicUpdate(dir, system.get(), &changed); }},
        };
        for (const Step& s : steps)
            if (plan.repair && (rc = s.run())) return failed(s.name, rc);
    }  // both hives unloaded: the changes are in the files

    DWORD rc;
    if (!plan.hostName.empty() && (rc = ChangeProductionHostName(plan.windows, plan.hostName)))
        return failed(L"ChangeProductionHostName", rc);
    if (!plan.bootVolume.empty() && (rc = EnableVMBootInSafeBoot(plan.bootVolume, plan.windows, plan.uefi ? 1 : 0)))
        return failed(L"EnableVMBootInSafeBoot", rc);

    for (size_t i = 0; i < hives.size(); ++i) {
        if (!copied[i]) continue;
        std::wstring what;
        if ((rc = DiffHiveFiles(scratch.path() + L"\\" + hives[i].name, hives[i].path, &hives[i].changes, &what)))
            return failed(what, rc);
        result.hives.push_back(std::move(hives[i]));
    }
    return result;
}

int ReportFixup(const FixupResult& r) {
    if (!r.failedStep.empty()) return Fail(r.failedStep, r.rc, HiveErrorText(r.rc));
    std::wstring o;
    for (const HiveChanges& h : r.hives)
        o += (o.empty() ? L"" : L"\n") + h.name + L" hive " + h.path + L": " + Num(h.changes.size()) + L" changes\n" +
             ChangeTable(h.changes, 2);
    Out(o);
    return 0;
}

}  // namespace kxha
