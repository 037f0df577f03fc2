#include "guestfix/driver_injection.h"

#include <algorithm>

#include "common/dir_list.h"
#include "common/install_path.h"
#include "common/unique_resource.h"
#include "common/wstring_format.h"
#include "log/call_frame.h"
#include "log/debug_log.h"
#include "platform/pe/pe_machine.h"
#include "platform/process_runner.h"

namespace kx::guestfix {

using hostutil::RegistryKey;

namespace {

constexpr DWORD kExpandTimeoutMs = 30000;
constexpr int kCopyAttempts = 6;
constexpr DWORD kCopyPauseMs = 10000;
constexpr DWORD kMaxServicePack = 99;

std::wstring DriversFolder(const std::wstring& systemDir) { return JoinPath(systemDir, L"System32\\Drivers"); }

bool IsFile(const std::wstring& path) {
    const DWORD a = ::GetFileAttributesW(path.c_str());
    return a != INVALID_FILE_ATTRIBUTES && !(a & FILE_ATTRIBUTE_DIRECTORY);
}

// Creates `folder` and the folders above it that are missing.
void MakeFolders(const std::wstring& folder) {
    for (size_t at = folder.find(L'\\', 3); ; at = folder.find(L'\\', at + 1)) {
        ::CreateDirectoryW(folder.substr(0, at).c_str(), nullptr);
        if (at == std::wstring::npos) break;
    }
}

// Removes `folder` with everything in it, quietly (a scratch folder).
void RemoveTree(const std::wstring& folder) {
    (void)ListDirectory(JoinPath(folder, L"*"), [&](const WIN32_FIND_DATAW& fd) {
        const std::wstring path = JoinPath(folder, fd.cFileName);
        if (IsFolder(fd)) {
            RemoveTree(path);
        } else {
            ::SetFileAttributesW(path.c_str(), FILE_ATTRIBUTE_NORMAL);
            ::DeleteFileW(path.c_str());
        }
    });
    ::RemoveDirectoryW(folder.c_str());
}

// Depth first below `folder`: the first file named `file`. 0 with `*found`,
// or the search's code (ERROR_FILE_NOT_FOUND when nothing matched,
// ERROR_PATH_NOT_FOUND when the tree is not there).
DWORD FindInTree(const std::wstring& folder, const std::wstring& file, std::wstring* found) {
    const std::wstring direct = JoinPath(folder, file);
    if (IsFile(direct)) {
        *found = direct;
        return ERROR_SUCCESS;
    }
    DWORD rc = ERROR_FILE_NOT_FOUND;
    const ListResult listed = ListDirectory(JoinPath(folder, L"*"), [&](const WIN32_FIND_DATAW& fd) {
        if (!IsFolder(fd)) return true;
        rc = FindInTree(JoinPath(folder, fd.cFileName), file, found);
        return rc != ERROR_SUCCESS;
    });
    if (rc == ERROR_SUCCESS) return rc;
    return listed.atFirstFind && listed.code != ERROR_FILE_NOT_FOUND ? listed.code : ERROR_FILE_NOT_FOUND;
}

DWORD ExtractFromDriverStore(const std::wstring& systemDir, const std::wstring& file) {
    const std::wstring store = JoinPath(systemDir, L"System32\\DriverStore\\FileRepository");
    std::wstring found;
    if (DWORD rc = FindInTree(store, file, &found)) {
        Log(0, L"ExtractDriver::Cannot find the driver file, rc = %d", rc);
        return rc;
    }
    if (!::CopyFileW(found.c_str(), JoinPath(DriversFolder(systemDir), file).c_str(), FALSE)) {
        const DWORD rc = LastErrorOr();
        Log(0, L"ExtractDriver::CopyFile failed, src = %s, rc = %d", found.c_str(), rc);
        return rc;
    }
    return ERROR_SUCCESS;
}

// The copy of an extracted file into the guest, retried: the file may still
// be held by the expansion or a scanner for a moment.
DWORD CopyWithRetries(const std::wstring& from, const std::wstring& to) {
    DWORD rc = ERROR_SUCCESS;
    for (int attempt = 0; attempt < kCopyAttempts; ++attempt) {
        if (::CopyFileW(from.c_str(), to.c_str(), FALSE)) return ERROR_SUCCESS;
        rc = LastErrorOr();
        platform::Pauses().For(kCopyPauseMs);
    }
    Log(1, L"ExtractDriver, copy sys failed, src = %s, rc = %d", from.c_str(), rc);
    return rc;
}

std::wstring ScratchFolder() {
    std::wstring install;
    if (DWORD rc = GetZekInstallPath(install)) {
        Log(1, L"ExtractDriver::Failed to get zek install path, rc = %d", rc);
        wchar_t temp[MAX_PATH + 1] = {};
        const DWORD n = ::GetTempPathW(MAX_PATH + 1, temp);
        install.assign(temp, n && n <= MAX_PATH ? n : 0);
        while (install.size() > 3 && install.back() == L'\\') install.pop_back();
    }
    return JoinPath(install, L"bin\\temp");
}

DWORD ExtractFromCabinets(const std::wstring& systemDir, const std::wstring& file, DWORD servicePack) {
    uint16_t machine = 0;
    if (DWORD rc = ReadImageMachine(JoinPath(systemDir, L"system32\\hal.dll"), &machine)) {
        Log(0, L"ExtractDriver::Check the OS platform failed, rc = %d", rc);
        return rc;
    }
    Log(2, L"ExtractDriver::PlatformCode = 0x%X", DWORD{machine});
    const wchar_t* arch = machine == pe::kMachineI386 ? L"i386" : machine == pe::kMachineAmd64 ? L"amd64" : nullptr;
    if (!arch) {
        Log(0, L"ExtractDriver::Not supported platform = 0x%X", DWORD{machine});
        return ERROR_NOT_SUPPORTED;
    }
    const std::wstring cabinets = JoinPath(systemDir, L"driver cache\\") + arch;
    const std::wstring scratch = ScratchFolder();
    MakeFolders(scratch);
    const std::wstring expanded = JoinPath(scratch, file);
    const std::wstring target = JoinPath(DriversFolder(systemDir), file);
    DWORD rc = ERROR_FILE_NOT_FOUND;
    bool retrieved = false;
    for (int n = static_cast<int>(std::min(servicePack, kMaxServicePack)); n >= 0 && !retrieved; --n) {
        const std::wstring name = n > 0 ? Format(L"\\sp%d.cab", n) : Format(L"\\%s", L"driver.cab");
        const std::wstring from = cabinets + name, copy = scratch + name;
        if (!::CopyFileW(from.c_str(), copy.c_str(), FALSE)) {
            rc = LastErrorOr();
            Log(1, L"ExtractDriver, copy failed, rc = %d, src = %s, des = %s", rc, from.c_str(), copy.c_str());
            continue;
        }
        rc = RunExpand(copy, file, scratch);
        ::DeleteFileW(copy.c_str());
        if (rc == ERROR_SUCCESS && !IsFile(expanded)) rc = ERROR_FILE_NOT_FOUND;
        if (rc != ERROR_SUCCESS) continue;
        retrieved = true;
        Log(2, L"ExtractDriver::begin copy sys to %s", target.c_str());
        rc = CopyWithRetries(expanded, target);
    }
    RemoveTree(scratch);
    if (!retrieved) Log(0, L"ExtractDriver::Retrieve from cab failed, rc = %d", rc);
    return rc;
}

// The SCSI driver of the guest's generation, its file extracted when missing.
struct ScsiDriver {
    const DriverService& svc;
    const wchar_t* label;  // as the log names it
};

DWORD Inject(const std::wstring& systemDir, HiveLoader* givenSystem, HiveLoader* givenSoftware) {
    DWORD major = 0, minor = 0, servicePack = 0;
    if (DWORD rc = RegGetWinNTVerion(systemDir, &major, &minor, &servicePack, givenSoftware)) {
        Log(0, L"RegGetWinVer failed, rc = %d", rc);
        major = minor = servicePack = 0;
    }
    if (major > 6 || (major == 6 && minor >= 2)) {
        Log(2, L"No need driver injection for Windows 2012 or above.");
        return ERROR_SUCCESS;
    }
    FixupHive hive;
    if (DWORD rc = hive.Acquire(GuestHive::kSystem, systemDir, givenSystem)) return rc;
    std::wstring controlSet;
    (void)CurrentControlSet(*hive, &controlSet);
    const std::wstring base = L"\\" + controlSet;

    const RegistryKey database = hive.Key(base + L"\\Control\\CriticalDeviceDatabase");
    for (const CriticalDevice& dev : kCriticalDevices) (void)AddCriticalDevice(database, dev);

    const RegistryKey services = hive.Key(base + L"\\Services");
    if (!services) {
        Log(0, L"fail to get reg key: %s", (hive->GetHiveName() + base + L"\\Services").c_str());
        return ERROR_INVALID_PARAMETER;
    }
    // Extracts a missing driver file; true when the file is there afterwards.
    auto ensureFile = [&](const DriverService& svc, const wchar_t* label) {
        if (DriverFilePresent(systemDir, svc.file)) return true;
        Log(2, L"Extract %s begin", label);
        const DWORD rc = ExtractDriver(systemDir, svc.file, major, servicePack);
        Log(2, L"Extract %s end, ret = %d", label, rc);
        return rc == ERROR_SUCCESS;
    };
    const DriverService* failed = &kAtapi;
    DWORD rc = AddDriverRegistryService(services, kAtapi);
    if (rc == ERROR_SUCCESS && ensureFile(kIntelIde, L"IntelIDE")) {
        Log(2, L"Add registry for IntelIde.");
        failed = &kIntelIde;
        rc = AddDriverRegistryService(services, kIntelIde);
    }
    if (rc == ERROR_SUCCESS) {
        Log(2, L"Add registry for PCIIde.");
        failed = &kPciIde;
        rc = AddDriverRegistryService(services, kPciIde);
    }
    if (rc == ERROR_SUCCESS) {
        const ScsiDriver scsi = major >= 6 ? ScsiDriver{kLsiScsi, L"lsi_scsi"} : ScsiDriver{kSymmpi, L"symmpi"};
        // A SCSI driver whose file cannot be had is only logged.
        if (ensureFile(scsi.svc, scsi.label)) {
            Log(2, L"Add registry for %s.", scsi.svc.name);
            failed = &scsi.svc;
            rc = AddDriverRegistryService(services, scsi.svc);
        }
    }
    if (rc != ERROR_SUCCESS)
        Log(0, L"fail to call AddDriverRegistryService, ec=%u, path=%s", rc, failed->imagePath);
    return rc;
}

DWORD PrepareForEc2(const std::wstring& systemDir, HiveLoader* given) {
    Log(2, L"begin to inject drivers for EC2 with system dir %s", systemDir.c_str());
    FixupHive hive;
    if (DWORD rc = hive.Acquire(GuestHive::kSystem, systemDir, given)) return rc;
    std::wstring controlSet;
    (void)CurrentControlSet(*hive, &controlSet);
    const RegistryKey set = hive.Key(L"\\" + controlSet);
    // The key when it exists (opened for writing), else nothing.
    auto existing = [&](const wchar_t* path, RegistryKey* key) {
        if (!set.IsExist(path, KEY_READ)) return false;
        *key = set.GetSubItem(path, KEY_ALL_ACCESS);
        return true;
    };
    auto set32 = [](RegistryKey& key, const wchar_t* name, DWORD value) {
        return key ? key.SetValue(name, value) : key.Error();
    };
    RegistryKey key;
    if (existing(L"Services\\rhelscsi", &key))
        Log(2, L"Disable Redhat Xen PV drivers before OS boot up, return value is %d",
            set32(key, L"EnumerateDevices", 0));
    if (existing(L"Control\\TimeZoneInformation", &key)) {
        Log(2, L"Set BIOS realtime to be UTC, return value is %d", set32(key, L"RealTimeIsUniversal", 1));
        (void)set32(key, L"Start", 2);
    }
    if (existing(L"Services\\W32Time", &key))
        Log(2, L"Configure Windows Time for Delayed Start, return value is %d", set32(key, L"DelayedAutostart", 1));
    return ERROR_SUCCESS;
}

}  // namespace

DWORD AddDriverRegistryService(const RegistryKey& services, const DriverService& svc) {
    if (!services || !svc.name) return ERROR_INVALID_PARAMETER;
    RegistryKey key = services.CreateSubItem(svc.name, KEY_SET_VALUE);
    if (!key) return key.Error();
    for (DWORD rc : {key.SetValue(L"ErrorControl", svc.errorControl), key.SetValue(L"Group", svc.group),
                     key.SetValue(L"Start", DWORD{0}), key.SetValue(L"Tag", svc.tag), key.SetValue(L"Type", DWORD{1}),
                     key.SetValue(L"ImagePath", svc.imagePath, true)})
        if (rc != ERROR_SUCCESS) return rc;
    return ERROR_SUCCESS;
}

DWORD AddCriticalDevice(const RegistryKey& database, const CriticalDevice& dev) {
    if (!database || !dev.id) return ERROR_INVALID_PARAMETER;
    RegistryKey key = database.CreateSubItem(dev.id, KEY_SET_VALUE);
    if (!key) return key.Error();
    if (dev.service)
        if (DWORD rc = key.SetValue(L"Service", dev.service)) return rc;
    return key.SetValue(L"ClassGUID", dev.classGuid);
}

bool DriverFilePresent(const std::wstring& systemDir, const std::wstring& file) {
    bool present = false;
    (void)ListDirectory(JoinPath(DriversFolder(systemDir), file), [&](const WIN32_FIND_DATAW& fd) {
        present = present || !IsFolder(fd);
    });
    return present;
}

DWORD ReadImageMachine(const std::wstring& path, uint16_t* machine) {
    class FileSource final : public pe::ByteSource {
    public:
        FileSource(HANDLE file, uint64_t size) : file_(file), size_(size) {}
        uint64_t Size() const override { return size_; }
        bool Read(uint64_t offset, void* data, size_t bytes) override {
            LARGE_INTEGER at;
            at.QuadPart = static_cast<LONGLONG>(offset);
            DWORD got = 0;
            if (!::SetFilePointerEx(file_, at, nullptr, FILE_BEGIN) ||
                !::ReadFile(file_, data, static_cast<DWORD>(bytes), &got, nullptr) || got != bytes) {
                error = LastErrorOr(ERROR_HANDLE_EOF);
                return false;
            }
            return true;
        }
        DWORD error = ERROR_SUCCESS;

    private:
        HANDLE file_;
        uint64_t size_;
    };
    unique_hfile file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) return LastErrorOr();
    LARGE_INTEGER size{};
    if (!::GetFileSizeEx(file.get(), &size)) return LastErrorOr();
    FileSource source(file.get(), static_cast<uint64_t>(size.QuadPart));
    switch (pe::ReadPeMachine(source, machine)) {
        case pe::PeStatus::kOk: return ERROR_SUCCESS;
        case pe::PeStatus::kReadFailed: return source.error;
        default: return ERROR_BAD_EXE_FORMAT;
    }
}

