// Exported raw disk and file checks.
#include "KestrixHA/disk_checks.h"
#include "disk/cloud_disk_locate.h"
#include "disk/raw_checks.h"

namespace d = kx::disk;

KXHA_API DWORD CheckIfExistDiskLargerThan2T(bool* larger) { return d::CheckIfExistDiskLargerThan2T(larger); }

KXHA_API DWORD getMaxDiskSize(int64_t* size) { return d::getMaxDiskSize(size); }

KXHA_API DWORD GetSystemDiskSignature(DWORD* signature) { return d::GetSystemDiskSignature(signature); }

KXHA_API DWORD CheckFileCryptCmprsAttr(const wchar_t* path, bool* compressed, bool* encrypted) {
    return d::CheckFileCryptCmprsAttr(path, compressed, encrypted);
}

KXHA_API DWORD CheckIfFileOnCmprsVol(const wchar_t* path, bool* onCompressed) {
    return d::CheckIfFileOnCmprsVol(path, onCompressed);
}

KXHA_API DWORD GetDiskPathforCloudDisk(CloudDiskLocateRequest* request) { return d::GetDiskPathforCloudDisk(request); }
