// The CD-ROM drive letter of a converted guest that starts on Hyper-V.
//
// Hyper-V's virtual CD-ROM is a device the guest has never seen: at its
// first start the guest's mount manager gives it the lowest drive letter
// from C: on that no entry of the system hive's MountedDevices holds. These
// calls steer that choice off-line so that the CD-ROM gets the letter the
// production machine's CD-ROM had, and no data volume loses its letter:
// - `letter` (C..Z, any case; anything else 87) is the production CD-ROM's
//   letter. When "\DosDevices\<letter>:" names a data volume (12-byte MBR
//   signature and offset, or "DMIO:ID:" and a GUID) or any device other
//   than a CD-ROM, the call returns ERROR_ALREADY_ASSIGNED (85) and changes
//   nothing. When it names a CD-ROM (the production machine's, absent on
//   Hyper-V) or an earlier reservation, that value is removed.
// - Every letter from C: up to the wanted one that no value holds gets a
//   reservation: "\DosDevices\X:" with the UTF-16 path
//   "\??\KestrixHA#ReservedDriveLetter#X", which no device has. Letters
//   above the wanted one and every other value are left as they are.
// A second call changes nothing. The reservations keep those letters off
// volumes the guest has not seen yet; an administrator frees one by
// removing its value. A guest without MountedDevices gets the key when a
// reservation is written. Returns 0, 87, 85, the hive load's code (10 for
// a missing hive, 1009 for a file that is not a hive) or the first failed
// write's code.
// Log: "Drive letter X: freed from the guest's old CD-ROM.", "Drive letter
// X: reserved so that the CD-ROM gets Y:.", or on refusal "Drive letter X:
// belongs to the guest's MBR volume; the CD-ROM letter is not changed.".
#pragma once

#include <string>

#include "KestrixHA/api.h"
#include "KestrixHA/guest.h"

// `systemDir`: the guest's Windows folder.
KXHA_API DWORD AdjustVirtualCDDriveLetter_HyperV(const std::wstring& systemDir, wchar_t letter);
// `system`: a hive loaded by GetSystemHiveKeyEx (null: loaded here). `freed`
// and `reserved` (optional) get the letters removed and reserved, in order
// ("E", "DE").
KXHA_API DWORD AdjustVirtualCDDriveLetter_HyperVEx(const std::wstring& systemDir, wchar_t letter,
                                                   RegistryHiveLoader* system, std::wstring* freed,
                                                   std::wstring* reserved);
