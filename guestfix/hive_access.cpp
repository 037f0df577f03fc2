#include "guestfix/hive_access.h"

#include <cstdint>
#include <cstring>
#include <cwchar>
#include <cwctype>

#include "common/positioned_io.h"
#include "common/unique_resource.h"
#include "log/call_frame.h"
#include "log/debug_log.h"
#include "platform/host_util.h"
#include "platform/regf/regf_bytes.h"
#include "platform/regf/regf_hive.h"

namespace kx::guestfix {

namespace {
constexpr DWORD kBaseBlockBytes = 512;

}  // namespace

DWORD ReadEngineDword(const wchar_t* name, DWORD* value, const wchar_t* keyPath, DWORD fallback) {
    *value = fallback;
    hostutil::RegistryKey key(HKEY_LOCAL_MACHINE, (keyPath && *keyPath) ? keyPath : kEngineKey, KEY_READ);
    return key ? key.GetValue(name, fallback, value) : key.Error();
}

void FixHiveIntegrity(const std::wstring& hivePath) {
    DWORD enabled = 1;
    (void)ReadEngineDword(L"FixHiveIntegrity", &enabled, kBackupDllKey, 1);
    if (enabled == 0) {
        Log(1, L"The registry switch is not enabled, don't fix the hive integrity problem.");
        return;
    }
    unique_hfile file(::CreateFileW(hivePath.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                    OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) {
        LogErr(1, LastErrorOr(), L"Fail to open registry hive %s", hivePath.c_str());
        return;
    }
    uint8_t base[kBaseBlockBytes] = {};
    DWORD got = 0;
    // A file shorter than a base block reads as far as it goes; the rest of
    // the block stays zero.
    if (DWORD rc = io::ReadAt(file.get(), 0, base, kBaseBlockBytes, &got); rc && rc != ERROR_HANDLE_EOF) {
        LogErr(1, rc, L"Fail to read registry hive header %s", hivePath.c_str());
        return;
    }
    // Only a registry hive's base block is repaired: any other file (a hive
    // in another format, a file put there by mistake) is left as it is.
    if (std::memcmp(base, "regf", 4) != 0) {
        Log(1, L"::The file %s is not a registry hive file, its header is left alone.", hivePath.c_str());
        return;
    }
    const uint32_t primary = regf::Le32(base + 4);
    if (primary == regf::Le32(base + 8)) {
        Log(2, L"::The hive file %s doesn't have integrity problem.", hivePath.c_str());
        return;
    }
    regf::Put32(base + 8, primary);
    regf::Put32(base + 508, regf::BaseChecksum(base));  // stored as computed: no remapping of 0 or ~0
    LARGE_INTEGER zero{};
    if (!::SetFilePointerEx(file.get(), zero, nullptr, FILE_BEGIN)) {
        LogErr(1, LastErrorOr(), L"::Fail to set file pointer to registry hive file %s", hivePath.c_str());
        return;
    }
    DWORD written = 0;
    if (!::WriteFile(file.get(), base, kBaseBlockBytes, &written, nullptr) || written != kBaseBlockBytes)
        LogErr(1, LastErrorOr(ERROR_WRITE_FAULT), L"::Fail to write registry hive header %s", hivePath.c_str());
}

std::wstring GuestHivePath(const std::wstring& systemDir, GuestHive hive) {
    std::wstring path = systemDir;
    if (path.empty() || path.back() != L'\\') path += L'\\';
    path += hive == GuestHive::kSystem ? L"system32\\config\\system" : L"system32\\config\\software";
    return path;
}

DWORD LoadGuestHive(GuestHive hive, const std::wstring& systemDir, std::unique_ptr<HiveLoader>* loader) {
    const std::wstring path = GuestHivePath(systemDir, hive);
    // Only a missing file stops here; any other answer (a folder, no
    // access) is left to the load to report.
    if (::_waccess_s(path.c_str(), 0) == ENOENT) {
        Log(0, L"fail to call _waccess_s, cannot find %s", path.c_str());
        return ERROR_BAD_ENVIRONMENT;
    }
    hostutil::TokenPrivilege privileges;
    if (DWORD rc = privileges.EnablePrivilege(SE_BACKUP_NAME)) {
        Log(0, L"fail to call EnablePrivilege with SE_BACKUP_NAME, ec=%u", rc);
        return rc;
    }
    if (DWORD rc = privileges.EnablePrivilege(SE_RESTORE_NAME)) {
        Log(0, L"fail to call EnablePrivilege with SE_RESTORE_NAME, ec=%u", rc);
        return rc;
    }
    if (hive == GuestHive::kSystem) FixHiveIntegrity(path);
    GUID guid;
    if (!hostutil::CreateGuid(&guid)) {
        Log(0, L"Fail to create a GUID for the load key of hive %s", path.c_str());
        return ERROR_GEN_FAILURE;
    }
    const std::wstring name = L"MorvainHA.Temp." + hostutil::GuidToString(guid);
    if (loader) *loader = std::make_unique<HiveLoader>(name, path, HKEY_LOCAL_MACHINE);
    return ERROR_SUCCESS;
}

DWORD FixupHive::Acquire(GuestHive which, const std::wstring& systemDir, HiveLoader* given, bool shortLine) {
    DWORD rc = ERROR_SUCCESS;
    if (given) {
        hive_ = given;
    } else {
        rc = LoadGuestHive(which, systemDir, &own_);
        if (rc == ERROR_SUCCESS && !own_) rc = ERROR_NOT_ENOUGH_MEMORY;
        hive_ = own_.get();
    }
    // A hive that neither the system nor the engine could open is a failed
    // load here, with the engine's answer (1009 for a file that is not a
    // well-formed hive): nothing below it could be read or changed.
    if (rc == ERROR_SUCCESS && hive_->GetBackend() == HiveLoader::Backend::kNone) {
        rc = hive_->EngineResult() ? hive_->EngineResult() : hive_->SystemResult();
        if (rc == ERROR_SUCCESS) rc = ERROR_BADDB;
    }
    if (rc == ERROR_SUCCESS) return ERROR_SUCCESS;
    if (which == GuestHive::kSystem && shortLine)
        Log(0, L"Fail to load system registry hive.");
    else if (which == GuestHive::kSystem)
        Log(0, L"Fail to load system registry hive of virtual machine.");
    else
        Log(0, L"Fail to load software registry hive of virtual machine.");
    own_.reset();
    hive_ = nullptr;
    return rc;
}

hostutil::RegistryKey FixupHive::Key(const std::wstring& path, REGSAM access) const {
    return hostutil::RegistryKey(hive_->GetHiveKey(), hive_->GetHiveName() + path, access);
}

DWORD GetSystemHiveKeyEx(const std::wstring& systemDir, std::unique_ptr<HiveLoader>* loader) {
    return RunExport<kGetSystemHiveKeyEx>(
        [&](auto&) -> DWORD { return LoadGuestHive(GuestHive::kSystem, systemDir, loader); }, systemDir.c_str());
}

DWORD GetSoftwareHiveKeyEx(const std::wstring& systemDir, std::unique_ptr<HiveLoader>* loader) {
    return RunExport<kGetSoftwareHiveKeyEx>(
        [&](auto&) -> DWORD { return LoadGuestHive(GuestHive::kSoftware, systemDir, loader); }, systemDir.c_str());
}

DWORD CurrentControlSet(const HiveLoader& system, std::wstring* name) {
    hostutil::RegistryKey select(system.GetHiveKey(), system.GetHiveName() + L"\\Select", KEY_ALL_ACCESS);
    DWORD current = 1;
    const DWORD rc = select.GetValue(L"Current", 1, &current);
    *name = L"ControlSet00" + std::to_wstring(current);
    return rc;
}

DWORD CurrentControlSetStrict(const HiveLoader& system, std::wstring* name) {
    const DWORD rc = CurrentControlSet(system, name);
    if (rc != ERROR_SUCCESS)
        Log(0, L"Failed to get the current contolset, error code : %d.", rc);
    else
        Log(2, L"Current controlset is %d.", static_cast<DWORD>(std::wcstoul(name->c_str() + 12, nullptr, 10)));
    return rc;
}

DWORD RegGetWinNTVerion(const std::wstring& systemDir, DWORD* major, DWORD* minor, DWORD* servicePack,
                        HiveLoader* software) {
    Log(2, L"RegGetWinNTVerion::begin, system dir = %s", systemDir.c_str());
    *major = *minor = *servicePack = 0;
    FixupHive hive;
    if (DWORD rc = hive.Acquire(GuestHive::kSoftware, systemDir, software)) return rc;
    hostutil::RegistryKey key = hive.Key(L"\\Microsoft\\windows NT\\CurrentVersion");
    std::wstring text;
    (void)key.GetValue(L"CurrentVersion", std::wstring(), &text);
    int hi = 0, lo = 0;
    if (!text.empty() && std::swscanf(text.c_str(), L"%d.%d", &hi, &lo) >= 1) {
        *major = static_cast<DWORD>(hi);
        *minor = static_cast<DWORD>(lo);
    }
    (void)key.GetValue(L"CSDVersion", std::wstring(), &text);
    int pack = 0;
    if (!text.empty()) {
        text.resize(std::min<size_t>(text.size(), MAX_PATH));
        for (wchar_t& c : text) c = static_cast<wchar_t>(std::towupper(c));
        if (std::swscanf(text.c_str(), L"SERVICE PACK %d", &pack) == 1) *servicePack = static_cast<DWORD>(pack);
    }
    Log(2, L"RegGetWinNTVerion::End, OS = %d.%d SP%d", *major, *minor, *servicePack);
    return ERROR_SUCCESS;
}

}  // namespace kx::guestfix
