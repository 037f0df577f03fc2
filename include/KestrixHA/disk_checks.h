// Checks on the host's physical disks and on files, made before disks are
// converted or attached: any disk larger than 2 TiB (MBR or GPT for a new
// disk), the largest disk, the boot disk's MBR signature, and whether a file
// is compressed or encrypted or lies on a compressing volume.
//
// The disks are the present interfaces of the disk class
// {53F56307-B6BF-11D0-94F2-00A0C91EFB8B} as SetupAPI lists them; a disk's
// size is what IOCTL_DISK_GET_LENGTH_INFO answers on its interface path.
// The walk over the interfaces logs "No more interfaces" and "No More disks,
// cnt = N" at its end, and the failing SetupAPI call with its code
// otherwise ("SetupDiGetClassDevs failed with error: %d", ...).
#pragma once

#include <cstdint>

#include "KestrixHA/api.h"

// Sets *larger when some disk is strictly larger than 2 TiB (0x20000000000
// bytes: a disk of exactly 2 TiB is not larger). Sizes that cannot be read
// are logged at level 1 ("GetDiskSize failed, disk = %s, rc = 0x%X") and
// skipped. Returns:
// - 0 when a larger disk was found, and also when every disk was looked at
//   without finding one (*larger false): a walk that reached the end of the
//   disk list is a complete answer, so it is not reported as
//   ERROR_NO_MORE_ITEMS;
// - the error that broke the walk over the disk interfaces otherwise
//   (*larger is still set when a disk read before that point was larger);
// - 87 for a null `larger`.
KXHA_API DWORD CheckIfExistDiskLargerThan2T(bool* larger);

// The largest disk size in *size (0 first). Returns 0 when the largest size
// read is above 0, whatever failed on the way; otherwise the last error seen:
// the last size read that failed, or, when none failed, the walk's status
// (ERROR_NO_MORE_ITEMS (259) for a host without disks). 87 for null `size`.
KXHA_API DWORD getMaxDiskSize(int64_t* size);

// The MBR signature (the 32-bit little-endian value at byte 440 of sector 0)
// of the disk that holds the Windows folder's volume: the disk of the first
// extent IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS names for "\\.\C:" (the
// folder's drive), read as "\\.\PHYSICALDRIVEn". A host WMI session
// (root\cimv2) is held for the length of the call; a session that cannot be
// opened is logged and does not stop the read. Returns 0 or the first
// failing step's error; 87 for a null `signature`.
KXHA_API DWORD GetSystemDiskSignature(DWORD* signature);

// The file's FILE_ATTRIBUTE_COMPRESSED (0x800) and FILE_ATTRIBUTE_ENCRYPTED
// (0x4000). Returns 0; 0x80070057 for a null or empty path or null outs;
// otherwise GetFileAttributesW's error (2 for a missing file, 3 for a missing
// folder), logged "CheckFileCryptCmprsAttr failed, file = %s, rc = %d".
KXHA_API DWORD CheckFileCryptCmprsAttr(const wchar_t* path, bool* compressed, bool* encrypted);

// Whether the volume that holds `path` compresses: its file-system flags
// carry FILE_VOLUME_IS_COMPRESSED (0x8000), or its root folder has
// FILE_ATTRIBUTE_COMPRESSED. A compressed file on a volume whose root is not
// compressed gives false: the question is about the volume. *onCompressed
// is cleared first, so every failure leaves it false. Returns 0; 0x80070057
// for a null or empty path (or a null out); the error of GetVolumePathNameW,
// GetVolumeInformationW or of reading the root's attributes.
KXHA_API DWORD CheckIfFileOnCmprsVol(const wchar_t* path, bool* onCompressed);

// The request of GetDiskPathforCloudDisk: the disk a cloud platform has
// just attached to this host, and where it was found. Filled by the caller
// except `diskPath`. A raw (uninitialised) disk is matched by its size alone
// and is given a partition table of `partitionStyle` carrying `signature` or
// `diskGuid`; an MBR disk is matched by size and `signature`, a GPT disk by
// size and `diskGuid`. Only fixed media count.
#pragma pack(push, 8)
struct CloudDiskLocateRequest {
    // sizeof(CloudDiskLocateRequest); other values are refused with 87.
    DWORD cbSize;
    // 1 MBR or 2 GPT: the style the disk has, or gets when it is found raw.
    DWORD partitionStyle;
    // The wanted size in bytes (exact).
    ULONGLONG diskSize;
    // MBR: the disk signature (also the one written to a raw disk).
    DWORD signature;
    // Non-zero: look only among the disks that are not initialised yet
    // (found faster, and a disk already in use cannot be taken); zero: among
    // all disks of the host.
    DWORD unallocatedOnly;
    // GPT: the disk GUID (also the one written to a raw disk).
    GUID diskGuid;
    // Out: the located disk's device path ("\\?\..." or
    // "\\.\PHYSICALDRIVEn"), NUL-terminated; empty when none was found.
    wchar_t diskPath[MAX_PATH];
};
#pragma pack(pop)

// Locates the disk of `request` that a cloud platform has just attached, and
// gives its device path in request->diskPath:
// - A disk service session is opened (the service's start is waited for as
//   in the disk listings). Once a second, for at most 120 rounds, the host's
//   disks (or only the uninitialised ones) are searched for a fixed disk of
//   exactly `diskSize` bytes: a raw disk is taken by its size alone; an
//   initialised disk must be of `partitionStyle` and carry `signature`
//   (MBR) or `diskGuid` (GPT).
// - The disk found is made writable and taken off line (so that no volume of
//   it is mounted or given a letter while the product writes it).
// - A disk found raw gets a new, empty partition table of `partitionStyle`
//   with `signature` or `diskGuid` (IOCTL_DISK_CREATE_DISK, then an empty
//   drive layout; no partition is made).
// Returns 0 with the path; 0xFFFFFFFF when no such disk showed up in 120
// rounds or the disk service could not be started; the error of opening the
// disk or writing its table ("Failed to open disk %s, error %d", "Failed to
// create disk, Error %d.", "Failed to set disk layout for %s."); 87 for a
// null request, a wrong cbSize or a style other than 1 or 2. diskPath is
// empty on every failure.
KXHA_API DWORD GetDiskPathforCloudDisk(CloudDiskLocateRequest* request);
