// Off-line access to a converted guest's registry hives.
//
// A guest's hive is loaded under HKEY_LOCAL_MACHINE\MorvainHA.Temp.<GUID>
// (a new GUID at every load). The system loads it when it can; when it
// refuses (no backup/restore privilege, a hive format or state it does not
// accept), the library's own hive engine opens the file instead and writes
// the changes back when the loader is destroyed. Keys are always opened as
// GetHiveName() + L"\\<path>" below GetHiveKey(). With the engine,
// GetHiveKey() is a token that only this library's registry code
// understands, not a Win32 registry handle; the fix-ups that take a loaded
// hive accept both. A dirty hive (its last write cut off) that the engine
// holds is read-only. A hive that neither could open leaves every key below
// it missing.
#pragma once

#include <string>

#include "KestrixHA/api.h"

class KXHA_CLASS RegistryHiveLoader {
public:
    // Loads `hiveFile` as `root`\`hiveName`.
    RegistryHiveLoader(const std::wstring& hiveName, const std::wstring& hiveFile, HKEY root);
    // Unloads the hive, or writes the engine's changes to the file.
    ~RegistryHiveLoader();
    RegistryHiveLoader(const RegistryHiveLoader&) = delete;
    RegistryHiveLoader& operator=(const RegistryHiveLoader&) = delete;

    std::wstring GetHiveName() const;
    HKEY GetHiveKey() const;

    // The library's side of the object.
    struct Impl;
    explicit RegistryHiveLoader(Impl* adopted) noexcept;
    Impl* GetImpl() const noexcept { return impl_; }

private:
    Impl* impl_;
};

// Loads the guest's system hive (<systemDir>\system32\config\system) after
// repairing its header when its last write did not complete (unless the
// host's "FixHiveIntegrity" switch under ...\Engine\KbBackupDll is 0).
// `loader`, when given, receives the loaded hive or null; the caller owns it
// and deletes it, which unloads. 0; 10 when the hive file is missing; the
// system's code when the backup or restore privilege cannot be enabled.
KXHA_API DWORD GetSystemHiveKeyEx(const std::wstring& systemDir, RegistryHiveLoader** loader);
// The same for <systemDir>\system32\config\software, without the repair.
KXHA_API DWORD GetSoftwareHiveKeyEx(const std::wstring& systemDir, RegistryHiveLoader** loader);
