// What the header block of a new log file tells about the code that writes
// it and the host it runs on. Gathered once per process.
#pragma once

#include <windows.h>

namespace kx::log {

struct HostInfo {
    // The library's build constants, the same ones its version resource is
    // made from.
    wchar_t maker[64] = {};
    wchar_t product[64] = {};
    int major = 0, minor = 0, build = 0;
    int update = 0;  // 0 when no update number is set
    wchar_t computer[64] = {};
    DWORD osMajor = 0, osMinor = 0;
    const wchar_t* platform = L"Unknown";  // "X86", "X64", "IA64" or "Unknown"
};

void ReadHostInfo(HostInfo* info) noexcept;

}  // namespace kx::log
