// The default disk objects: VHD files through the VHD library.
#include <new>

#include "platform/vdisk.h"

#include "log/debug_log.h"
#include "platform/vhd/vhd_disk.h"
#include "platform/win32_positioned_file.h"

namespace kx::vdisk {
namespace {

class VhdVDisk final : public IVDisk {
public:
    explicit VhdVDisk(std::unique_ptr<vhd::VhdDisk> disk) : disk_(std::move(disk)) {}

    DWORD GetSize(ULONGLONG* bytes) override {
        if (!bytes) return ERROR_INVALID_PARAMETER;
        *bytes = disk_->Size();
        return 0;
    }
    DWORD GetGeometry(Geometry* geometry) override {
        if (!geometry) return ERROR_INVALID_PARAMETER;
        const vhd::DiskGeometry g = disk_->Geometry();
        *geometry = FixedDiskGeometry(g.cylinders, g.heads, g.sectorsPerTrack, g.bytesPerSector);
        return 0;
    }
    DWORD GetType(DWORD* type) override {
        if (!type) return ERROR_INVALID_PARAMETER;
        *type = static_cast<DWORD>(disk_->Type());
        return 0;
    }
    DWORD GetBitmap(LONGLONG startSector, DWORD byteCount, DiskBitmapBuffer* buffer) override {
        if (!buffer || startSector < 0) return ERROR_INVALID_PARAMETER;
        uint64_t aligned = 0, valid = 0;
        const DWORD rc = disk_->GetBitmap(static_cast<uint64_t>(startSector), byteCount, &aligned, &valid,
                                          buffer->bitmap);
        if (rc) return rc;
        buffer->startingSector = static_cast<LONGLONG>(aligned);
        buffer->sectorCount = static_cast<LONGLONG>(valid);
        return 0;
    }
    DWORD ReadSectors(ULONGLONG firstSector, DWORD count, void* data) override {
        return disk_->Read(firstSector, count, data);
    }
    DWORD WriteSectors(ULONGLONG firstSector, DWORD count, const void* data) override {
        return disk_->Write(firstSector, count, data);
    }

private:
    std::unique_ptr<vhd::VhdDisk> disk_;
};

DWORD Wrap(DWORD rc, std::unique_ptr<vhd::VhdDisk> opened, std::unique_ptr<IVDisk>* disk) {
    if (rc) return rc;
    disk->reset(new (std::nothrow) VhdVDisk(std::move(opened)));
    return *disk ? 0 : ERROR_NOT_ENOUGH_MEMORY;
}

}  // namespace

// The password block of an encrypted session is accepted as it is: the VHD
// files this library reads carry no encryption of their own.
DWORD OpenVhdDisk(const wchar_t* path, DWORD access, DWORD share, const PasswordBlock* password,
                  std::unique_ptr<IVDisk>* disk) {
    (void)password;
    disk->reset();
    std::unique_ptr<vhd::PositionedFile> file;
    KX_RETURN_IF_FAILED(Win32FileSystem::OpenFile(path, access, share, OPEN_EXISTING, &file),
                        (L"open disk file " + std::wstring(path)).c_str());
    Win32FileSystem fs(share);
    std::unique_ptr<vhd::VhdDisk> opened;
    const DWORD rc = vhd::VhdDisk::Open(std::move(file), ToU16(path), (access & GENERIC_WRITE) != 0, fs, &opened);
    return Wrap(rc, std::move(opened), disk);
}

DWORD OpenVDisk_HyperV(const wchar_t* path, bool writable, std::unique_ptr<IVDisk>* disk) {
    disk->reset();
    if (!path || !*path) return ERROR_INVALID_PARAMETER;
    return writable ? OpenVhdDisk(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr, disk)
                    : OpenVhdDisk(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, disk);
}

DWORD CreateVhd(const wchar_t* path, DWORD type, ULONGLONG bytes, const wchar_t* parent,
                std::unique_ptr<IVDisk>* disk) {
    disk->reset();
    if (!path || !*path) return ERROR_INVALID_PARAMETER;
    vhd::CreateParams params;
    params.size = bytes;
    switch (type) {
        case kTypeFixed: params.type = vhd::DiskType::kFixed; break;
        case kTypeDynamic: params.type = vhd::DiskType::kDynamic; break;
        case kTypeDifferencing:
            if (!parent || !*parent) return ERROR_INVALID_PARAMETER;
            params.type = vhd::DiskType::kDifferencing;
            params.parentPath = ToU16(parent);
            break;
        default: return ERROR_INVALID_PARAMETER;
    }
    Win32FileSystem fs(FILE_SHARE_READ);
    std::unique_ptr<vhd::VhdDisk> created;
    const DWORD rc = vhd::VhdDisk::Create(fs, ToU16(path), params, &created);
    return Wrap(rc, std::move(created), disk);
}

}  // namespace kx::vdisk
