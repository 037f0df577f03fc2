// What the host configuration code needs of the system besides WMI: name
// resolution through the DNS client and the restart call. Both sit behind
// one small interface so that a test can stand in for them: a restart must
// never really happen in a test, and a resolver can be pointed at a
// private server or replaced where none can be started.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace kx::platform {

class HostSystem {
public:
    virtual ~HostSystem() = default;
    // DnsQuery_W(name, type 1, `options`) with the server's answer as raw
    // 32-bit addresses (network byte order), one per record of the
    // returned list in order. Every record is read as an A record, whatever
    // its type. Returns the DNS status (0 with an empty list for no
    // answer).
    virtual LONG QueryA(const std::wstring& name, DWORD options, std::vector<DWORD>* addresses);
    // ExitWindowsEx(flags, reason).
    virtual BOOL RequestRestart(UINT flags, DWORD reason);
};

// The system in use: the real one unless a test put another in place.
HostSystem& CurrentHostSystem();

namespace testing {
// Puts `system` in place of the real one (nullptr restores the real one).
// The caller keeps it alive while it is in place.
void SetHostSystem(HostSystem* system) noexcept;
}  // namespace testing

}  // namespace kx::platform
