// The host's disks and volumes as the Virtual Disk Service (VDS) sees them,
// and the check that a disk about to be attached does not carry the
// identity of a disk already on line.
//
// Every call opens its own VDS session and closes it before it returns:
// COM is initialised for the calling thread as a single-threaded apartment
// when the thread has not initialised it yet (a thread already in another
// model is used as it is), the service is loaded through the service
// loader, and nothing is kept between calls.
//
// Opening a session waits for the service:
// - while the loader answers CO_E_SERVER_EXEC_FAILURE (the service is still
//   starting), it tries again every 2 s, seven rounds in all, logging
//   "VcmDiskOperation::Initialize, the N round" for each failed round;
// - once loaded, the service is asked whether it is ready every 500 ms for
//   at most 60 s; a service that is not ready then (or answers with a
//   failure) makes the session fail.
// A session that cannot be opened gives 0xFFFFFFFF.
//
// The three listing calls also bring new disks into use, every time they
// are called: each unallocated (raw) disk gets an empty MBR partition
// table with a fresh non-zero signature (the disk is opened as its device
// path and its layout set: four empty entries, no partition), and each
// disk of a foreign dynamic pack is imported into the host's own dynamic
// pack (made when there is none). The service is re-enumerated after
// either.
//
// A volume counts as dynamic when its pack belongs to the dynamic-disk
// software provider (the provider's VDS_PF_DYNAMIC flag), or when its type
// is one only dynamic disks have (span, stripe, mirror, parity).
#pragma once

#include <string>
#include <vector>

#include "KestrixHA/api.h"

// One extent of a disk: where it starts and the volume it belongs to
// ("{00000000-0000-0000-0000-000000000000}" for free space).
struct VdsDiskExtentRecord {
    unsigned long long offset = 0;
    std::wstring volumeGuid;
};

// One on-line disk (status on line, device type FILE_DEVICE_DISK).
struct VdsDiskRecord {
    unsigned long long size = 0;       // bytes
    unsigned long diskNumber = 0;      // N of its \\?\PhysicalDriveN name
    unsigned long partitionStyle = 0;  // 0 raw or unknown, 1 MBR, 2 GPT
    unsigned long signature = 0;       // MBR signature (0 for GPT)
    // The 16-byte identity as GUID text in braces, upper case: the GPT disk
    // GUID, or for MBR the signature in its first four bytes
    // ("{12345678-0000-0000-0000-000000000000}").
    std::wstring diskGuid;
    std::vector<VdsDiskExtentRecord> extents;  // in the service's order
};

// One on-line volume.
struct VdsVolumeRecord {
    std::wstring volumeGuid;  // the service's volume id, GUID text
    std::wstring letter;      // "C:", or empty
    unsigned long flags = 0;  // VDS_VOLUME_FLAG bits
    int dynamic = 0;          // 1 for a dynamic-disk volume
};

// Each clears its vectors first and fills them in the service's order
// (disks as the software providers' packs list them; volumes by pack).
// Returns 0, 0xFFFFFFFF when no session could be opened, or the failing
// enumeration's HRESULT; records appended before a failure stay.
KXHA_API DWORD GetOnlineDisks(std::vector<VdsDiskRecord>& disks);
KXHA_API DWORD GetOnlineVolumes(std::vector<VdsVolumeRecord>& volumes);
// Disks first; volumes only when the disks were read.
KXHA_API DWORD GetOnlineDisksAndVolumes(std::vector<VdsDiskRecord>& disks, std::vector<VdsVolumeRecord>& volumes);

// 1 when no on-line disk of the host carries one of `identities`; 0 when
// one does, or when the check could not be made. An identity is an MBR
// signature as ten decimal digits ("%010u") or a GPT disk GUID as GUID
// text; they are compared without regard to case. An empty list gives 1
// at once.
//
// Every process that attaches or checks disks for a conversion serialises
// on the mutex "Global\Veltrana.Kestrix.VcmDiskOperation": the check waits
// for it for 10 s and gives 0 without it. While it holds the mutex it
// sets the service's SAN policy to VDS_SP_OFFLINE_SHARED (disks that
// appear on shared buses, where attached disks arrive, stay off line) and
// the service flag VDS_SVF_AUTO_MOUNT_OFF, so that a disk attached next is
// not mounted under a colliding signature. Both stay set after the call.
KXHA_API DWORD CheckDiskSignatureConflict(const std::vector<std::wstring>& identities);
