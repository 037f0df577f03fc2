// What the boot configuration fix-ups need of the host, behind one small
// interface so that a test can stand in for a part Wine cannot provide:
// the recovery core library, the command interpreter, the lookup of a
// program on the PATH and the host's Windows version.
#pragma once

#include <windows.h>

#include <string>

#include "common/unique_resource.h"

namespace kx::platform {

// The recovery core's unpacker: `compressedFile` (the recovery information
// file) is unpacked into the folder `destinationFolder`, which exists.
// 0 on success, otherwise a Win32-style error code. Both paths are wide
// strings. The calling convention is WINAPI (__stdcall), the usual one of
// a Windows DLL's exports; on x64 there is only the one convention, so the
// choice matters only to a 32-bit build.
using DrUnCompressFileFn = DWORD(WINAPI*)(const wchar_t* compressedFile, const wchar_t* destinationFolder);

inline constexpr const wchar_t* kRecoveryCoreDll = L"RecoveryCore.DLL";
inline constexpr const char* kDrUnCompressFile = "DrUnCompressFile";

class BootHost {
public:
    virtual ~BootHost() = default;
    // LoadLibraryW("RecoveryCore.DLL") with the system's search order; null
    // and `*error` = the system's code when it does not load.
    virtual unique_hmodule LoadRecoveryCore(DWORD* error);
    // `command` run by the command interpreter (_wsystem): its exit status,
    // or -1 when the interpreter could not be started.
    virtual int RunCommand(const std::wstring& command);
    // Whether the command interpreter would find `program` (a file name with
    // its extension): the current folder, then each folder of the PATH.
    virtual bool CanFindProgram(const wchar_t* program);
    // The host's Windows major version (GetVersionExW).
    virtual DWORD HostMajorVersion();
};

// The host in use: the real one unless a test put another in place.
BootHost& CurrentBootHost();

namespace testing {
// Puts `host` in place of the real one (nullptr restores the real one).
// The caller keeps `host` alive while it is in place.
void SetBootHost(BootHost* host) noexcept;
}  // namespace testing

}  // namespace kx::platform
