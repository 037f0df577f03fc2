// Where the conversion expects a VM's recovery information for its running
// state ("snapshot NOW"): beside its disks in the session folder that holds
// them, under the header destination. Each function is the export of the
// same name, run in the export frame. The VM name is only logged; the GUID
// selects the VM.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace kx::hyperv {

inline constexpr const wchar_t* kAdrConfigureNow = L"AdrConfigure_now.xml";
inline constexpr const wchar_t* kAdrInfoC = L"AdrInfoC.drz";
inline constexpr const wchar_t* kAdrConfigure = L"AdrConfigure.xml";
inline constexpr const wchar_t* kGuestDrInfoTool = L"GuestDrInfoTool.exe";

// Path exports: the session folder + "AdrConfigure_now.xml" /
// "AdrInfoC.drz". A buffer of at least the path's length plus one
// characters gets the path and keeps its size; otherwise the size is set to
// that and the result is 122 (ERROR_INSUFFICIENT_BUFFER).
[[nodiscard]] DWORD GetDrInfoLocalCopyPathForSnapNow_HyperV(const wchar_t* vmName, const wchar_t* vmGuid,
                                                            wchar_t* buffer, DWORD* chars);
[[nodiscard]] DWORD GetAdrInfoCLocalCopyPathForSnapNow_HyperV(const wchar_t* vmName, const wchar_t* vmGuid,
                                                              wchar_t* buffer, DWORD* chars);

// "AdrConfigure_now.xml" in the folder of every disk of the running state.
[[nodiscard]] DWORD GetDrInfoLocalCopyPathsForSnapNow_HyperV(const wchar_t* vmGuid, std::vector<std::wstring>& paths);

// The command line that asks the guest information tool to write the VM's
// "AdrConfigure.xml" into `folder` (one trailing "\" or "/" dropped).
std::wstring GuestDrInfoToolCommandLine(const wchar_t* vmName, const wchar_t* vmGuid, const wchar_t* folder);

// Runs "GuestDrInfoTool.exe" for the VM (hidden, no time limit) and copies
// the "AdrConfigure.xml" it wrote over every "AdrConfigure_now.xml" path of
// the VM. 0, the tool's non-zero exit code, the process-creation error, the
// path list's code, or the last failing copy's code (later copies are still
// made).
[[nodiscard]] DWORD GetIVMAdrConfigLocalCopyPathForSnapNow_HyperV(const wchar_t* vmName, const wchar_t* vmGuid,
                                                                  const wchar_t* folder);

}  // namespace kx::hyperv
