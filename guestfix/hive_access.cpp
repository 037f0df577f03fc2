#include "guestfix/hive_access.h"

#include <cstdint>
#include <cstring>

#include "common/positioned_io.h"
#include "common/unique_resource.h"
#include "log/debug_log.h"
#include "platform/regf/regf_bytes.h"
#include "platform/regf/regf_hive.h"

namespace kx::guestfix {

namespace {
constexpr DWORD kBaseBlockBytes = 512;

}  // namespace

DWORD ReadEngineDword(const wchar_t* name, DWORD* value, const wchar_t* keyPath, DWORD fallback) {
    *value = fallback;
    unique_hkey key;
    LSTATUS rc = ::RegOpenKeyExW(HKEY_LOCAL_MACHINE, (keyPath && *keyPath) ? keyPath : kEngineKey, 0, KEY_READ,
                                 key.put());
    if (rc == ERROR_SUCCESS) {
        DWORD size = sizeof *value;
        rc = ::RegGetValueW(key.get(), nullptr, name, RRF_RT_REG_DWORD, nullptr, value, &size);
    }
    if (rc != ERROR_SUCCESS) *value = fallback;
    return static_cast<DWORD>(rc);
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

}  // namespace kx::guestfix
