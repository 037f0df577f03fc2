// The drive letter of a guest's CD-ROM drive once it starts on Hyper-V.
//
// The Hyper-V CD-ROM is a device the guest has never seen, so at its first
// start the mount manager gives it the lowest free letter from C: on. The
// letters it must not take are held in the system hive's MountedDevices
// ("\DosDevices\X:" values whose data names the volume). This fix-up frees
// the wanted letter from the production machine's CD-ROM entries and holds
// every free letter below it with a reservation entry, so the new CD-ROM's
// lowest free letter is the wanted one and no data volume's letter moves.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "guestfix/hive_access.h"

namespace kx::guestfix {

// What a "\DosDevices\X:" value's data names.
enum class MountKind {
    kMbrVolume,   // 12 bytes: disk signature and partition offset
    kGuidVolume,  // "DMIO:ID:" and a 16-byte GUID: a GPT or dynamic volume
    kCdRom,       // a UTF-16 device path of a CD-ROM ("...#CdRom...")
    kReserved,    // a reservation written here (kReservedPrefix)
    kOther,       // any other device path or data (floppy, removable, ...)
};

// The UTF-16 device path a reservation holds: the prefix and the letter.
// No device has such a path, so the mount manager keeps the letter held.
inline constexpr const wchar_t* kReservedPrefix = L"\\??\\KestrixHA#ReservedDriveLetter#";

MountKind ClassifyMountData(const std::vector<BYTE>& data);

// The letters the fix-up changed, each an upper-case letter in order.
struct CdLetterChanges {
    std::wstring freed;     // CD-ROM or reservation entries removed
    std::wstring reserved;  // reservation entries written
};

// Frees `letter` (C..Z, any case; others 87) for the guest's new CD-ROM:
// - refuses with ERROR_ALREADY_ASSIGNED (85) and changes nothing when the
//   letter belongs to a data volume or any device other than a CD-ROM;
// - removes "\DosDevices\<letter>:" when it names a CD-ROM (the production
//   machine's, which is not on Hyper-V) or a reservation; CD-ROM entries on
//   other letters stay and keep holding those letters;
// - writes a reservation for every letter from C: up to the wanted one
//   that is then free.
// A second run changes nothing. The MountedDevices key is made when the
// guest has none and a reservation is to be written. `system` may be null
// (then the hive is loaded here); `changes` is optional. Returns 0, 87, 85, the hive load's code, or the
// first failed write's code (the writes before it stay).
[[nodiscard]] DWORD AdjustVirtualCDDriveLetter_HyperV(const std::wstring& systemDir, wchar_t letter);
[[nodiscard]] DWORD AdjustVirtualCDDriveLetter_HyperVEx(const std::wstring& systemDir, wchar_t letter,
                                                        HiveLoader* system, CdLetterChanges* changes);

}  // namespace kx::guestfix
