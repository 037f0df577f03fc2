// The default VHDX disks: the VHDX library over Win32 files.
#include "platform/vhdx_reader.h"

#include <new>

#include "platform/vhdx/vhdx_disk.h"
#include "platform/win32_positioned_file.h"

namespace kx::vdisk {
namespace {

class VhdxReaderDisk final : public IVhdxDisk {
public:
    explicit VhdxReaderDisk(std::unique_ptr<vhdx::VhdxDisk> disk) : disk_(std::move(disk)) {}

    DWORD GetGeometry(Geometry* geometry) override {
        if (!geometry) return ERROR_INVALID_PARAMETER;
        const vhdx::Geometry g = disk_->GetGeometry();
        *geometry = FixedDiskGeometry(g.cylinders, g.heads, g.sectorsPerTrack, g.bytesPerSector);
        return 0;
    }
    DWORD GetSize(ULONGLONG* bytes) override {
        if (!bytes) return ERROR_INVALID_PARAMETER;
        *bytes = disk_->Size();
        return 0;
    }
    DWORD GetSectorSize(DWORD* bytes) override {
        if (!bytes) return ERROR_INVALID_PARAMETER;
        *bytes = disk_->LogicalSectorSize();
        return 0;
    }
    DWORD SetFilePosition(ULONGLONG offset) override {
        if (offset > disk_->Size()) return ERROR_INVALID_PARAMETER;
        position_ = offset;
        return 0;
    }
    DWORD Read(void* data, DWORD bytes, DWORD* done) override {
        return Move(bytes, done, [&] { return disk_->Read(position_, bytes, data); });
    }
    DWORD Write(const void* data, DWORD bytes, DWORD* done) override {
        return Move(bytes, done, [&] { return disk_->Write(position_, bytes, data); });
    }
    DWORD GetSignature(DWORD* signature) override {
        if (!signature) return ERROR_INVALID_PARAMETER;
        uint32_t s = 0;
        if (const DWORD rc = disk_->Signature(&s)) return rc;
        *signature = s;
        return 0;
    }
    DWORD Close() override { return disk_->Flush(); }

private:
    template <class Io>
    DWORD Move(DWORD bytes, DWORD* done, Io io) {
        if (done) *done = 0;
        if (position_ >= disk_->Size() && bytes) return ERROR_HANDLE_EOF;
        if (bytes > disk_->Size() - position_) return ERROR_INVALID_PARAMETER;
        if (const DWORD rc = io()) return rc;
        position_ += bytes;
        if (done) *done = bytes;
        return 0;
    }

    std::unique_ptr<vhdx::VhdxDisk> disk_;
    ULONGLONG position_ = 0;
};

}  // namespace

DWORD OpenVhdxDisk(const wchar_t* path, bool writable, std::unique_ptr<IVhdxDisk>* disk) {
    disk->reset();
    if (!path || !*path) return ERROR_INVALID_PARAMETER;
    const DWORD access = writable ? GENERIC_READ | GENERIC_WRITE : GENERIC_READ;
    const DWORD share = writable ? FILE_SHARE_READ : FILE_SHARE_READ | FILE_SHARE_WRITE;
    std::unique_ptr<vhd::PositionedFile> file;
    if (const DWORD rc = Win32FileSystem::OpenFile(path, access, share, OPEN_EXISTING, &file)) return rc;
    Win32FileSystem fs(share);
    std::unique_ptr<vhdx::VhdxDisk> opened;
    if (const DWORD rc = vhdx::VhdxDisk::Open(std::move(file), ToU16(path), writable, fs, &opened)) return rc;
    disk->reset(new (std::nothrow) VhdxReaderDisk(std::move(opened)));
    return *disk ? 0 : ERROR_NOT_ENOUGH_MEMORY;
}

}  // namespace kx::vdisk
