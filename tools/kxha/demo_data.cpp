// The demo destination: a machine with three disks backed up in six
// sessions. Session 1 is full; 2 to 5 are incremental; 6 is still "Active".
// Disk 3 is added to the machine before session 3, so it first appears
// there as a full disk. Every session writes seeded random runs of sectors
// (some across the 2 MiB block boundaries of the VHD files).
#include "commands.h"
#include "demo.h"

namespace kxha::demo {

DWORD BuildDestination(Destination* dest, bool progress) {
    dest->sessions.AddDisk(L"disk0000000001.zek", (4ull << 30) / 512 - 4096 + 77, 1);  // not a block multiple
    dest->sessions.AddDisk(L"disk0000000002.zek", (2ull << 30) / 512, 1);
    dest->sessions.AddDisk(L"disk0000000003.zek", (1ull << 30) / 512, 3);
    for (unsigned n = 1; n <= dest->activeSession; ++n) {
        if (progress) Out(L"\rwriting session " + kx::fixture::SessionName(n) + L"...   ");
        if (DWORD rc = dest->sessions.WriteSession(n, n == dest->fullSession, n != dest->activeSession)) return rc;
    }
    if (progress) Out(L"\r" + std::wstring(40, L' ') + L"\r");
    return 0;
}

}  // namespace kxha::demo
