// Registry keys and loaded hives over two backends.
//
// A hive loader first asks the system to load the hive file under a key of
// its root (RegLoadKeyW). When the system refuses (Wine refuses every hive
// file that is not in its own text format; Windows refuses a process without
// the backup and restore privileges, or a hive whose logs it cannot replay),
// the loader opens the file with the offline hive engine instead. Either way
// the hive is reached the same way: open `GetHiveName() + L"\\..."` below
// `GetHiveKey()` with a RegistryKey.
//
// With the engine, GetHiveKey() is not a Win32 registry handle: it is a
// token that RegistryKey recognises and routes to the engine. Handing it to
// a Reg* function directly fails with ERROR_INVALID_HANDLE. Below that
// token the only key is the hive's own name; the hive's keys are below it.
//
// Engine hives:
//   - Changes are held in memory and written to the file when the loader is
//     destroyed (the engine's commit: the base block is marked in progress
//     first and completed last, so an interrupted write leaves a hive any
//     reader sees as dirty). A failed write is logged.
//   - A dirty hive (unequal sequence numbers, its last write cut off) is
//     opened read-only, since the engine does not replay transaction logs:
//     reads work, every change answers ERROR_ACCESS_DENIED.
//   - The file is held open for the loader's life, shared for reading only.
//   - A RegistryKey that outlives its loader answers ERROR_KEY_DELETED.
//   - Keys of one hive may be used from several threads; calls are
//     serialised per hive.
//
// RegistryKey operations return Win32 codes. Access rights are kept as on
// Windows: a key opened without KEY_SET_VALUE cannot have its values set,
// and so on (ERROR_ACCESS_DENIED).
#pragma once

#include <windows.h>

#include <memory>
#include <string>
#include <vector>

#include "common/unique_resource.h"

namespace kx::hostutil {

namespace detail {
struct EngineHive;
}

class RegistryKey {
public:
    RegistryKey() noexcept = default;
    // Opens `root`\`subkey` with `access`. An empty subkey opens `root`
    // itself (a new handle).
    RegistryKey(HKEY root, const std::wstring& subkey, REGSAM access);
    // A new handle to `key` itself.
    RegistryKey(HKEY key, REGSAM access);
    RegistryKey(const RegistryKey& other);
    RegistryKey& operator=(const RegistryKey& other);
    RegistryKey(RegistryKey&& other) noexcept;
    RegistryKey& operator=(RegistryKey&& other) noexcept;
    ~RegistryKey();

    bool IsValid() const noexcept;
    explicit operator bool() const noexcept { return IsValid(); }
    // Why the key is not valid: the open's code (0 for a valid key).
    DWORD Error() const noexcept { return error_; }

    // Typed reads. `*out` is `fallback` (or empty) unless the read succeeds.
    // A value of another type answers ERROR_UNSUPPORTED_TYPE. Strings are
    // read up to their first terminator; REG_EXPAND_SZ reads as stored
    // (the host's environment means nothing for a guest's hive). A list ends
    // at its first empty string.
    DWORD GetValue(const std::wstring& name, DWORD fallback, DWORD* out) const;
    DWORD GetValue(const std::wstring& name, const std::wstring& fallback, std::wstring* out) const;
    DWORD GetValue(const std::wstring& name, std::vector<std::wstring>* out) const;
    // Any value as stored.
    DWORD GetRawValue(const std::wstring& name, DWORD* type, std::vector<BYTE>* data) const;

    DWORD SetValue(const std::wstring& name, DWORD value);
    // REG_SZ, or REG_EXPAND_SZ when `expandable`.
    DWORD SetValue(const std::wstring& name, const std::wstring& value, bool expandable = false);
    // REG_MULTI_SZ. An empty string inside a list would end it for every
    // reader: with `dropEmpty` such strings are left out, without it the
    // list is refused (ERROR_INVALID_PARAMETER).
    DWORD SetValue(const std::wstring& name, const std::vector<std::wstring>& values, bool dropEmpty = true);
    // REG_BINARY.
    DWORD SetValue(const std::wstring& name, const BYTE* data, DWORD bytes);
    DWORD SetRawValue(const std::wstring& name, DWORD type, const void* data, DWORD bytes);
    DWORD DeleteValue(const std::wstring& name);

    // The sub-key `name` (a path of one or more components), created when
    // absent, opened when present. The result's Error() tells a failure.
    RegistryKey CreateSubItem(const std::wstring& name, REGSAM access) const;
    RegistryKey GetSubItem(const std::wstring& name, REGSAM access) const;
    // True when the sub-key opens with `access`.
    bool IsExist(const std::wstring& name, REGSAM access) const;
    // Deletes the sub-key `name` with everything below it.
    DWORD DelSubKey(const std::wstring& name);

    // The value at `index` in the key's order: its name, and its data when it
    // is a string (empty for other types; `type` tells). ERROR_NO_MORE_ITEMS
    // past the last value.
    DWORD EnumNextValue(DWORD index, std::wstring* name, std::wstring* data, DWORD* type = nullptr) const;
    // The same with the value's type and data as stored.
    DWORD EnumRawValue(DWORD index, std::wstring* name, DWORD* type, std::vector<BYTE>* data) const;
    DWORD EnumSubKey(DWORD index, std::wstring* name) const;

private:
    static RegistryKey Invalid(DWORD error);
    DWORD ReadRaw(const std::wstring& name, DWORD* type, std::vector<BYTE>* data) const;

    unique_hkey win32_;
    std::shared_ptr<detail::EngineHive> hive_;  // set for engine keys
    uint32_t cell_ = 0xFFFFFFFFu;               // engine key; kTop for the token's level
    REGSAM access_ = 0;
    DWORD error_ = ERROR_INVALID_HANDLE;
};

// Loads a hive file under `root`\`name` (see the top of this file) and
// unloads it, or writes the engine's changes back, when destroyed.
class HiveLoader {
public:
    enum class Backend { kNone, kSystem, kEngine };
    struct Options {
        // Engine only, read-only: for callers that must never change the file.
        bool readOnly = false;
    };
    HiveLoader(const std::wstring& name, const std::wstring& hiveFile, HKEY root);
    HiveLoader(const std::wstring& name, const std::wstring& hiveFile, HKEY root, const Options& options);
    ~HiveLoader();
    HiveLoader(const HiveLoader&) = delete;
    HiveLoader& operator=(const HiveLoader&) = delete;

    const std::wstring& GetHiveName() const noexcept { return name_; }
    HKEY GetHiveKey() const noexcept { return key_; }
    Backend GetBackend() const noexcept { return backend_; }
    // The system's answer to the load (0 when it loaded the hive) and, when
    // the engine was tried, the engine's.
    DWORD SystemResult() const noexcept { return systemResult_; }
    DWORD EngineResult() const noexcept { return engineResult_; }
    // Engine hives: opened read-only because dirty or asked so.
    bool ReadOnly() const noexcept;
    // Writes the engine's changes now (0 when there were none or the system
    // holds the hive); destruction does the same.
    DWORD Flush();

private:
    std::wstring name_;
    std::wstring file_;
    HKEY root_;
    HKEY key_;
    Backend backend_ = Backend::kNone;
    DWORD systemResult_ = ERROR_INVALID_FUNCTION;
    DWORD engineResult_ = ERROR_INVALID_FUNCTION;
    std::shared_ptr<detail::EngineHive> hive_;
};

}  // namespace kx::hostutil
