// The host's on-line disks and volumes through a VDS session, and the
// disk-signature conflict check. The public contract stands in
// include/KestrixHA/disk_vds.h.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "KestrixHA/disk_vds.h"

namespace kx::disk {

// Shared by every process that attaches or checks disks for a conversion.
inline constexpr const wchar_t* kDiskOperationMutex = L"Global\\Veltrana.Kestrix.VcmDiskOperation";
inline constexpr DWORD kDiskOperationWaitMs = 10000;

DWORD GetOnlineDisks(std::vector<VdsDiskRecord>& disks);
DWORD GetOnlineVolumes(std::vector<VdsVolumeRecord>& volumes);
DWORD GetOnlineDisksAndVolumes(std::vector<VdsDiskRecord>& disks, std::vector<VdsVolumeRecord>& volumes);
DWORD CheckDiskSignatureConflict(const std::vector<std::wstring>& identities);

}  // namespace kx::disk