DWORD RunExpand(const std::wstring& cab, const std::wstring& file, const std::wstring& destFolder) {
    const std::wstring command = Format(L"expand.exe \"%s\" -F:%s \"%s\"", cab.c_str(), file.c_str(), destFolder.c_str());
    DWORD exitCode = 0;
    if (DWORD rc = platform::Processes().Run(command, kExpandTimeoutMs, &exitCode)) return rc;
    return exitCode;
}

DWORD ExtractDriver(const std::wstring& systemDir, const std::wstring& file, DWORD major, DWORD servicePack) {
    return major >= 6 ? ExtractFromDriverStore(systemDir, file) : ExtractFromCabinets(systemDir, file, servicePack);
}

DWORD InjectIDEDriver(const std::wstring& systemDir) {
    return RunExport<kInjectIDEDriver>(
        [&](auto&) -> DWORD { return Inject(systemDir, nullptr, nullptr); }, systemDir.c_str());
}

DWORD InjectIDEDriverEx(const std::wstring& systemDir, HiveLoader* system, HiveLoader* software) {
    return RunExport<kInjectIDEDriverEx>([&](auto&) -> DWORD { return Inject(systemDir, system, software); });
}

DWORD InjectSCSIDriver() {
    return RunExport<kInjectSCSIDriver>([](auto&) -> DWORD { return ERROR_SUCCESS; });
}

DWORD InjectDriverForEC2Ex(const std::wstring& systemDir, HiveLoader* system) {
    return RunExport<kInjectDriverForEC2Ex>([&](auto&) -> DWORD { return PrepareForEc2(systemDir, system); });
}

}  // namespace kx::guestfix
