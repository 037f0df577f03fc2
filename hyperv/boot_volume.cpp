#include "hyperv/boot_volume.h"

#include <memory>

#include "common/wstring_format.h"
#include "hyperv/adjust_boot_cfg.h"
#include "hyperv/mbr_layout.h"
#include "log/call_frame.h"
#include "log/debug_log.h"
#include "platform/vdisk.h"
#include "platform/vhdx_reader.h"

namespace kx::hyperv {

namespace {

constexpr DWORD kMbrBytes = 512;

bool IsVhdFamily(const std::wstring& path) {
    return EndsWithNoCase(path, L".vhd") || EndsWithNoCase(path, L".avhd");
}

// Sector 0 and the logical sector size of a disk file, opened read-only.
DWORD ReadSectorZero(const std::wstring& path, uint8_t* mbr, DWORD* sectorSize) {
    if (IsVhdFamily(path)) {
        std::unique_ptr<vdisk::IVDisk> disk;
        if (DWORD rc = vdisk::OpenVDisk_HyperV(path.c_str(), false, &disk)) return rc;
        if (DWORD rc = disk->GetSectorSize(sectorSize)) return rc;
        // A VHD's sectors are 512 bytes; a larger reported size would not
        // fit the buffer.
        if (*sectorSize != kMbrBytes) return ERROR_INVALID_DATA;
        return disk->ReadSectors(0, 1, mbr);
    }
    std::unique_ptr<vdisk::IVhdxDisk> disk;
    if (DWORD rc = vdisk::OpenVhdxDisk(path.c_str(), false, &disk)) return rc;
    if (DWORD rc = disk->GetSectorSize(sectorSize)) return rc;
    if (DWORD rc = disk->SetFilePosition(0)) return rc;
    DWORD done = 0;
    if (DWORD rc = disk->Read(mbr, kMbrBytes, &done)) return rc;
    return done == kMbrBytes ? 0 : static_cast<DWORD>(ERROR_HANDLE_EOF);
}

}  // namespace

DWORD FindActiveVolume(const std::wstring& disk, BootVolume* volume) {
    *volume = BootVolume{};
    uint8_t mbr[kMbrBytes] = {};
    DWORD sectorSize = 0;
    if (DWORD rc = ReadSectorZero(disk, mbr, &sectorSize)) return rc;
    if (mbr[510] != 0x55 || mbr[511] != 0xAA) return 0;
    // The first active entry decides, as it does for a BIOS boot: one that
    // starts at sector 0 is no volume.
    const int index = mbr::ActiveEntry(mbr);
    if (index < 0) return 0;
    const uint32_t firstLba = mbr::FirstLba(mbr::Entry(mbr, index));
    if (firstLba == 0) return 0;
    volume->disk = disk;
    volume->offset = static_cast<uint64_t>(firstLba) * sectorSize;
    volume->entry = index;
    return 0;
}

DWORD AdjustVolumeBootCode_HyperV(const wchar_t* vmGuid, const wchar_t* snapshotGuid, DWORD diskSignature) {
    constexpr const wchar_t* fn = kAdjustVolumeBootCode_HyperV.name;
    return RunExport<kAdjustVolumeBootCode_HyperV>(
        [&](auto& frame) -> DWORD {
            if (IsNullOrEmpty(vmGuid)) return frame.InvalidParameter();
            CDrVolCbImp chain;
            if (DWORD rc = chain.Init(vmGuid, snapshotGuid)) {
                Log(0, L"%s() failed to open VM %s, rc = %d", fn, vmGuid, rc);
                return rc;
            }
            BootVolume boot;
            if (diskSignature != 0) {
                // The caller knows the boot disk: the disk chain's own lookup.
                std::wstring disk;
                if (DWORD rc = chain.GetDiskPathBySig(diskSignature, disk)) {
                    Log(0, L"%s() found no disk with signature 0x%08X, rc = %d", fn, diskSignature, rc);
                    return rc;
                }
                if (DWORD rc = FindActiveVolume(disk, &boot)) {
                    Log(0, L"%s() failed to read the MBR of %s, rc = %d", fn, disk.c_str(), rc);
                    return rc;
                }
            } else {
                // The first disk of the chain whose MBR has an active entry.
                std::vector<std::wstring> disks;
                if (DWORD rc = chain.GetVirtualDisks(disks)) return rc;
                DWORD firstFailure = 0;
                for (const auto& disk : disks) {
                    const DWORD rc = FindActiveVolume(disk, &boot);
                    if (rc) {
                        Log(1, L"%s() failed to read the MBR of %s, rc = %d", fn, disk.c_str(), rc);
                        if (!firstFailure) firstFailure = rc;
                        continue;
                    }
                    if (boot.entry >= 0) break;
                    Log(2, L"%s(): no active partition on %s", fn, disk.c_str());
                }
                // A disk that could not be read may have been the boot disk.
                if (boot.entry < 0 && firstFailure) return firstFailure;
            }
            if (boot.entry < 0) {
                Log(0, L"%s() found no active partition on the disks of VM %s", fn, vmGuid);
                return kNoVmOrImage;
            }
            Log(2, L"%s(): boot volume of VM %s is partition %d of %s at offset %I64u", fn, vmGuid, boot.entry + 1,
                boot.disk.c_str(), boot.offset);
            const std::wstring volume = L"partition " + std::to_wstring(boot.entry + 1);
            bool foundBootable = false;
            return AdjustDiskVolumeCHS(boot.disk.c_str(), volume.c_str(), boot.offset, &foundBootable);
        },
        OrNull(vmGuid), OrNull(snapshotGuid), diskSignature);
}

}  // namespace kx::hyperv
