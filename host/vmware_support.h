// VMware support on this machine: the VDDK library's version, the state of
// the VMware Tools service, and the silent installers of VMware Tools and
// of Hyper-V's integration services.
#pragma once

#include <windows.h>

#include <string>

namespace kx::host {

// The service VMware Tools runs as.
inline constexpr const wchar_t* kVmToolsService = L"VMTools";
// The REG_SZ under the engine key that names the VDDK library or its folder.
inline constexpr const wchar_t* kVddkPathValue = L"VddkPath";
inline constexpr const wchar_t* kVddkLibrary = L"vixDiskLib.dll";
// How long an installer may run before it is ended.
inline constexpr DWORD kInstallerTimeoutMs = 30 * 60 * 1000;

// The fixed file version of a PE file's version resource as
// "major.minor.build.revision". 0 or the system's code.
[[nodiscard]] DWORD ReadFileVersion(const std::wstring& file, std::wstring* version);

// Where the VDDK library is, in the order GetVddkVersion looks: "" when
// nowhere (then the places looked at are logged).
std::wstring FindVddkLibrary();

[[nodiscard]] DWORD GetVddkVersion(std::wstring* version, std::wstring* libraryPath);

[[nodiscard]] DWORD CheckVMToolStatus(DWORD* status);

enum class Installer { kVmwareTools, kIntegrationServices };

// The setup program of `setup` (itself when it is a file, else the first of
// the installer's usual names inside the folder), or "" when there is none.
std::wstring ResolveSetup(Installer which, const std::wstring& setup);
// The command line the installer runs with.
std::wstring InstallerCommandLine(Installer which, const std::wstring& program);

// Runs the installer through the process seam (platform/process_runner.h).
[[nodiscard]] DWORD InstallVMwareTools(const std::wstring& setup, DWORD* exitCode);
[[nodiscard]] DWORD InstallIntegrationService(const std::wstring& setup, DWORD* exitCode);

}  // namespace kx::host
