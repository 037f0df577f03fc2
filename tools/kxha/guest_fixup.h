// The whole off-line repair a conversion job runs on a guest before its
// first start, through the library's exports, with what it changed read
// from scratch copies of the hives taken before and the fixed files after.
#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

#include "hive_diff.h"

namespace kxha {

struct FixupPlan {
    std::wstring windows;     // the guest's Windows folder
    DWORD targetType = 0;     // the platform the guest will run on
    bool ec2 = false;         // EC2 preparation instead of the boot drivers
    std::wstring hostName;    // empty: the name is kept
    bool rdp = false;         // open remote desktop
    std::wstring bootVolume;  // empty: no safe boot
    bool uefi = false;
    std::wstring helperSource;  // non-empty: the helper service injected from this folder
    bool repair = true;         // false: the helper service alone (the software hive is not loaded)
};

// The platform type a target name stands for; nullopt for an unknown name.
struct FixupTarget {
    DWORD type;
    bool ec2;
};
std::optional<FixupTarget> TargetByName(const std::wstring& name);
inline constexpr const wchar_t* kTargetNames = L"hyperv|vmware|xen|ec2|nutanix";

struct HiveChanges {
    std::wstring name;  // "system", "software", "BCD"
    std::wstring path;  // the fixed file
    std::vector<HiveChange> changes;
};

struct FixupResult {
    std::wstring failedStep;  // empty when every step succeeded
    DWORD rc = 0;
    std::vector<HiveChanges> hives;  // filled when every step succeeded
};

// Copies the hives aside, loads both, injects the helper service when a
// source folder is given, injects the boot drivers (or prepares
// for EC2), switches the platform services, opens remote desktop when asked,
// turns off dynamic DNS updates, unloads (which writes the changes), then
// sets the host name and safe boot when asked. Stops at the first failing
// step; the loaded hives and the copies are released on every path.
FixupResult RunGuestFixup(const FixupPlan& plan);

// Prints the failing step (through Fail) or the tables of every hive.
int ReportFixup(const FixupResult& r);

}  // namespace kxha
