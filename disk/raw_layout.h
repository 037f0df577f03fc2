// A new, empty partition table on a raw disk: the step that gives a disk
// the cloud platform has just attached (blank, with no table yet) the
// identity its source disk had, so that the host and the backups agree on
// which disk it is.
//
// The layout written is an empty table of the asked style and nothing else:
// - MBR: the disk signature at byte 440 and four unused entries;
// - GPT: a protective MBR, the disk GUID, 128 entries, all unused, with the
//   usable area from the first sector after the primary entry array to the
//   last one before the backup array.
// No partition is made: the disk's content is written afterwards by the
// caller (volumes would get mounted and letters while the copy runs).
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

namespace kx::disk {

// Partition styles as the disk records number them.
inline constexpr uint32_t kStyleMbr = 1;
inline constexpr uint32_t kStyleGpt = 2;

// Opens `devicePath` read-write (sharing read and write), sends
// IOCTL_DISK_CREATE_DISK with `signature` (MBR) or `diskGuid` (GPT), then
// IOCTL_DISK_SET_DRIVE_LAYOUT_EX with the empty layout above (a GPT's sized
// from IOCTL_DISK_GET_DRIVE_GEOMETRY_EX). Returns 0, 87 for a style other than
// 1 or 2 or an empty path, or the failing step's error. Log: "Failed to
// open disk %s, error %d", "Failed to create disk, Error %d.", "Failed to
// set disk layout for %s.".
DWORD WriteNewPartitionTable(const std::wstring& devicePath, uint32_t partitionStyle, uint32_t signature,
                             const GUID& diskGuid);

}  // namespace kx::disk
