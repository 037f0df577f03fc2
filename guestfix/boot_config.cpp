#include "guestfix/boot_config.h"

#include "common/dir_list.h"
#include "common/proc_address.h"
#include "common/unique_resource.h"
#include "log/call_frame.h"
#include "log/debug_log.h"
#include "platform/boot_host.h"
#include "platform/host_util.h"

namespace kx::guestfix {

namespace {

using hostutil::RegistryKey;

std::wstring WithBackslash(std::wstring path) {
    if (path.empty() || path.back() != L'\\') path += L'\\';
    return path;
}

DWORD Inject(const std::wstring& bootDir, const std::wstring& recoveryFolder) {
    Log(2, L"begin to InjectBCDFile to system dir %s", bootDir.c_str());
    const std::wstring folder = WithBackslash(recoveryFolder);
    DWORD rc = ERROR_SUCCESS;
    unique_hmodule core = platform::CurrentBootHost().LoadRecoveryCore(&rc);
    if (!core) {
        Log(0, L"Load recoverycore.dll failed, error is %d", rc);
        return rc;
    }
    const auto unpack = ProcAddress<platform::DrUnCompressFileFn>(core.get(), platform::kDrUnCompressFile);
    if (!unpack) {
        rc = LastErrorOr(ERROR_PROC_NOT_FOUND);
        Log(0, L"get function DrUnCompressFile pointer failed, error is %d", rc);
        return rc;
    }
    Log(2, L"get function DrUnCompressFile successful.");
    const std::wstring source = folder + L"AdrInfoC.drz";
    const std::wstring unpacked = folder + L"ADRINFOC";
    if (!::CreateDirectoryW(unpacked.c_str(), nullptr)) {
        rc = LastErrorOr();
        if (rc != ERROR_ALREADY_EXISTS) {
            Log(0, L"CreateDirectoryW failed, error is %d", rc);
            return rc;
        }
    }
    rc = unpack(source.c_str(), unpacked.c_str());
    core.reset();
    if (rc != ERROR_SUCCESS) {
        Log(0, L"Do DrUnCompressFile failed, error is %d", rc);
        return rc;
    }
    const std::wstring store = unpacked + L"\\BCD";
    const std::wstring target = bootDir + L"EFI\\Microsoft\\Boot\\BCD";
    Log(2, L"InjectBCDFile::CopyFile BCD file from %s to %s.", store.c_str(), target.c_str());
    if (!::CopyFileW(store.c_str(), target.c_str(), FALSE)) {
        rc = LastErrorOr();
        Log(0, L"InjectBCDFile::CopyFile failed, src = %s, rc = %d", store.c_str(), rc);
        return rc;
    }
    FixHiveIntegrity(target);
    if ((rc = RemoveFolder(unpacked)) != ERROR_SUCCESS) {
        Log(0, L"Remove temp folder failed, folder is %s, error is %d", unpacked.c_str(), rc);
        return rc;
    }
    Log(4, L"end InjectBCDFile, ret=%u", rc);
    return rc;
}

DWORD OfflineFailure(const std::wstring& store, const wchar_t* what, DWORD rc) {
    Log(0, L"Offline BCD edit of %s failed: %s, rc = %u", store.c_str(), what, rc);
    return rc;
}

// 0 for a valid key, else its open's code (never 0).
DWORD OpenCode(const RegistryKey& key) { return key ? ERROR_SUCCESS : (key.Error() ? key.Error() : ERROR_INVALID_HANDLE); }

}  // namespace

DWORD RemoveFolder(const std::wstring& folder) {
    Log(2, L"being RemoveFolder, folder=%s", folder.c_str());
    // A file that does not go is reported by the folder's removal below.
    const ListResult listed = ListDirectory(folder + L"\\*", [&](const WIN32_FIND_DATAW& entry) {
        if (!IsFolder(entry)) ::DeleteFileW((folder + L"\\" + entry.cFileName).c_str());
    });
    if (listed && !(listed.atFirstFind && listed.code == ERROR_FILE_NOT_FOUND)) return listed.code;
    return ::RemoveDirectoryW(folder.c_str()) ? ERROR_SUCCESS : LastErrorOr();
}

DWORD InjectBCDFile(const std::wstring& bootDir, const std::wstring& recoveryFolder) {
    return RunExport<kInjectBCDFile>(
        [&](auto&) -> DWORD { return Inject(bootDir, recoveryFolder); }, bootDir.c_str());
}

std::wstring BcdStorePath(const std::wstring& bootVolume, bool uefi) {
    return WithBackslash(bootVolume) + (uefi ? L"EFI\\Microsoft\\Boot\\BCD" : L"Boot\\BCD");
}

DWORD SetBcdSafeBootOffline(const std::wstring& storePath) {
    Log(2, L"bcdedit.exe is not on the PATH: setting safe boot in the BCD store %s offline.", storePath.c_str());
    // The system takes the store only with these; the engine needs neither.
    hostutil::TokenPrivilege privileges;
    (void)privileges.EnablePrivilege(SE_BACKUP_NAME);
    (void)privileges.EnablePrivilege(SE_RESTORE_NAME);
    GUID guid;
    if (!hostutil::CreateGuid(&guid)) return OfflineFailure(storePath, L"no GUID for the load key", ERROR_GEN_FAILURE);
    HiveLoader store(L"MorvainHA.Temp." + hostutil::GuidToString(guid), storePath, HKEY_LOCAL_MACHINE);
    if (store.GetBackend() == HiveLoader::Backend::kNone)
        return OfflineFailure(storePath, L"the store does not load",
                              store.EngineResult() ? store.EngineResult() : store.SystemResult());
    const std::wstring objects = store.GetHiveName() + L"\\Objects\\";
    RegistryKey manager(store.GetHiveKey(),
                        objects + kBootManagerObject + L"\\Elements\\" + kDefaultObjectElement, KEY_READ);
    if (DWORD rc = OpenCode(manager)) return OfflineFailure(storePath, L"no default entry of the boot manager", rc);
    std::wstring entry;
    if (DWORD rc = manager.GetValue(L"Element", std::wstring(), &entry))
        return OfflineFailure(storePath, L"the boot manager's default entry does not read", rc);
    if (entry.empty()) return OfflineFailure(storePath, L"the boot manager's default entry is empty", ERROR_NOT_FOUND);
    RegistryKey elements(store.GetHiveKey(), objects + entry + L"\\Elements", KEY_ALL_ACCESS);
    if (DWORD rc = OpenCode(elements)) return OfflineFailure(storePath, L"the default entry's object is missing", rc);
    RegistryKey safeBoot = elements.CreateSubItem(kSafeBootElement, KEY_ALL_ACCESS);
    BYTE value[8];
    for (int i = 0; i < 8; ++i) value[i] = static_cast<BYTE>(kSafeBootNetwork >> (8 * i));
    DWORD rc = OpenCode(safeBoot);
    if (rc == ERROR_SUCCESS) rc = safeBoot.SetValue(L"Element", value, sizeof value);
    if (rc != ERROR_SUCCESS) return OfflineFailure(storePath, L"the safe-boot element is not written", rc);
    if ((rc = store.Flush()) != ERROR_SUCCESS) return OfflineFailure(storePath, L"the store is not written back", rc);
    Log(2, L"Set safeboot network on the BCD entry %s of %s offline.", entry.c_str(), storePath.c_str());
    return ERROR_SUCCESS;
}

DWORD EnableVMBootInSafeBoot(const std::wstring& bootVolume, const std::wstring& systemDir, BYTE uefi) {
    return RunExport<kEnableVMBootInSafeBoot>([&](auto&) -> DWORD {
        platform::BootHost& host = platform::CurrentBootHost();
        if (host.HostMajorVersion() < 6 || bootVolume.empty()) {
            Log(0, L"BcdEdit.exe can not run in the Vista ealier, bootlink = %s.", bootVolume.c_str());
            return ERROR_INVALID_PARAMETER;
        }
        Log(2, L"Start to update the BCD in safeboot successfully!");
        if (host.CanFindProgram(L"bcdedit.exe")) {
            const std::wstring command = L"bcdedit.exe /store " + WithBackslash(bootVolume) +
                                         (uefi ? L"EFI\\Microsoft\\Boot\\BCD " : L"Boot\\BCD  ") +
                                         L"/set {default} safeboot network";
            const int status = host.RunCommand(command);
            Log(2, L"Update the bcd file = %s, retcode: %d", command.c_str(), status);
            if (status != 0) return ERROR_OPEN_FAILED;
        } else if (SetBcdSafeBootOffline(BcdStorePath(bootVolume, uefi != 0)) != ERROR_SUCCESS) {
            return ERROR_OPEN_FAILED;
        }
        return SetSafeBootFirst(nullptr, systemDir);
    });
}

DWORD SetSafeBootFirst(HiveLoader* system, const std::wstring& systemDir) {
    FixupHive hive;
    if (DWORD rc = hive.Acquire(GuestHive::kSystem, systemDir, system)) return rc;
    std::wstring controlSet;
    (void)CurrentControlSet(*hive, &controlSet);

    const std::wstring network = L"\\" + controlSet + L"\\Control\\SafeBoot\\Network";
    RegistryKey safeBoot = hive.Key(network);
    Log(2, L"Start to update the key in in %s\\%s.", (hive->GetHiveName() + network).c_str(), kHelperService);
    DWORD rc = ERROR_SUCCESS;
    if (!safeBoot.IsExist(kHelperService, KEY_READ)) {
        RegistryKey entry = safeBoot.CreateSubItem(kHelperService, KEY_SET_VALUE);
        rc = OpenCode(entry);
        if (rc == ERROR_SUCCESS) rc = entry.SetValue(L"", std::wstring(L"Service"));
        if (rc != ERROR_SUCCESS)
            Log(0, L"Failed to set %s, Error=%lu.", (hive->GetHiveName() + network + L"\\" + kHelperService).c_str(),
                rc);
    }

    const std::wstring services = L"\\" + controlSet + L"\\Services";
    const std::wstring servicesPath = hive->GetHiveName() + services;
    Log(2, L"Start to update the service key in %s\\%s.", servicesPath.c_str(), kHelperService);
    RegistryKey service = hive.Key(services).CreateSubItem(kHelperService, KEY_ALL_ACCESS);
    rc = OpenCode(service);
    if (rc == ERROR_SUCCESS) rc = service.SetValue(kSafeBootFirst, DWORD{1});
    if (rc != ERROR_SUCCESS)
        Log(0, L"Failed to set %s, Error=%lu.", kSafeBootFirst, rc);
    else
        Log(2, L"update the %s = 1 in %s\\%s.", kSafeBootFirst, servicesPath.c_str(), kHelperService);
    return rc;
}

DWORD GetWin2003BootDevice(HiveLoader* system, std::wstring* device) {
    return RunExport<kGetWin2003BootDevice>([&](auto& frame) -> DWORD {
        device->clear();
        if (!system) return frame.InvalidParameter();
        std::wstring controlSet;
        (void)CurrentControlSet(*system, &controlSet);
        const std::wstring path = system->GetHiveName() + L"\\" + controlSet + L"\\Control";
        RegistryKey control(system->GetHiveKey(), path, KEY_ALL_ACCESS);
        DWORD rc = OpenCode(control);
        if (rc != ERROR_SUCCESS)
            Log(0, L"fail to get reg key control %s.", path.c_str());
        else
            rc = control.GetValue(L"SystemBootDevice", std::wstring(), device);
        Log(2, L"Finish getting System boot Device, RetCode %lu, SysBootDevice = %s.", rc, device->c_str());
        return rc;
    });
}

DWORD ResetPRTag(HiveLoader* hive, DWORD kind) {
    return RunExport<kResetPRTag>([&](auto&) -> DWORD {
        if (!hive) {
            Log(0, L"Empty system hive.");
            return ERROR_INVALID_PARAMETER;
        }
        std::wstring path;
        if (kind == 0) {
            std::wstring controlSet;
            if (DWORD rc = CurrentControlSetStrict(*hive, &controlSet)) return rc;
            path = L"\\" + controlSet + L"\\Control\\Session Manager\\Environment";
        } else if (kind == 1) {
            path = L"\\Microsoft\\Virtual Machine\\Guest";
        } else {
            Log(0, L"Unsupported hyperv type: %d", kind);
            return ERROR_INVALID_PARAMETER;
        }
        RegistryKey key(hive->GetHiveKey(), hive->GetHiveName() + path, KEY_ALL_ACCESS);
        DWORD result = ERROR_SUCCESS;
        for (const wchar_t* marker : kRecoveryTestMarkers) {
            const DWORD rc = key ? key.DeleteValue(marker) : OpenCode(key);
            if (rc == ERROR_SUCCESS || rc == ERROR_FILE_NOT_FOUND) continue;
            Log(0, L"Fail to reset PR tag. RegDeleteValue returns %d.", rc);
            result = rc;
        }
        return result;
    });
}

}  // namespace kx::guestfix
