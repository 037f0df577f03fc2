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

// The demo guest's data: the folder "demo-data" next to kxha.exe.
std::wstring DefaultGuestData();

// The guest stage (demo_guest.cpp): builds a boot volume from `data` under
// `folder`\guest, repairs it for Hyper-V, prints the changes (or, with
// `json`, leaves its JSON fields in *jsonFields) and checks them against
// what the repair must change. The tool's exit status: 0 when it matched.
int GuestStage(const std::wstring& folder, const std::wstring& data, bool json, std::wstring* jsonFields);

}  // namespace kxha::demo
