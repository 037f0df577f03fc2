// Finding a disk that a cloud platform has just attached to this host,
// through the Virtual Disk Service, and taking it off line so that its
// partition table can be written or its volumes kept from being mounted.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>

#include "KestrixHA/disk_checks.h"

namespace kx::disk {

struct CloudDiskQuery {
    uint64_t size = 0;            // bytes; the disk's size must equal it
    // 1 MBR (matched by `signature`) or 2 GPT (by `diskGuid`); 0 asks for a
    // raw disk only. A raw disk of the size is taken whatever is asked.
    uint32_t partitionStyle = 0;
    uint32_t signature = 0;       // MBR: the signature wanted
    GUID diskGuid{};              // GPT: the disk GUID wanted
    bool unallocatedOnly = false; // search the unallocated disks only, not every disk
};

struct LocatedCloudDisk {
    std::wstring devicePath;  // the \\?\PhysicalDriveN name the service gives
    uint32_t partitionStyle = 0;
    uint32_t diskNumber = 0;
};

// Looks for a fixed disk (media type fixed) matching `q` once a second for
// 120 rounds. On a match the disk is taken off line (made writable first;
// an off-line failure is logged, the disk still reported) and `*out` is
// filled: 0. 0xFFFFFFFF after the last round without a match, or when the
// service cannot be started.
DWORD LocateCloudDisk(const CloudDiskQuery& q, LocatedCloudDisk* out);

// The export: locates the disk of `request`, writes a new table of the
// asked style and identity to it when it was found raw, and gives its path.
DWORD GetDiskPathforCloudDisk(CloudDiskLocateRequest* request);

}  // namespace kx::disk
