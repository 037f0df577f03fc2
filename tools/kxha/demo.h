// kxha demo: a backup destination on built-in demo data and one
// virtual-standby cycle over it through the library's exports.
#pragma once

#include <windows.h>

#include <string>

#include "tools/vhd_destination/vhd_destination.h"

namespace kxha::demo {

struct Destination {
    explicit Destination(const std::wstring& r) : root(r), sessions([r](unsigned) { return r; }) {}
    std::wstring root;
    unsigned fullSession = 1, lastFinished = 5, activeSession = 6;
    kx::fixture::VhdDestination sessions;
};

// Writes the destination under its root: VStore\S########## with
// BackupInfo.XML and VHD disk files holding seeded random writes. 0 or the
// failing code.
DWORD BuildDestination(Destination* dest, bool progress);

}  // namespace kxha::demo
