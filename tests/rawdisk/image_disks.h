// Disks for tests: image files served through the device seam as if they
// were the host's disks. Each disk has a SetupAPI interface path and the
// names "\\.\PHYSICALDRIVEn" and "\\?\PhysicalDriven" (as the disk service
// names it); the system volume "\\.\C:" has extents on
// chosen disks. Opens are real CreateFileW calls on the image files.
//
// Answered: IOCTL_DISK_GET_LENGTH_INFO, IOCTL_DISK_GET_DRIVE_GEOMETRY_EX
// (the file's size), IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS (ERROR_MORE_DATA
// with the count when the buffer is short), reads, and IOCTL_DISK_CREATE_DISK
// plus IOCTL_DISK_SET_DRIVE_LAYOUT_EX for empty tables, written as real MBR
// and GPT structures (protective MBR, both headers and entry arrays with
// their CRC-32s). A layout with partitions in use is refused with
// ERROR_NOT_SUPPORTED: nothing here needs one.
//
// Every step can be made to fail, and opens and closes are counted.
#pragma once

#include <windows.h>

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/disk_devices.h"

namespace rawtest {

struct ImageDisk {
    std::wstring file;  // as Wine sees it (Z:\...)
    DWORD sectorSize = 512;
};

// What to break. 0 leaves a step alone.
struct Faults {
    DWORD openSet = 0;
    std::optional<DWORD> enumAt;  // index whose enumeration fails with `enumError`
    DWORD enumError = 0;
    DWORD sizeQuery = 0;          // the size query fails with this instead of 122
    bool sizeQuerySucceeds = false;
    DWORD detail = 0;             // the second detail call
    std::map<std::wstring, DWORD> openPath;  // device path -> CreateFileW error
    std::map<DWORD, DWORD> control;          // control code -> error
    DWORD read = 0;
    DWORD windowsDir = 0;
};

class ImageDisks : public kx::platform::DiskDevices {
public:
    explicit ImageDisks(std::vector<ImageDisk> disks);
    ~ImageDisks() override;

    Faults faults;
    // Disks the system volume lies on, one extent each, in order.
    std::vector<DWORD> systemVolumeDisks{0};

    std::wstring InterfacePath(size_t disk) const;
    // Opens and closes so far (devices, and device information sets).
    int opens = 0, closes = 0, setsOpened = 0, setsClosed = 0;
    // Device paths opened, in order.
    std::vector<std::wstring> opened;

    HDEVINFO OpenInterfaceSet(const GUID& cls, DWORD flags) override;
    BOOL EnumInterface(HDEVINFO set, const GUID& cls, DWORD index, SP_DEVICE_INTERFACE_DATA* data) override;
    BOOL InterfaceDetail(HDEVINFO set, SP_DEVICE_INTERFACE_DATA* data, SP_DEVICE_INTERFACE_DETAIL_DATA_W* detail,
                         DWORD size, DWORD* required) override;
    void CloseInterfaceSet(HDEVINFO set) override;
    HANDLE Open(const std::wstring& path, DWORD access, DWORD share, DWORD attributes) override;
    BOOL Control(HANDLE device, DWORD code, const void* in, DWORD inSize, void* out, DWORD outSize,
                 DWORD* returned) override;
    BOOL ReadAt(HANDLE device, uint64_t offset, void* buffer, DWORD size, DWORD* read) override;
    void Close(HANDLE device) override;
    UINT WindowsDirectory(wchar_t* buffer, UINT size) override;

private:
    struct Open_ {
        int disk = -1;  // -1: the system volume
        DWORD access = 0;
    };
    DWORD CreateDisk(HANDLE h, const ImageDisk& disk, const void* in, DWORD inSize);
    DWORD SetLayout(HANDLE h, const ImageDisk& disk, const void* in, DWORD inSize);

    std::vector<ImageDisk> disks_;
    std::map<HANDLE, Open_> handles_;
    std::set<HDEVINFO> sets_;
};

// CRC-32 (IEEE, as GPT uses it).
uint32_t Crc32(const void* data, size_t size);

}  // namespace rawtest
