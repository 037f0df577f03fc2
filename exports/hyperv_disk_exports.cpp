// Exported repair of a virtual disk's geometry for Hyper-V.
#include <new>

#include "KestrixHA/hyperv_disk.h"
#include "common/result_codes.h"
#include "hyperv/adjust_boot_cfg.h"

DWORD CAdjustBootCfg_HyperV::AdjustDiskVolumeCHS(const wchar_t* path, const wchar_t* volumeName,
                                                 ULONGLONG volumeOffset, bool* foundBootable) {
    try {
        return kx::hyperv::AdjustDiskVolumeCHS(path, volumeName, volumeOffset, foundBootable);
    } catch (const std::bad_alloc&) {
        return ERROR_OUTOFMEMORY;
    } catch (...) {
        return kx::kFailNoCode;
    }
}

KXHA_API DWORD AdjustVirtualDiskVolumeCHS(const wchar_t* diskPath, const wchar_t* volumeName,
                                          ULONGLONG volumeOffset) {
    return kx::hyperv::AdjustVirtualDiskVolumeCHS(diskPath, volumeName, volumeOffset);
}
