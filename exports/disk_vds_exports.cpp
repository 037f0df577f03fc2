// Exported disk and volume listings and the disk-signature check.
#include "KestrixHA/disk_vds.h"
#include "disk/vds_listing.h"

KXHA_API DWORD GetOnlineDisks(std::vector<VdsDiskRecord>& disks) { return kx::disk::GetOnlineDisks(disks); }

KXHA_API DWORD GetOnlineVolumes(std::vector<VdsVolumeRecord>& volumes) { return kx::disk::GetOnlineVolumes(volumes); }

KXHA_API DWORD GetOnlineDisksAndVolumes(std::vector<VdsDiskRecord>& disks, std::vector<VdsVolumeRecord>& volumes) {
    return kx::disk::GetOnlineDisksAndVolumes(disks, volumes);
}

KXHA_API DWORD CheckDiskSignatureConflict(const std::vector<std::wstring>& identities) {
    return kx::disk::CheckDiskSignatureConflict(identities);
}
