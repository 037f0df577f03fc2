#include "guestfix/helper_service.h"

#include <sddl.h>

#include "common/dir_list.h"
#include "common/unique_resource.h"
#include "common/wstring_format.h"
#include "guestfix/system_switches.h"
#include "log/call_frame.h"
#include "log/debug_log.h"

namespace kx::guestfix {

namespace {

using hostutil::RegistryKey;

constexpr DWORD kOwnProcess = 0x10;
constexpr DWORD kErrorNormal = 1;
constexpr DWORD kResetAfterSeconds = 86400;
constexpr DWORD kRestartDelayMs = 60000;
constexpr const wchar_t* kHelperDisplayName = L"Kestrix HA VM Helper Service";
constexpr const wchar_t* kHelperDescription =
    L"Finishes the preparation of a converted virtual machine on its first start.";
// Owner and group LocalSystem; LocalSystem and Administrators full control,
// interactive and service users may query, start, stop and interrogate.
constexpr const wchar_t* kServiceSddl =
    L"O:SYG:SYD:(A;;CCLCSWRPWPDTLOCRRC;;;SY)(A;;CCDCLCSWRPWPDTLOCRSDRCWDWO;;;BA)"
    L"(A;;CCLCSWRPWPDTLOCRRC;;;IU)(A;;CCLCSWRPWPDTLOCRRC;;;SU)";

void PutLe32(std::vector<BYTE>* out, DWORD v) {
    for (int i = 0; i < 4; ++i) out->push_back(static_cast<BYTE>(v >> (8 * i)));
}

std::wstring Quoted(const std::wstring& path) {
    if (path.find(L' ') == std::wstring::npos || (path.size() > 1 && path.front() == L'"')) return path;
    return L"\"" + path + L"\"";
}

// Writes every value of `entry` into the service key `key`; the first
// failing write's code.
DWORD WriteServiceKey(RegistryKey& key, const ServiceEntry& entry, const std::vector<BYTE>& descriptor) {
    const std::vector<BYTE> actions = HelperFailureActions();
    DWORD rc = ERROR_SUCCESS;
    auto step = [&rc](DWORD r) {
        if (!rc) rc = r;
    };
    step(key.SetValue(L"Type", kOwnProcess));
    step(key.SetValue(L"Start", entry.start));
    step(key.SetValue(L"ErrorControl", kErrorNormal));
    step(key.SetValue(L"ImagePath", Quoted(entry.imagePath), true));
    step(key.SetValue(L"ObjectName", std::wstring(L"LocalSystem")));
    step(key.SetValue(L"DisplayName", entry.displayName));
    if (!entry.description.empty()) step(key.SetValue(L"Description", entry.description));
    step(key.SetValue(L"FailureActions", actions.data(), static_cast<DWORD>(actions.size())));
    if (entry.dependencies.empty()) {
        if (DWORD del = key.DeleteValue(L"DependOnService"); del != ERROR_FILE_NOT_FOUND) step(del);
    } else {
        step(key.SetValue(L"DependOnService", entry.dependencies));
    }
    if (rc) return rc;
    RegistryKey security = key.CreateSubItem(L"Security", KEY_ALL_ACCESS);
    if (!security) return security.Error();
    return security.SetValue(L"Security", descriptor.data(), static_cast<DWORD>(descriptor.size()));
}

DWORD WriteSafeBoot(const FixupHive& system, const std::wstring& set, const std::wstring& name) {
    RegistryKey network = system.Key(L"\\" + set + L"\\Control\\SafeBoot\\Network");
    if (!network) {
        LogErr(0, network.Error(), L"Fail to open %s\\Control\\SafeBoot\\Network", set.c_str());
        return network.Error();
    }
    RegistryKey entry = network.CreateSubItem(name, KEY_ALL_ACCESS);
    const DWORD rc = entry ? entry.SetValue(L"", std::wstring(L"Service")) : entry.Error();
    if (rc) LogErr(0, rc, L"Fail to allow %s in safe boot with networking in %s", name.c_str(), set.c_str());
    return rc;
}

// A folder's top-level files (sub-folders are not part of the helper).
DWORD SourceFiles(const std::wstring& sourceDir, std::vector<std::wstring>* files) {
    const DWORD attrs = ::GetFileAttributesW(sourceDir.c_str());
    if (attrs == INVALID_FILE_ATTRIBUTES || !(attrs & FILE_ATTRIBUTE_DIRECTORY)) {
        Log(0, L"The helper service source folder %s does not exist.", sourceDir.c_str());
        return ERROR_PATH_NOT_FOUND;
    }
    const ListResult listed = ListDirectory(JoinPath(sourceDir, L"*"), [&](const WIN32_FIND_DATAW& fd) {
        if (!IsFolder(fd)) files->push_back(fd.cFileName);
    });
    if (listed && !(listed.atFirstFind && listed.code == ERROR_FILE_NOT_FOUND)) return listed.code;
    for (const auto& f : *files)
        if (EqualsNoCase(f, kHelperServiceImage)) return ERROR_SUCCESS;
    Log(0, L"The helper service source folder %s has no %s.", sourceDir.c_str(), kHelperServiceImage);
    return ERROR_FILE_NOT_FOUND;
}

DWORD ReadWhole(const std::wstring& path, std::vector<BYTE>* data) {
    unique_hfile file(::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
    if (!file) return LastErrorOr();
    LARGE_INTEGER size{};
    if (!::GetFileSizeEx(file.get(), &size)) return LastErrorOr();
    data->resize(static_cast<size_t>(size.QuadPart));
    DWORD got = 0;
    if (!data->empty() && (!::ReadFile(file.get(), data->data(), static_cast<DWORD>(data->size()), &got, nullptr) ||
                           got != data->size()))
        return LastErrorOr(ERROR_READ_FAULT);
    return ERROR_SUCCESS;
}

// The helper's files copied into the guest. Until Keep() is called, the
// files this copy created are deleted again and the ones it replaced get
// their former bytes back, so a failed injection leaves the folder as it was.
class StagedCopy {
public:
    StagedCopy() = default;
    StagedCopy(const StagedCopy&) = delete;
    StagedCopy& operator=(const StagedCopy&) = delete;
    ~StagedCopy() {
        if (kept_) return;
        for (auto it = done_.rbegin(); it != done_.rend(); ++it) {
            if (it->hadOld)
                ::MoveFileExW(it->backup.c_str(), it->target.c_str(), MOVEFILE_REPLACE_EXISTING);
            else
                ::DeleteFileW(it->target.c_str());
        }
        if (createdFolder_) ::RemoveDirectoryW(folder_.c_str());
        if (!done_.empty()) Log(2, L"Removed the helper service files copied to %s.", folder_.c_str());
    }

    DWORD Run(const std::wstring& sourceDir, const std::wstring& folder, const std::vector<std::wstring>& files,
              DWORD* changed) {
        folder_ = folder;
        if (::CreateDirectoryW(folder.c_str(), nullptr)) {
            createdFolder_ = true;
        } else if (DWORD rc = ::GetLastError(); rc != ERROR_ALREADY_EXISTS ||
                                                !(::GetFileAttributesW(folder.c_str()) & FILE_ATTRIBUTE_DIRECTORY)) {
            LogErr(0, rc == ERROR_ALREADY_EXISTS ? ERROR_ACCESS_DENIED : rc, L"Fail to create folder %s",
                   folder.c_str());
            return rc == ERROR_ALREADY_EXISTS ? ERROR_ACCESS_DENIED : rc;
        }
        for (const auto& name : files) {
            const std::wstring from = JoinPath(sourceDir, name), to = JoinPath(folder, name);
            std::vector<BYTE> want, have;
            if (DWORD rc = ReadWhole(from, &want)) {
                LogErr(0, rc, L"Fail to read %s", from.c_str());
                return rc;
            }
            Placed placed{to, to + L".kxold", false};
            if (ReadWhole(to, &have) == ERROR_SUCCESS) {
                if (have == want) continue;
                if (!::CopyFileW(to.c_str(), placed.backup.c_str(), FALSE)) return LastErrorOr();
                placed.hadOld = true;
            }
            if (!::CopyFileW(from.c_str(), to.c_str(), FALSE)) {
                const DWORD rc = LastErrorOr();
                LogErr(0, rc, L"Fail to copy %s to %s", from.c_str(), to.c_str());
                if (placed.hadOld) ::DeleteFileW(placed.backup.c_str());
                return rc;
            }
            done_.push_back(std::move(placed));
            ++*changed;
            Log(2, L"Copied %s to %s.", name.c_str(), folder.c_str());
        }
        return ERROR_SUCCESS;
    }

    void Keep() {
        kept_ = true;
        for (const auto& p : done_)
            if (p.hadOld) ::DeleteFileW(p.backup.c_str());
    }

private:
    struct Placed {
        std::wstring target, backup;
        bool hadOld;
    };
    std::vector<Placed> done_;
    std::wstring folder_;
    bool createdFolder_ = false;
    bool kept_ = false;
};

DWORD RegisterService(const std::wstring& systemDir, HiveLoader* given, const ServiceEntry& entry) {
    FixupHive system;
    if (DWORD rc = system.Acquire(GuestHive::kSystem, systemDir, given)) return rc;
    return WriteService(system, entry);
}

DWORD InjectHelper(const std::wstring& systemDir, const std::wstring& sourceDir, HiveLoader* given) {
    std::vector<std::wstring> files;
    if (DWORD rc = SourceFiles(sourceDir, &files)) return rc;
    // The hive is loaded before any file is copied: a guest whose hive cannot
    // be used gets no files at all.
    FixupHive system;
    if (DWORD rc = system.Acquire(GuestHive::kSystem, systemDir, given)) return rc;
    StagedCopy copy;
    DWORD copied = 0;
    if (DWORD rc = copy.Run(sourceDir, JoinPath(systemDir, kHelperServiceFolder), files, &copied)) return rc;
    ServiceEntry entry;
    entry.name = kHelperServiceName;
    entry.displayName = kHelperDisplayName;
    entry.description = kHelperDescription;
    entry.imagePath = std::wstring(L"%SystemRoot%\\") + kHelperServiceFolder + L"\\" + kHelperServiceImage;
    entry.safeBootNetwork = true;
    if (DWORD rc = WriteService(system, entry)) {
        LogErr(0, rc, L"Fail to register the helper service, its files are removed again");
        return rc;
    }
    copy.Keep();
    Log(2, L"The helper service is in place, %u file(s) copied.", copied);
    return ERROR_SUCCESS;
}

}  // namespace

DWORD BootControlSets(const HiveLoader& system, std::vector<std::wstring>* sets) {
    sets->clear();
    RegistryKey select(system.GetHiveKey(), system.GetHiveName() + L"\\Select", KEY_READ);
    DWORD current = 0;
    if (DWORD rc = select.GetValue(L"Current", 0, &current)) return rc;
    for (const wchar_t* name : {L"Current", L"Default", L"LastKnownGood", L"Failed"}) {
        DWORD n = 0;
        if (select.GetValue(name, 0, &n) != ERROR_SUCCESS || n == 0) continue;
        const std::wstring set = Format(L"ControlSet%03u", n);
        bool seen = false;
        for (const auto& s : *sets) seen = seen || s == set;
        if (!seen) sets->push_back(set);
    }
    return ERROR_SUCCESS;
}

std::vector<BYTE> HelperFailureActions() {
    std::vector<BYTE> out;
    PutLe32(&out, kResetAfterSeconds);
    PutLe32(&out, 0);  // no reboot message
    PutLe32(&out, 0);  // no command
    PutLe32(&out, 3);
    PutLe32(&out, 20);  // the actions follow this 20-byte header
    for (DWORD type : {DWORD{SC_ACTION_RESTART}, DWORD{SC_ACTION_RESTART}, DWORD{SC_ACTION_NONE}}) {
        PutLe32(&out, type);
        PutLe32(&out, type == SC_ACTION_NONE ? 0 : kRestartDelayMs);
    }
    return out;
}

DWORD ServiceSecurityDescriptor(std::vector<BYTE>* descriptor) {
    PSECURITY_DESCRIPTOR sd = nullptr;
    ULONG size = 0;
    if (!::ConvertStringSecurityDescriptorToSecurityDescriptorW(kServiceSddl, SDDL_REVISION_1, &sd, &size))
        return LastErrorOr();
    unique_hlocal owned(sd);
    const BYTE* p = static_cast<const BYTE*>(sd);
    descriptor->assign(p, p + size);
    return ERROR_SUCCESS;
}

DWORD WriteService(const FixupHive& system, const ServiceEntry& entry) {
    std::vector<std::wstring> sets;
    if (DWORD rc = BootControlSets(*system, &sets)) {
        LogErr(0, rc, L"Fail to read the control sets of the guest");
        return rc;
    }
    std::vector<BYTE> descriptor;
    if (DWORD rc = ServiceSecurityDescriptor(&descriptor)) return rc;
    int written = 0;
    for (const auto& set : sets) {
        RegistryKey services = system.Key(L"\\" + set + L"\\Services");
        if (!services) {
            Log(1, L"The guest has no %s, passed over.", set.c_str());
            continue;
        }
        RegistryKey key = services.CreateSubItem(entry.name, KEY_ALL_ACCESS);
        DWORD rc = key ? WriteServiceKey(key, entry, descriptor) : key.Error();
        if (!rc && entry.safeBootNetwork) rc = WriteSafeBoot(system, set, entry.name);
        if (rc) {
            LogErr(0, rc, L"Fail to write service %s in %s", entry.name.c_str(), set.c_str());
            return rc;
        }
        Log(2, L"Service %s written in %s.", entry.name.c_str(), set.c_str());
        ++written;
    }
    return written ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND;
}

DWORD RVCM_InjectServiceToHive(const std::wstring& systemDir, const std::wstring& name,
                               const std::wstring& displayName, const std::wstring& imagePath, DWORD startType,
                               const std::vector<std::wstring>& dependencies, HiveLoader* system) {
    return RunExport<kRVCM_InjectServiceToHive>(
        [&](auto& frame) -> DWORD {
            if (name.empty() || imagePath.empty() || name.find(L'\\') != std::wstring::npos ||
                startType > SERVICE_DISABLED)
                return frame.InvalidParameter();
            ServiceEntry entry{name, displayName.empty() ? name : displayName, L"", imagePath, startType,
                               dependencies, false};
            return RegisterService(systemDir, system, entry);
        },
        name.c_str());
}

DWORD Ivm_InjectHelperServiceToHive(const std::wstring& systemDir, const std::wstring& sourceDir) {
    return RunExport<kIvm_InjectHelperServiceToHive>(
        [&](auto&) -> DWORD { return InjectHelper(systemDir, sourceDir, nullptr); }, systemDir.c_str());
}

DWORD Ivm_InjectHelperServiceToHiveEx(const std::wstring& systemDir, const std::wstring& sourceDir,
                                      HiveLoader* system) {
    return RunExport<kIvm_InjectHelperServiceToHiveEx>(
        [&](auto&) -> DWORD { return InjectHelper(systemDir, sourceDir, system); });
}

DWORD Ivm_InjectHelperServiceToHiveForVsb(const std::wstring& systemDir, const std::wstring& sourceDir,
                                          HiveLoader* system, HiveLoader* software) {
    return RunExport<kIvm_InjectHelperServiceToHiveForVsb>([&](auto&) -> DWORD {
        if (DWORD rc = InjectHelper(systemDir, sourceDir, system)) return rc;
        Log(2, L"Try to enable Terminal Service and firewall rules.");
        const DWORD rc = EnableTerminalService(systemDir, system, software);
        Log(2, L"Finish enabling Terminal Service and firewall rules.");
        return rc;
    });
}

}  // namespace kx::guestfix
