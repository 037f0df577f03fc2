#include "platform/hyperv_ops.h"

#include <cwctype>
#include <vector>

#include "common/dir_list.h"
#include "common/unique_resource.h"
#include "log/debug_log.h"
#include "platform/backup_core.h"
#include "platform/hyperv_wmi.h"
#include "platform/wmi/wmi_client.h"

namespace kx::platform {

namespace {

// The built-in backup core: the destinations of the root it was given, read
// from the destination layout on disk, and folder sizes by walking them.
class BuiltinDestinationCore final : public DestinationCore {
public:
    DWORD InitBackupDest(const std::wstring& headerRoot) override {
        if (headerRoot.empty()) return ERROR_INVALID_PARAMETER;
        root_ = headerRoot;
        return 0;
    }

    DWORD KbGetAllBackupDestinations(const wchar_t** block) override {
        *block = nullptr;
        if (root_.empty()) return ERROR_INVALID_FUNCTION;
        wchar_t* raw = nullptr;
        DWORD count = 0;
        if (DWORD rc = platform::KbGetAllBackupDestinations(root_.c_str(), &raw, &count)) return rc;
        block_.reset(raw);
        *block = raw;
        return 0;
    }

    DWORD KbGetFileSize(const std::wstring& folder, ULONGLONG* bytes) override {
        *bytes = 0;
        const DWORD attributes = ::GetFileAttributesW(folder.c_str());
        if (attributes == INVALID_FILE_ATTRIBUTES) return LastErrorOr();
        if (!(attributes & FILE_ATTRIBUTE_DIRECTORY)) return ERROR_DIRECTORY;
        return Walk(folder, bytes);
    }

private:
    static DWORD Walk(const std::wstring& folder, ULONGLONG* bytes) {
        DWORD inner = 0;
        const ListResult listed = ListDirectory(folder + L"\\*", [&](const WIN32_FIND_DATAW& fd) {
            if (IsFolder(fd)) {
                inner = Walk(folder + L"\\" + fd.cFileName, bytes);
                return inner == 0;
            }
            *bytes += (static_cast<ULONGLONG>(fd.nFileSizeHigh) << 32) | fd.nFileSizeLow;
            return true;
        });
        if (inner) return inner;
        // An empty folder lists nothing: that is a size of 0, not a failure.
        if (listed.atFirstFind && listed.code == ERROR_FILE_NOT_FOUND) return 0;
        return listed.code;
    }

    std::wstring root_;
    unique_heap_ptr block_;
};

std::unique_ptr<DestinationCore> MakeBuiltinCore() { return std::make_unique<BuiltinDestinationCore>(); }

HyperVOps* g_ops = nullptr;  // null: the WMI default
DestinationCoreMaker g_coreMaker = &MakeBuiltinCore;

}  // namespace

HyperVOps& HyperV() { return g_ops ? *g_ops : WmiHyperVOps(); }
void SetHyperVOps(HyperVOps* ops) { g_ops = ops; }
std::unique_ptr<DestinationCore> MakeDestinationCore() { return g_coreMaker(); }
void SetDestinationCoreMaker(DestinationCoreMaker maker) { g_coreMaker = maker ? maker : &MakeBuiltinCore; }

DWORD RunHiddenAndWait(const std::wstring& commandLine, DWORD* exitCode) {
    *exitCode = 0;
    std::vector<wchar_t> line(commandLine.begin(), commandLine.end());
    line.push_back(L'\0');  // CreateProcessW may write into the command line
    STARTUPINFOW si{};
    si.cb = sizeof si;
    si.dwFlags = STARTF_USESHOWWINDOW;
    si.wShowWindow = SW_HIDE;
    PROCESS_INFORMATION pi{};
    if (!::CreateProcessW(nullptr, line.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr, nullptr, &si, &pi))
        return LastErrorOr();
    unique_handle process(pi.hProcess);
    unique_handle thread(pi.hThread);
    if (::WaitForSingleObject(process.get(), INFINITE) != WAIT_OBJECT_0) return LastErrorOr();
    if (!::GetExitCodeProcess(process.get(), exitCode)) return LastErrorOr();
    return 0;
}

namespace wmi_text {

// The provider names a VM by its GUID without braces in Msvm_ComputerSystem.Name
// and in Msvm_VirtualSystemSettingData.VirtualSystemIdentifier; a realized
// VM's current settings have VirtualSystemType
// "Microsoft:Hyper-V:System:Realized", its snapshots
// "Microsoft:Hyper-V:Snapshot:Realized" (from the provider's documentation).
std::wstring ProviderGuid(const std::wstring& guid) {
    std::wstring out;
    for (wchar_t c : guid)
        if (c != L'{' && c != L'}') out += static_cast<wchar_t>(std::towupper(c));
    return out;
}

std::wstring VmQuery(const std::wstring& vmGuid) {
    return L"SELECT * FROM Msvm_ComputerSystem WHERE Name = " + wmi::WqlQuote(ProviderGuid(vmGuid));
}

std::wstring SettingsQuery(const std::wstring& vmGuid) {
    return L"SELECT * FROM Msvm_VirtualSystemSettingData WHERE VirtualSystemIdentifier = " +
           wmi::WqlQuote(ProviderGuid(vmGuid));
}

std::wstring SettingsPath(const std::wstring& settingsInstanceId) {
    std::wstring key;
    for (wchar_t c : settingsInstanceId) {
        if (c == L'\\' || c == L'"') key += L'\\';
        key += c;
    }
    return L"Msvm_VirtualSystemSettingData.InstanceID=\"" + key + L"\"";
}

// A settings object's disks are reached through its component association
// (Msvm_VirtualSystemSettingDataComponent); each
// Msvm_StorageAllocationSettingData holds its file in HostResource
// (documentation only: checked against recorded answers, not a provider).
std::wstring DiskQuery(const std::wstring& settingsInstanceId) {
    return L"ASSOCIATORS OF {" + SettingsPath(settingsInstanceId) +
           L"} WHERE ResultClass = Msvm_StorageAllocationSettingData";
}

// Parent holds a whole object path, possibly with the host and namespace in
// front: \\HOST\root\virtualization\v2:Msvm_VirtualSystemSettingData.InstanceID="Microsoft:<GUID>"
// (the provider's documentation gives its meaning, not an example: the
// shape is that of every WMI object path).
std::wstring GuidOfSettingsPath(const std::wstring& path) {
    static const std::wstring kKey = L"InstanceID=\"Microsoft:";
    std::wstring upper;
    for (wchar_t c : path) upper += static_cast<wchar_t>(std::towupper(c));
    std::wstring keyUpper;
    for (wchar_t c : kKey) keyUpper += static_cast<wchar_t>(std::towupper(c));
    const size_t at = upper.rfind(keyUpper);
    if (at == std::wstring::npos) return {};
    const size_t start = at + kKey.size();
    const size_t end = path.find(L'"', start);
    if (end == std::wstring::npos || end == start) return {};
    return path.substr(start, end - start);
}

}  // namespace wmi_text

}  // namespace kx::platform
