#include "hyperv/adjust_boot_cfg.h"
#include "hyperv/mbr_layout.h"

#include <algorithm>
#include <atomic>
#include <cwchar>
#include <memory>
#include <vector>

#include "common/wstring_format.h"
#include "log/call_frame.h"
#include "log/debug_log.h"
#include "platform/vdisk.h"
#include "platform/vhdx_reader.h"

namespace kx::hyperv {
namespace {

std::atomic<testing::VhdOpen> g_vhdOpen{nullptr};
std::atomic<testing::VhdxOpen> g_vhdxOpen{nullptr};

DWORD OpenVhd(const wchar_t* path, std::unique_ptr<vdisk::IVDisk>* disk) {
    const testing::VhdOpen open = g_vhdOpen.load();
    return open ? open(path, true, disk) : vdisk::OpenVDisk_HyperV(path, true, disk);
}

DWORD OpenVhdx(const wchar_t* path, std::unique_ptr<vdisk::IVhdxDisk>* disk) {
    const testing::VhdxOpen open = g_vhdxOpen.load();
    return open ? open(path, true, disk) : vdisk::OpenVhdxDisk(path, true, disk);
}

constexpr const wchar_t* kOperation = L"CAdjustBootCfg_HyperV::AdjustDiskVolumeCHS";

// Hyper-V's geometry.
constexpr int64_t kTargetCylinders = 1024;
constexpr uint32_t kTargetSectorsPerTrack = 63;
constexpr uint64_t kSectorsWith128Heads = 0x7E0000;  // 1024 x 128 x 63

// The volume boot sector's geometry fields (little-endian).
constexpr DWORD kBootSectorBytes = 512;
constexpr size_t kSectorsPerTrackAt = 0x18;
constexpr size_t kHeadsAt = 0x1A;
constexpr size_t kHiddenSectorsAt = 0x1C;

uint32_t Get16(const uint8_t* p) { return p[0] | (p[1] << 8); }
using mbr::Get32;
void Put16(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}
void Put32(uint8_t* p, uint32_t v) {
    Put16(p, v);
    Put16(p + 2, v >> 16);
}

struct BootFields {
    uint32_t sectorsPerTrack;
    uint32_t heads;
    uint32_t hiddenSectors;
};

BootFields ReadBootFields(const uint8_t* boot) {
    return {Get16(boot + kSectorsPerTrackAt), Get16(boot + kHeadsAt), Get32(boot + kHiddenSectorsAt)};
}

// Sector 0 of the disk as one branch reads and writes it.
class MbrAccess {
public:
    virtual ~MbrAccess() = default;
    virtual DWORD Read(std::vector<uint8_t>* mbr) = 0;
    virtual DWORD Write(const std::vector<uint8_t>& mbr) = 0;
};

class VhdMbr final : public MbrAccess {
public:
    VhdMbr(vdisk::IVDisk* disk, DWORD sectorSize) : disk_(disk), sectorSize_(sectorSize) {}
    DWORD Read(std::vector<uint8_t>* mbr) override {
        mbr->assign(sectorSize_, 0);
        return disk_->ReadSectors(0, 1, mbr->data());
    }
    DWORD Write(const std::vector<uint8_t>& mbr) override { return disk_->WriteSectors(0, 1, mbr.data()); }

private:
    vdisk::IVDisk* disk_;
    DWORD sectorSize_;
};

class VhdxMbr final : public MbrAccess {
public:
    VhdxMbr(vdisk::IVhdxDisk* disk, DWORD sectorSize) : disk_(disk), sectorSize_(sectorSize) {}
    DWORD Read(std::vector<uint8_t>* mbr) override {
        mbr->assign(sectorSize_, 0);
        if (const DWORD rc = disk_->SetFilePosition(0)) return rc;
        DWORD done = 0;
        return disk_->Read(mbr->data(), sectorSize_, &done);
    }
    DWORD Write(const std::vector<uint8_t>& mbr) override {
        Log(4, L"Start to update the MBR [Start Offset %08X].", 0);
        if (const DWORD rc = disk_->SetFilePosition(0)) {
            Log(0, L"%s: Failed to SetFilePointerEx, rc = %d.", L"CAdjustBootCfg_HyperV::UpdateVdhxDiskPartition", rc);
            return rc;
        }
        DWORD done = 0;
        return disk_->Write(mbr.data(), sectorSize_, &done);
    }

private:
    vdisk::IVhdxDisk* disk_;
    DWORD sectorSize_;
};

int ActiveEntry(const std::vector<uint8_t>& sector) { return mbr::ActiveEntry(sector.data()); }

bool HasActiveEntry(MbrAccess& access) {
    std::vector<uint8_t> mbr;
    return access.Read(&mbr) == 0 && ActiveEntry(mbr) >= 0;
}

struct ChsAddress {
    int64_t cylinder;
    uint32_t head;
    uint32_t sector;
};

int Cylinder(uint8_t sectorByte, uint8_t cylinderByte) { return cylinderByte | ((sectorByte & 0xC0) << 2); }

// Only the low ten bits of the cylinder fit the entry: bits 8-9 go to the
// top of the sector byte. Larger cylinders are not clamped.
void Pack(const ChsAddress& a, uint8_t* out) {
    out[0] = static_cast<uint8_t>(a.head & 0xFF);
    out[1] = static_cast<uint8_t>((a.sector & 0x3F) | (((a.cylinder >> 8) & 3) << 6));
    out[2] = static_cast<uint8_t>(a.cylinder & 0xFF);
}

enum class Format { kVhd, kVhdx };

// Rewrites the CHS addresses of the active entry for geometry `g`. The end
// address is that of the sector just past the partition (first LBA plus
// count); a partition that reaches past the geometry's last sector ends
// there, and one that starts past it starts there too.
DWORD UpdateDiskPartition(MbrAccess* disk, const ChsGeometry& g, Format format, bool* found) {
    if (!disk) return kE_INVALIDARG;
    const wchar_t* const self = format == Format::kVhdx ? L"CAdjustBootCfg_HyperV::UpdateVdhxDiskPartition"
                                                        : L"CAdjustBootCfg_HyperV::UpdateDiskPartition";
    std::vector<uint8_t> mbr;
    if (const DWORD rc = disk->Read(&mbr)) {
        Log(0, L"%s, read mbr failed, rc = %d", self, rc);
        return rc;
    }
    const int index = ActiveEntry(mbr);
    *found = index >= 0;
    if (index < 0) return 0;
    const size_t at = mbr::kEntriesAt + mbr::kEntryBytes * index;
    uint8_t* entry = mbr.data() + at;
    Log(4, L"start Head[%d], start Sector[%d], start Cylinder[%d]", entry[1], entry[2] & 0x3F,
        Cylinder(entry[2], entry[3]));
    Log(4, L"end Head[%x], end Sector[%x], end Cylinder[%x]", entry[5], entry[6] & 0x3F, Cylinder(entry[6], entry[7]));
    const int64_t first = mbr::FirstLba(entry);
    const int64_t count = mbr::SectorCount(entry);
    Log(4, L"Reserve sectors is %04x", static_cast<uint32_t>(first));
    Log(4, L"total sectors is %04x", static_cast<uint32_t>(count));
    const int64_t maxSectors = g.cylinders * g.heads * g.sectorsPerTrack;
    if (format == Format::kVhdx)
        Log(4, L"max sectors is %I64d", maxSectors);
    else
        Log(4, L"max sectors is %d", static_cast<int>(maxSectors));
    if (g.cylinders <= 0 || g.heads == 0 || g.sectorsPerTrack == 0) {
        Log(0, L"%s, the disk reports no usable geometry (%I64d/%d/%d)", self, g.cylinders, g.heads, g.sectorsPerTrack);
        return ERROR_INVALID_DATA;
    }
    const int64_t track = g.sectorsPerTrack;
    const int64_t cylinder = track * g.heads;
    auto address = [&](int64_t lba) {
        return ChsAddress{lba / cylinder, static_cast<uint32_t>((lba / track) % g.heads),
                          static_cast<uint32_t>(lba % track + 1)};
    };
    const ChsAddress last{g.cylinders - 1, g.heads - 1, g.sectorsPerTrack};
    ChsAddress start = last, end = last;
    if (first <= maxSectors) {
        start = address(first);
        if (first + count <= maxSectors) end = address(first + count);
    }
    Log(4, L"cylinder[%d], head[%d], sec[%d]", static_cast<int>(start.cylinder), start.head, start.sector);
    Log(4, L"End: cylinder[%d], head[%d], sec[%d]", static_cast<int>(end.cylinder), end.head, end.sector);
    Pack(start, entry + 1);
    Pack(end, entry + 5);
    Log(4, L"Position of the active part in mbr is %x", static_cast<uint32_t>(at));
    Log(4, L"start[%x], [%x], [%x]", entry[1], entry[2], entry[3]);
    Log(4, L"end  [%x], [%x], [%x]", entry[5], entry[6], entry[7]);
    const DWORD rc = disk->Write(mbr);
    if (rc)
        Log(0, L"CAdjustBootCfg_HyperV::update mbr failed, rc = %d", rc);
    else
        Log(2, L"CAdjustBootCfg_HyperV::update mbr succeed");
    return rc;
}

DWORD LogMbrResult(const wchar_t* path, DWORD rc) {
    if (rc)
        Log(0, L"%s: Fail to update MBR for disk = %s, rc = %d", kOperation, path, rc);
    else
        Log(2, L"%s: Succeed to update MBR for disk = %s", kOperation, path);
    return rc;
}

// What a disk of either kind tells about itself.
struct DiskFacts {
    ULONGLONG size = 0;
    vdisk::Geometry geometry;
    DWORD sectorSize = kBootSectorBytes;
};

// The steps both formats take after the open: the active entry (without one
// the disk is left as it is) and the disk's size, geometry and sector size.
// False when the repair ends here, with *rc.
template <class Mbr, class Disk>
bool Prepare(Disk& disk, const wchar_t* path, bool* found, std::unique_ptr<Mbr>* mbr, DiskFacts* facts, DWORD* rc) {
    *rc = 0;
    DWORD sectorSize = 0;
    if (disk.GetSectorSize(&sectorSize) || sectorSize < kBootSectorBytes) sectorSize = kBootSectorBytes;
    *mbr = std::make_unique<Mbr>(&disk, sectorSize);
    if (!HasActiveEntry(**mbr)) {
        Log(2, L"%s: Failed to find the bootable partition on Disk[%s]", kOperation, path);
        return false;
    }
    *found = true;
    *rc = disk.GetGeometry(&facts->geometry);
    if (!*rc) *rc = disk.GetSize(&facts->size);
    if (!*rc) *rc = disk.GetSectorSize(&facts->sectorSize);
    if (!*rc && (facts->sectorSize == 0 || facts->geometry.bytesPerSector == 0)) *rc = ERROR_INVALID_DATA;
    if (*rc) Log(0, L"%s: Fail to get the geometry of Disk[%s], rc = %d", kOperation, path, *rc);
    return *rc == 0;
}

DWORD AdjustVhdx(const wchar_t* path, const wchar_t* volume, uint64_t volumeOffset, bool* found) {
    std::unique_ptr<vdisk::IVhdxDisk> disk;
    if (const DWORD rc = OpenVhdx(path, &disk)) {
        Log(0, L"%s: Fail to OpenVHDXDisk, path = %s, rc = %d", kOperation, path, rc);
        return rc;
    }
    std::unique_ptr<VhdxMbr> mbr;
    DiskFacts facts;
    if (DWORD rc = 0; !Prepare(*disk, path, found, &mbr, &facts, &rc)) return rc;
    const vdisk::Geometry& geometry = facts.geometry;
    const DWORD sectorSize = facts.sectorSize;
    const uint64_t expectedHidden = volumeOffset / sectorSize;
    const ChsGeometry target = TargetGeometry(facts.size, geometry.bytesPerSector);
    Log(2,
        L"%s: The MBR and Boot Sector of Disk[%s] will be fixed to number of cylinders[%I64d], tracks per "
        L"cylinder[%d], sectors per track[%d],\t\t\t\t\t\t  bytes per sector[%d], Sector Size:%lu.",
        kOperation, path, target.cylinders, target.heads, target.sectorsPerTrack, geometry.bytesPerSector, sectorSize);

    uint8_t boot[kBootSectorBytes];
    DWORD done = 0;
    if (const DWORD rc = disk->SetFilePosition(volumeOffset)) {
        Log(0, L"%s: cannot set vhdx file positon, rc = %d", kOperation, rc);
        return rc;
    }
    if (const DWORD rc = disk->Read(boot, kBootSectorBytes, &done)) {
        Log(0, L"%s: Fail to Read VHDX boot code for volume[%s], rc = %d", kOperation, volume, rc);
        return rc;
    }
    const BootFields was = ReadBootFields(boot);
    Log(2, L"%s: VHDX Vol[%s]: SecPerTrack[%d], number of headers[%d], Hidden Sectors:%lu", kOperation, volume,
        was.sectorsPerTrack, was.heads, was.hiddenSectors);
    if (was.sectorsPerTrack == kTargetSectorsPerTrack && was.heads == target.heads &&
        was.hiddenSectors == expectedHidden) {
        Log(2, L"%s, SecPerTrack no need to change, just break", kOperation);
        return 0;
    }
    bool changed = false;
    if (was.sectorsPerTrack != kTargetSectorsPerTrack) {
        Put16(boot + kSectorsPerTrackAt, kTargetSectorsPerTrack);
        changed = true;
    }
    if (was.heads != target.heads) {
        Put16(boot + kHeadsAt, target.heads);
        changed = true;
    }
    // A volume so far into the disk that its hidden-sector count does not
    // fit the field keeps the count it has.
    if (was.hiddenSectors != expectedHidden && expectedHidden < 0xFFFFFFFFu) {
        Put32(boot + kHiddenSectorsAt, static_cast<uint32_t>(expectedHidden));
        changed = true;
    }
    if (changed) {
        const BootFields now = ReadBootFields(boot);
        Log(2, L"%s: Need update VHDX boot code, SectorsPerTrack[%d], Number of Headers[%d]", kOperation,
            now.sectorsPerTrack, now.heads);
        DWORD rc = disk->SetFilePosition(volumeOffset);
        if (rc) {
            Log(0, L"%s: cannot set vhdx file positon, rc = %d", kOperation, rc);
            return rc;
        }
        if ((rc = disk->Write(boot, kBootSectorBytes, &done)) != 0) {
            Log(0, L"%s: Fail to Update VHDX boot code for volume[%s], rc = %d", kOperation, volume, rc);
            return rc;
        }
        Log(2, L"%s: Succeed to update VHDX boot code for volume[%s]", kOperation, volume);
    }
    DWORD rc = LogMbrResult(path, UpdateDiskPartition(mbr.get(), target, Format::kVhdx, found));
    if (const DWORD closed = disk->Close(); closed && !rc) rc = closed;
    return rc;
}

DWORD AdjustVhd(const wchar_t* path, const wchar_t* volume, uint64_t volumeOffset, bool* found) {
    std::unique_ptr<vdisk::IVDisk> disk;
    if (const DWORD rc = OpenVhd(path, &disk)) {
        Log(0, L"%s: Fail to OpenDisk, path = %s, rc = %d", kOperation, path, rc);
        return rc;
    }
    std::unique_ptr<VhdMbr> mbr;
    DiskFacts facts;
    if (DWORD rc = 0; !Prepare(*disk, path, found, &mbr, &facts, &rc)) return rc;
    const vdisk::Geometry& geometry = facts.geometry;
    const DWORD sectorSize = facts.sectorSize;
    const ChsGeometry target = TargetGeometry(facts.size, geometry.bytesPerSector);
    Log(2,
        L"%s: The MBR and Boot Sector of Disk[%s] will be fixed to number of cylinders[%I64d], tracks per "
        L"cylinder[%d], sectors per track[%d], Sector Size:%lu,\t\t\t\t\t\t  bytes per sector[%d]",
        kOperation, path, target.cylinders, target.heads, target.sectorsPerTrack, sectorSize, geometry.bytesPerSector);

    // The boot sector is addressed in 512-byte units whatever the disk's
    // sector size; the hidden sectors count the disk's own sectors.
    const uint64_t bootLba = volumeOffset / kBootSectorBytes;
    Log(2, L"Volume Start Offset Sector: %I64u .", bootLba);
    std::vector<uint8_t> boot(std::max<DWORD>(sectorSize, kBootSectorBytes), 0);
    if (const DWORD rc = disk->ReadSectors(bootLba, 1, boot.data())) {
        Log(0, L"%s: Fail to Read boot code for volume[%s], rc = %d", kOperation, volume, rc);
        return rc;
    }
    const uint64_t expectedHidden = volumeOffset / sectorSize;
    const BootFields was = ReadBootFields(boot.data());
    Log(2, L"%s: Vol[%s]: SecPerTrack[%d], number of headers[%d], Hidden Sectors[%lu]", kOperation, volume,
        was.sectorsPerTrack, was.heads, was.hiddenSectors);
    // Right in all but the hidden-sector count: such a boot sector is left
    // as it is, and so is the MBR.
    if (was.sectorsPerTrack == kTargetSectorsPerTrack && was.heads == target.heads &&
        was.hiddenSectors != expectedHidden) {
        Log(2, L"%s, SecPerTrack no need to change, just break", kOperation);
        return 0;
    }
    bool changed = false;
    if (was.sectorsPerTrack != kTargetSectorsPerTrack) {
        Put16(boot.data() + kSectorsPerTrackAt, kTargetSectorsPerTrack);
        changed = true;
    }
    if (was.heads != target.heads) {
        Put16(boot.data() + kHeadsAt, target.heads);
        changed = true;
    }
    if (was.hiddenSectors != expectedHidden) {
        Put32(boot.data() + kHiddenSectorsAt, static_cast<uint32_t>(expectedHidden));
        changed = true;
    }
    if (changed) {
        const BootFields now = ReadBootFields(boot.data());
        Log(2, L"%s: Need update boot code, SectorsPerTrack[%d], Number of Headers[%d], Hidden Sectors [%lu]",
            kOperation, now.sectorsPerTrack, now.heads, now.hiddenSectors);
        if (const DWORD rc = disk->WriteSectors(bootLba, 1, boot.data())) {
            Log(0, L"%s: Fail to Update boot code for volume[%s], rc = %d", kOperation, volume, rc);
            return rc;
        }
        Log(2, L"%s: Succeed to update boot code for volume[%s]", kOperation, volume);
    }
    // The MBR follows the geometry the disk itself reports.
    const ChsGeometry own{geometry.cylinders, geometry.tracksPerCylinder, geometry.sectorsPerTrack,
                          geometry.bytesPerSector};
    return LogMbrResult(path, UpdateDiskPartition(mbr.get(), own, Format::kVhd, found));
}

}  // namespace

ChsGeometry TargetGeometry(uint64_t size, uint32_t bytesPerSector) {
    ChsGeometry g;
    g.cylinders = kTargetCylinders;
    g.sectorsPerTrack = kTargetSectorsPerTrack;
    g.bytesPerSector = bytesPerSector;
    g.heads = size > 0 && size <= bytesPerSector * kSectorsWith128Heads ? 128 : 255;
    return g;
}

DWORD AdjustDiskVolumeCHS(const wchar_t* path, const wchar_t* volumeName, uint64_t volumeOffset,
                          bool* foundBootable) {
    bool unused = false;
    bool* found = foundBootable ? foundBootable : &unused;
    *found = false;
    if (IsNullOrEmpty(path)) return 0;
    const wchar_t* dot = std::wcsrchr(path, L'.');
    if (!dot) return 0;
    const wchar_t* volume = OrNull(volumeName);
    if (EqualsNoCase(dot, L".vhd") || EqualsNoCase(dot, L".avhd")) return AdjustVhd(path, volume, volumeOffset, found);
    return AdjustVhdx(path, volume, volumeOffset, found);
}

DWORD AdjustVirtualDiskVolumeCHS(const wchar_t* path, const wchar_t* volumeName, uint64_t volumeOffset) {
    return RunExport<kAdjustVirtualDiskVolumeCHS>(
        [&](auto&) -> DWORD {
            bool found = false;
            return AdjustDiskVolumeCHS(path, volumeName, volumeOffset, &found);
        },
        OrNull(path), OrNull(volumeName), static_cast<unsigned long long>(volumeOffset));
}

namespace testing {
void SetDiskOpens(VhdOpen vhd, VhdxOpen vhdx) noexcept {
    g_vhdOpen.store(vhd);
    g_vhdxOpen.store(vhdx);
}
}  // namespace testing

}  // namespace kx::hyperv
