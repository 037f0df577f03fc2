#include "host/vmware_support.h"

#include <vector>

#include "common/install_path.h"
#include "common/unique_resource.h"
#include "common/wstring_format.h"
#include "log/call_frame.h"
#include "log/debug_log.h"
#include "platform/host_util.h"
#include "platform/process_runner.h"
#include "platform/registry.h"

namespace kx::host {

namespace {

constexpr const wchar_t* kWindowsKey = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion";
constexpr const wchar_t* kVddkFolder = L"VMware\\VMware Virtual Disk Development Kit\\bin";

bool IsFile(const std::wstring& path) {
    const DWORD a = ::GetFileAttributesW(path.c_str());
    return a != INVALID_FILE_ATTRIBUTES && !(a & FILE_ATTRIBUTE_DIRECTORY);
}

bool IsFolder(const std::wstring& path) {
    const DWORD a = ::GetFileAttributesW(path.c_str());
    return a != INVALID_FILE_ATTRIBUTES && (a & FILE_ATTRIBUTE_DIRECTORY);
}

// The first of `names` inside `folder` that is a file, or "".
std::wstring FirstFile(const std::wstring& folder, std::initializer_list<const wchar_t*> names) {
    for (const wchar_t* name : names) {
        const std::wstring path = JoinPath(folder, name);
        if (IsFile(path)) return path;
    }
    return {};
}

// A string under HKLM, or "" when it cannot be read.
std::wstring ReadHklmString(const wchar_t* key, const wchar_t* name) {
    std::wstring value;
    (void)hostutil::GetRegistryString(HKEY_LOCAL_MACHINE, key, name, &value);
    return value;
}

}  // namespace

DWORD ReadFileVersion(const std::wstring& file, std::wstring* version) {
    version->clear();
    DWORD ignored = 0;
    const DWORD size = ::GetFileVersionInfoSizeW(file.c_str(), &ignored);
    if (!size) return LastErrorOr(ERROR_RESOURCE_TYPE_NOT_FOUND);
    std::vector<BYTE> block(size);
    if (!::GetFileVersionInfoW(file.c_str(), 0, size, block.data())) return LastErrorOr(ERROR_RESOURCE_TYPE_NOT_FOUND);
    VS_FIXEDFILEINFO* info = nullptr;
    UINT length = 0;
    if (!::VerQueryValueW(block.data(), L"\\", reinterpret_cast<void**>(&info), &length) || !info ||
        length < sizeof *info || info->dwSignature != VS_FFI_SIGNATURE)
        return ERROR_RESOURCE_DATA_NOT_FOUND;
    *version = Format(L"%u.%u.%u.%u", HIWORD(info->dwFileVersionMS), LOWORD(info->dwFileVersionMS),
                      HIWORD(info->dwFileVersionLS), LOWORD(info->dwFileVersionLS));
    return ERROR_SUCCESS;
}

std::wstring FindVddkLibrary() {
    // 1. The product's setting: the library or a folder that holds it.
    const std::wstring configured = ReadHklmString(kEngineKey, kVddkPathValue);
    if (!configured.empty()) {
        if (IsFile(configured)) return configured;
        if (IsFolder(configured)) {
            const std::wstring found = FirstFile(configured, {kVddkLibrary, L"bin\\vixDiskLib.dll"});
            if (!found.empty()) return found;
        }
        Log(1, L"The configured VDDK path %s holds no %s; looking in the usual folders.", configured.c_str(),
            kVddkLibrary);
    }
    // 2. Beside the product, 3. where the kit installs itself.
    std::vector<std::wstring> folders;
    std::wstring install;
    if (GetZekInstallPath(install) == ERROR_SUCCESS) folders.push_back(JoinPath(install, L"VDDK\\bin"));
    for (const wchar_t* name : {L"ProgramFilesDir", L"ProgramFilesDir (x86)"}) {
        const std::wstring root = ReadHklmString(kWindowsKey, name);
        if (!root.empty()) folders.push_back(JoinPath(root, kVddkFolder));
    }
    for (const auto& folder : folders) {
        const std::wstring found = FirstFile(folder, {kVddkLibrary});
        if (!found.empty()) return found;
    }
    for (const auto& folder : folders) Log(2, L"No %s in %s.", kVddkLibrary, folder.c_str());
    return {};
}

DWORD GetVddkVersion(std::wstring* version, std::wstring* libraryPath) {
    return RunExport<kGetVddkVersion>([&](auto&) -> DWORD {
        version->clear();
        const std::wstring library = FindVddkLibrary();
        if (libraryPath) *libraryPath = library;
        if (library.empty()) {
            Log(1, L"VDDK is not installed: no %s found.", kVddkLibrary);
            return ERROR_PRODUCT_UNINSTALLED;
        }
        if (DWORD rc = ReadFileVersion(library, version)) {
            LogErr(0, rc, L"Fail to read the version resource of %s", library.c_str());
            return rc;
        }
        Log(2, L"VDDK version %s (%s).", version->c_str(), library.c_str());
        return ERROR_SUCCESS;
    });
}

DWORD CheckVMToolStatus(DWORD* status) {
    return RunExport<kCheckVMToolStatus>(
        [&](auto& frame) -> DWORD {
            if (!status) return frame.InvalidParameter();
            if (DWORD rc = hostutil::WindowsServiceMgr::GetServiceState(kVmToolsService, status)) {
                LogErr(0, rc, L"Fail to query the service %s", kVmToolsService);
                return rc;
            }
            if (*status == 0)
                Log(2, L"VMware Tools are not installed (no service %s).", kVmToolsService);
            else
                Log(2, L"The service %s is in state %u.", kVmToolsService, *status);
            return ERROR_SUCCESS;
        });
}

std::wstring ResolveSetup(Installer which, const std::wstring& setup) {
    if (IsFile(setup)) return setup;
    if (!IsFolder(setup)) return {};
    return which == Installer::kVmwareTools ? FirstFile(setup, {L"setup64.exe", L"setup.exe"})
                                            : FirstFile(setup, {L"support\\amd64\\setup.exe", L"setup.exe"});
}

std::wstring InstallerCommandLine(Installer which, const std::wstring& program) {
    const std::wstring quoted = L"\"" + program + L"\"";
    return which == Installer::kVmwareTools ? quoted + L" /S /v \"/qn REBOOT=R\"" : quoted + L" /quiet /norestart";
}

namespace {

DWORD RunInstaller(Installer which, const std::wstring& setup, DWORD* exitCode) {
    DWORD local = 0;
    DWORD* code = exitCode ? exitCode : &local;
    *code = 0;
    const std::wstring program = ResolveSetup(which, setup);
    if (program.empty()) {
        Log(0, L"No installer at %s.", setup.c_str());
        return ERROR_FILE_NOT_FOUND;
    }
    const std::wstring line = InstallerCommandLine(which, program);
    Log(2, L"Running %s", line.c_str());
    if (platform::Processes().Run(line, kInstallerTimeoutMs, code) != ERROR_SUCCESS) {
        *code = 0;
        Log(0, L"The installer %s could not be started or did not finish within %u minutes.", program.c_str(),
            kInstallerTimeoutMs / 60000);
        return ERROR_PROCESS_ABORTED;
    }
    switch (*code) {
        case ERROR_SUCCESS: Log(2, L"The installer finished."); break;
        case ERROR_SUCCESS_REBOOT_REQUIRED: Log(1, L"The installer finished; a restart completes it."); break;
        case ERROR_SUCCESS_REBOOT_INITIATED: Log(1, L"The installer finished and started a restart."); break;
        default: LogErr(0, *code, L"The installer %s failed", program.c_str());
    }
    return *code;
}

}  // namespace

DWORD InstallVMwareTools(const std::wstring& setup, DWORD* exitCode) {
    return RunExport<kInstallVMwareTools>(
        [&](auto& frame) -> DWORD {
            if (exitCode) *exitCode = 0;
            return setup.empty() ? frame.InvalidParameter() : RunInstaller(Installer::kVmwareTools, setup, exitCode);
        }, setup.c_str());
}

DWORD InstallIntegrationService(const std::wstring& setup, DWORD* exitCode) {
    return RunExport<kInstallIntegrationService>(
        [&](auto& frame) -> DWORD {
            if (exitCode) *exitCode = 0;
            return setup.empty() ? frame.InvalidParameter()
                                 : RunInstaller(Installer::kIntegrationServices, setup, exitCode);
        },
        setup.c_str());
}

}  // namespace kx::host
