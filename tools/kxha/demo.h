// kxha demo: a backup destination on built-in demo data and one
// virtual-standby cycle over it through the library's exports.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace kxha::demo {

// One disk of the demo machine and the sectors each session wrote to it.
struct DemoDisk {
    std::wstring file;               // disk##########.zek
    unsigned long long sectors = 0;
    unsigned firstSession = 0;       // the session where it appears as a full disk
    std::vector<std::vector<BYTE>> written;  // per session (index = session number): a bit per sector
};

struct Destination {
    std::wstring root;
    unsigned fullSession = 1, lastFinished = 5, activeSession = 6;
    std::vector<DemoDisk> disks;
};

// Writes the destination under `root`: VStore\S########## with BackupInfo.XML
// and VHD disk files holding seeded random writes. 0 or the failing code.
DWORD BuildDestination(const std::wstring& root, Destination* dest, bool progress);

}  // namespace kxha::demo
