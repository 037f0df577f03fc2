// Checks made on the host's physical disks and on files before disks are
// converted or attached: disk sizes against the 2 TiB limit of MBR, the
// boot disk's signature, and compression or encryption of a file and of
// the volume that holds it. Each export function is its whole transaction.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

namespace kx::disk {

// Disks strictly larger than this need a GPT layout.
inline constexpr int64_t kMbrLimit = 0x20000000000LL;

// The byte length of the disk at `path` (IOCTL_DISK_GET_LENGTH_INFO);
// 0 or the failing call's error (logged).
DWORD GetDiskSize(const std::wstring& path, int64_t* size);

// The system volume's device name ("C:"), from the Windows folder.
DWORD GetSystemVolume(std::wstring* volume);

// The number of the disk that holds the first extent of `volume` ("C:").
DWORD GetVolumeDiskNumber(const std::wstring& volume, DWORD* disk);

// The MBR signature in sector 0 of the disk at `path`.
DWORD ReadDiskSignature(const std::wstring& path, DWORD* signature);

DWORD CheckIfExistDiskLargerThan2T(bool* larger);
DWORD getMaxDiskSize(int64_t* size);
DWORD GetSystemDiskSignature(DWORD* signature);
DWORD CheckFileCryptCmprsAttr(const wchar_t* path, bool* compressed, bool* encrypted);
DWORD CheckIfFileOnCmprsVol(const wchar_t* path, bool* onCompressed);

}  // namespace kx::disk
