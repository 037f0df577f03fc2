#include "guestfix/platform_services.h"

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

#include "common/wstring_format.h"
#include "log/call_frame.h"
#include "log/debug_log.h"

namespace kx::guestfix {

namespace {

using hostutil::RegistryKey;

struct ServiceStart {
    const wchar_t* name;
    DWORD start;  // when the platform is the target
};
using Table = std::vector<ServiceStart>;

// Visited in ascending type order. Types 2 and 3 differ in "xennet" (boot
// start on EC2, manual on plain Xen) and in the trailing "Ec2Config".
const std::map<int32_t, Table>& Tables() {
    static const std::map<int32_t, Table> tables{
        {0,
         {{L"vmickvpexchange", 2},
          {L"vmicshutdown", 2},
          {L"vmicheartbeat", 2},
          {L"vmictimesync", 2},
          {L"vmicvss", 2},
          {L"vmicrdv", 3}}},
        {1, {{L"VMware Physical Disk Helper Service", 2}, {L"vmvss", 3}, {L"VMTools", 2}, {L"VMUpgradeHelper", 2}}},
        {2,
         {{L"InstallAgent", 3},
          {L"xenagent", 2},
          {L"xenbus", 0},
          {L"xenbus_monitor", 2},
          {L"xendisk", 0},
          {L"xenfilt", 0},
          {L"xeniface", 3},
          {L"xennet", 0},
          {L"xensvc", 2},
          {L"xenvbd", 0},
          {L"xenvif", 3},
          {L"Ec2Config", 2}}},
        {3,
         {{L"InstallAgent", 3},
          {L"xenagent", 2},
          {L"xenbus", 0},
          {L"xenbus_monitor", 2},
          {L"xendisk", 0},
          {L"xenfilt", 0},
          {L"xeniface", 3},
          {L"xennet", 3},
          {L"xensvc", 2},
          {L"xenvbd", 0},
          {L"xenvif", 3}}},
        {5, {{L"Nutanix Guest Agent", 2}, {L"Nutanix Self Service Restore Gateway", 2}}},
    };
    return tables;
}

constexpr int32_t kPlainXen = 3;
constexpr const wchar_t* kAgentService = L"QZSAZekWebSvc";
constexpr const wchar_t* kXenFilterClasses[] = {L"{4d36e96a-e325-11ce-bfc1-08002be10318}",
                                                L"{4d36e97d-e325-11ce-bfc1-08002be10318}"};

std::wstring JoinList(const std::vector<std::wstring>& items) {
    std::wstring out;
    for (const auto& item : items) out += (out.empty() ? L"" : L";") + item;
    return out;
}

}  // namespace

DWORD SetServiceStartType(const std::wstring& systemDir, const std::wstring& service, DWORD start, BYTE* existed,
                          HiveLoader* system) {
    Log(2, L"SetServiceStartType");
    FixupHive hive;
    if (DWORD rc = hive.Acquire(GuestHive::kSystem, systemDir, system)) return rc;
    std::wstring ccs;
    (void)CurrentControlSet(*hive, &ccs);
    RegistryKey key = hive.Key(L"\\" + ccs + L"\\Services\\" + service);
    DWORD rc = ERROR_SUCCESS;
    if (key) {
        rc = key.SetValue(L"Start", start);
        Log(2, L"SetServiceStartType finished! return value is %d", rc);
    }
    if (existed) *existed = key ? 1 : 0;
    return rc;
}

DWORD CleanSessionCrashFlag(const std::wstring& systemDir, HiveLoader* software) {
    Log(2, L"Clean session crash flag for bootable snapshot.");
    FixupHive hive;
    if (DWORD rc = hive.Acquire(GuestHive::kSoftware, systemDir, software)) return rc;
    RegistryKey key = hive.Key(L"\\Veltrana\\Quillon\\Engine\\KbBackupDll");
    if (!key) {
        Log(2, L"fail to open reg root key to clean session crash flag, try use QZ\\QZ Veltrana Zek\\KbBackupDll.");
        key = hive.Key(L"\\QZ\\QZ Veltrana Zek\\KbBackupDll");
    }
    if (!key) {
        LogErr(0, key.Error(), L"Fail to clean session crash flag: neither agent key opens");
        return key.Error();
    }
    DWORD rc = key.SetValue(L"IsActiveJobCrashed", DWORD{0});
    if (!rc) rc = key.SetValue(L"SessionNumberActiveJobCrashed", DWORD{0});
    if (rc)
        LogErr(0, rc, L"Fail to clean session crash flag");
    else
        Log(2, L"Clean session crash flag successfully.");
    return rc;
}

// Matched without regard to case: the filter names a driver, and driver
// service names are not case-sensitive, so "xenfilt" is the same filter.
// Left in place while its driver is disabled, it would stop the IDE
// controllers (and so the boot disk) from starting. A list left empty is
// removed rather than written empty: the class then reads as one that
// never had upper filters, which every reader of the value understands.
DWORD RemoveXenFilter(const std::wstring& systemDir, HiveLoader* system) {
    Log(2, L"Disable other items for Virtual Platform type(%d).", kPlainXen);
    FixupHive hive;
    if (DWORD rc = hive.Acquire(GuestHive::kSystem, systemDir, system, true)) return rc;
    std::wstring ccs;
    (void)CurrentControlSet(*hive, &ccs);
    DWORD last = ERROR_SUCCESS;
    for (const wchar_t* cls : kXenFilterClasses) {
        RegistryKey key = hive.Key(L"\\" + ccs + L"\\Control\\Class\\" + cls);
        std::vector<std::wstring> before;
        if (DWORD rc = key.GetValue(L"UpperFilters", &before)) {
            Log(0, L"Failed to get UpperFilters. rc = %d.", rc);
            last = rc;
            continue;
        }
        std::vector<std::wstring> after;
        for (const auto& item : before)
            if (!EqualsNoCase(item, L"XENFILT")) after.push_back(item);
        const DWORD rc = after.empty() ? key.DeleteValue(L"UpperFilters") : key.SetValue(L"UpperFilters", after);
        if (rc) {
            Log(0, L"Failed to reset UpperFilters. rc = %d.", rc);
            last = rc;
            continue;
        }
        Log(2, L"Original value is %s, New is %s.", JoinList(before).c_str(), JoinList(after).c_str());
    }
    return last;
}

DWORD EnableVirtualPlatformServices(const std::wstring& systemDir, DWORD targetType, HiveLoader* system,
                                    HiveLoader* software) {
    (void)CleanSessionCrashFlag(systemDir, software);
    Log(2, L"EnableVirtualPlatformServices");
    const int32_t target = static_cast<int32_t>(targetType);
    if (target >= static_cast<int32_t>(kPlatformTypeCount)) {
        Log(2, L"The platform type %d is invalid!", target);
        return ERROR_SUCCESS;
    }
    auto apply = [&](const Table& table, bool enable) {
        for (const ServiceStart& s : table)
            if (SetServiceStartType(systemDir, s.name, enable ? s.start : SERVICE_DISABLED, nullptr, system))
                Log(0, L"SetServiceStartType failed! service name is %s", s.name);
    };
    for (const auto& [type, table] : Tables()) {
        if (type == target) continue;
        Log(2, L"Disable Virtual Platform type(%d) Services.", type);
        apply(table, false);
        if (type == kPlainXen) (void)RemoveXenFilter(systemDir, system);
    }
    if (auto it = Tables().find(target); it != Tables().end()) {
        Log(2, L"Enable Virtual Platform type(%d) Services.", target);
        apply(it->second, true);
    }
    Log(2, L"EnableVirtualPlatformServices Successfully!");
    return ERROR_SUCCESS;
}

DWORD RVCM_EnableVirtualPlatformServices(const std::wstring& systemDir, DWORD targetType) {
    return RunExport<kRVCM_EnableVirtualPlatformServices>([&](auto&) -> DWORD {
        return EnableVirtualPlatformServices(systemDir, targetType, nullptr, nullptr);
    });
}

DWORD RVCM_EnableVirtualPlatformServicesEx(const std::wstring& systemDir, DWORD targetType, HiveLoader* system,
                                           HiveLoader* software) {
    return RunExport<kRVCM_EnableVirtualPlatformServicesEx>([&](auto&) -> DWORD {
        return EnableVirtualPlatformServices(systemDir, targetType, system, software);
    });
}

DWORD DisableZekAgentService(const std::wstring& systemDir, BYTE* existed) {
    return RunExport<kDisableZekAgentService>([&](auto&) -> DWORD {
        return SetServiceStartType(systemDir, kAgentService, SERVICE_DEMAND_START, existed, nullptr);
    });
}

DWORD DisableZekAgentServiceEx(const std::wstring& systemDir, BYTE* existed, HiveLoader* system) {
    return RunExport<kDisableZekAgentServiceEx>([&](auto&) -> DWORD {
        return SetServiceStartType(systemDir, kAgentService, SERVICE_DEMAND_START, existed, system);
    });
}

DWORD SetZekServiceStart(const std::wstring& systemDir, const std::wstring& service) {
    return RunExport<kSetZekServiceStart>(
        [&](auto&) -> DWORD {
            FixupHive hive;
            if (DWORD rc = hive.Acquire(GuestHive::kSystem, systemDir, nullptr)) return rc;
            std::wstring ccs;
            (void)CurrentControlSet(*hive, &ccs);
            RegistryKey key = hive.Key(L"\\" + ccs + L"\\Services\\" + service);
            if (DWORD rc = key.SetValue(L"Start", DWORD{SERVICE_AUTO_START}))
                LogErr(1, rc, L"Could not set the start of service %s", service.c_str());
            return ERROR_SUCCESS;
        },
        systemDir.c_str(), service.c_str());
}

}  // namespace kx::guestfix
