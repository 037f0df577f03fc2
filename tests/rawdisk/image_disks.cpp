#include "image_disks.h"

#include <winioctl.h>

#include <cstddef>
#include <cstring>

namespace rawtest {

namespace {

constexpr wchar_t kVolume[] = L"\\\\.\\C:";
constexpr DWORD kEntries = 128, kEntryBytes = 128;

BOOL Fail(DWORD error) {
    ::SetLastError(error);
    return FALSE;
}

uint64_t FileSize(HANDLE h) {
    LARGE_INTEGER size{};
    ::GetFileSizeEx(h, &size);
    return static_cast<uint64_t>(size.QuadPart);
}

bool Transfer(HANDLE h, uint64_t offset, void* data, DWORD size, bool write) {
    LARGE_INTEGER at;
    at.QuadPart = static_cast<LONGLONG>(offset);
    DWORD done = 0;
    if (!::SetFilePointerEx(h, at, nullptr, FILE_BEGIN)) return false;
    return (write ? ::WriteFile(h, data, size, &done, nullptr) : ::ReadFile(h, data, size, &done, nullptr)) &&
           done == size;
}

void Put32(BYTE* p, uint32_t v) { std::memcpy(p, &v, 4); }
void Put64(BYTE* p, uint64_t v) { std::memcpy(p, &v, 8); }

struct Shape {
    DWORD sector;
    uint64_t last;   // LBA of the last sector
    uint64_t array;  // sectors of one entry array
    uint64_t first() const { return 2 + array; }
    uint64_t lastUsable() const { return last - 1 - array; }
};

Shape ShapeOf(HANDLE h, const ImageDisk& disk) {
    const DWORD s = disk.sectorSize;
    return {s, FileSize(h) / s - 1, (kEntries * kEntryBytes + s - 1) / s};
}

bool Zero(HANDLE h, uint64_t offset, uint64_t bytes) {
    std::vector<BYTE> zeros(static_cast<size_t>(bytes), 0);
    return Transfer(h, offset, zeros.data(), static_cast<DWORD>(bytes), true);
}

// Both GPT headers and empty entry arrays for `guid`.
bool WriteGpt(HANDLE h, const Shape& s, const GUID& guid) {
    const std::vector<BYTE> array(kEntries * kEntryBytes, 0);
    const uint32_t arrayCrc = Crc32(array.data(), array.size());
    auto header = [&](uint64_t my, uint64_t alternate, uint64_t entries) {
        std::vector<BYTE> b(s.sector, 0);
        std::memcpy(b.data(), "EFI PART", 8);
        Put32(&b[8], 0x00010000);
        Put32(&b[12], 92);
        Put64(&b[24], my);
        Put64(&b[32], alternate);
        Put64(&b[40], s.first());
        Put64(&b[48], s.lastUsable());
        std::memcpy(&b[56], &guid, 16);
        Put64(&b[72], entries);
        Put32(&b[80], kEntries);
        Put32(&b[84], kEntryBytes);
        Put32(&b[88], arrayCrc);
        Put32(&b[16], Crc32(b.data(), 92));
        return b;
    };
    std::vector<BYTE> primary = header(1, s.last, 2);
    std::vector<BYTE> backup = header(s.last, 1, s.last - s.array);
    return Zero(h, 2ull * s.sector, s.array * s.sector) && Zero(h, (s.last - s.array) * s.sector, s.array * s.sector) &&
           Transfer(h, s.sector, primary.data(), s.sector, true) &&
           Transfer(h, s.last * s.sector, backup.data(), s.sector, true);
}

// The style sector 0 and LBA 1 show: 1 MBR, 2 GPT, 0 none.
int StyleOnDisk(HANDLE h, const Shape& s) {
    BYTE mbr[512], lba1[8];
    if (!Transfer(h, 0, mbr, 512, false) || mbr[510] != 0x55 || mbr[511] != 0xAA) return 0;
    if (mbr[450] == 0xEE && Transfer(h, s.sector, lba1, 8, false) && !std::memcmp(lba1, "EFI PART", 8)) return 2;
    return 1;
}

bool WriteMbr(HANDLE h, DWORD signature, bool protective, uint64_t lastLba) {
    BYTE mbr[512];
    if (!Transfer(h, 0, mbr, 512, false)) return false;
    std::memset(mbr + 440, 0, 72);
    Put32(mbr + 440, protective ? 0 : signature);
    if (protective) {
        BYTE* e = mbr + 446;
        e[1] = 0x00, e[2] = 0x02, e[3] = 0x00;  // CHS 0/0/2
        e[4] = 0xEE;
        e[5] = e[6] = e[7] = 0xFF;
        Put32(e + 8, 1);
        Put32(e + 12, lastLba > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<uint32_t>(lastLba));
    }
    mbr[510] = 0x55, mbr[511] = 0xAA;
    return Transfer(h, 0, mbr, 512, true);
}

}  // namespace

uint32_t Crc32(const void* data, size_t size) {
    uint32_t crc = 0xFFFFFFFFu;
    for (const BYTE* p = static_cast<const BYTE*>(data); size--; ++p) {
        crc ^= *p;
        for (int k = 0; k < 8; ++k) crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    return ~crc;
}

ImageDisks::ImageDisks(std::vector<ImageDisk> disks) : disks_(std::move(disks)) {
    kx::platform::testing::SetDiskDevices(this);
}

ImageDisks::~ImageDisks() {
    kx::platform::testing::SetDiskDevices(nullptr);
    for (auto& [h, open] : handles_) ::CloseHandle(h);
}

std::wstring ImageDisks::InterfacePath(size_t disk) const {
    return L"\\\\?\\scsi#disk&ven_kx&prod_image#" + std::to_wstring(disk) +
           L"#{53f56307-b6bf-11d0-94f2-00a0c91efb8b}";
}

HDEVINFO ImageDisks::OpenInterfaceSet(const GUID& cls, DWORD flags) {
    if (faults.openSet) return (::SetLastError(faults.openSet), INVALID_HANDLE_VALUE);
    if (!IsEqualGUID(cls, kx::platform::kDiskInterfaceClass) || flags != (DIGCF_PRESENT | DIGCF_DEVICEINTERFACE))
        return (::SetLastError(ERROR_INVALID_PARAMETER), INVALID_HANDLE_VALUE);
    auto set = reinterpret_cast<HDEVINFO>(static_cast<uintptr_t>(0x5E70 + ++setsOpened));
    sets_.insert(set);
    return set;
}

BOOL ImageDisks::EnumInterface(HDEVINFO set, const GUID& cls, DWORD index, SP_DEVICE_INTERFACE_DATA* data) {
    if (!sets_.count(set)) return Fail(ERROR_INVALID_HANDLE);
    if (data->cbSize != sizeof(*data)) return Fail(ERROR_INVALID_USER_BUFFER);
    if (faults.enumAt && *faults.enumAt == index) return Fail(faults.enumError);
    if (index >= disks_.size()) return Fail(ERROR_NO_MORE_ITEMS);
    data->InterfaceClassGuid = cls;
    data->Flags = SPINT_ACTIVE;
    data->Reserved = index + 1;
    return TRUE;
}

BOOL ImageDisks::InterfaceDetail(HDEVINFO set, SP_DEVICE_INTERFACE_DATA* data,
                                 SP_DEVICE_INTERFACE_DETAIL_DATA_W* detail, DWORD size, DWORD* required) {
    if (!sets_.count(set) || !data->Reserved || data->Reserved > disks_.size()) return Fail(ERROR_INVALID_PARAMETER);
    const std::wstring path = InterfacePath(data->Reserved - 1);
    const DWORD need =
        static_cast<DWORD>(offsetof(SP_DEVICE_INTERFACE_DETAIL_DATA_W, DevicePath) + (path.size() + 1) * sizeof(wchar_t));
    if (required) *required = need;
    if (!detail) {
        if (faults.sizeQuerySucceeds) return TRUE;
        return Fail(faults.sizeQuery ? faults.sizeQuery : ERROR_INSUFFICIENT_BUFFER);
    }
    if (faults.detail) return Fail(faults.detail);
    if (detail->cbSize != sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W)) return Fail(ERROR_INVALID_USER_BUFFER);
    if (size < need) return Fail(ERROR_INSUFFICIENT_BUFFER);
    std::memcpy(detail->DevicePath, path.c_str(), (path.size() + 1) * sizeof(wchar_t));
    return TRUE;
}

void ImageDisks::CloseInterfaceSet(HDEVINFO set) {
    if (sets_.erase(set)) ++setsClosed;
}

HANDLE ImageDisks::Open(const std::wstring& path, DWORD access, DWORD share, DWORD attributes) {
    if (auto f = faults.openPath.find(path); f != faults.openPath.end())
        return (::SetLastError(f->second), INVALID_HANDLE_VALUE);
    int disk = -2;
    if (_wcsicmp(path.c_str(), kVolume) == 0) disk = -1;
    for (size_t i = 0; i < disks_.size() && disk == -2; ++i)
        if (_wcsicmp(path.c_str(), InterfacePath(i).c_str()) == 0 ||
            _wcsicmp(path.c_str(), (L"\\\\.\\PHYSICALDRIVE" + std::to_wstring(i)).c_str()) == 0 ||
            _wcsicmp(path.c_str(), (L"\\\\?\\PhysicalDrive" + std::to_wstring(i)).c_str()) == 0)
            disk = static_cast<int>(i);
    if (disk == -2) return (::SetLastError(ERROR_FILE_NOT_FOUND), INVALID_HANDLE_VALUE);
    HANDLE h = disk == -1 ? ::CreateEventW(nullptr, FALSE, FALSE, nullptr)
                          : ::CreateFileW(disks_[disk].file.c_str(), access & (GENERIC_READ | GENERIC_WRITE), share,
                                          nullptr, OPEN_EXISTING, attributes, nullptr);
    if (h == INVALID_HANDLE_VALUE || !h) return INVALID_HANDLE_VALUE;
    handles_[h] = {disk, access};
    ++opens;
    opened.push_back(path);
    return h;
}

BOOL ImageDisks::Control(HANDLE device, DWORD code, const void* in, DWORD inSize, void* out, DWORD outSize,
                         DWORD* returned) {
    auto it = handles_.find(device);
    if (it == handles_.end()) return Fail(ERROR_INVALID_HANDLE);
    if (auto f = faults.control.find(code); f != faults.control.end()) return Fail(f->second);
    *returned = 0;
    const Open_ open = it->second;
    if (open.disk == -1) {
        if (code != IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS) return Fail(ERROR_INVALID_FUNCTION);
        if (outSize < sizeof(VOLUME_DISK_EXTENTS)) return Fail(ERROR_INSUFFICIENT_BUFFER);
        auto* extents = static_cast<VOLUME_DISK_EXTENTS*>(out);
        const DWORD n = static_cast<DWORD>(systemVolumeDisks.size());
        extents->NumberOfDiskExtents = n;
        if (outSize < offsetof(VOLUME_DISK_EXTENTS, Extents) + n * sizeof(DISK_EXTENT)) {
            *returned = sizeof(VOLUME_DISK_EXTENTS);
            return Fail(ERROR_MORE_DATA);
        }
        for (DWORD i = 0; i < n; ++i) {
            extents->Extents[i].DiskNumber = systemVolumeDisks[i];
            extents->Extents[i].StartingOffset.QuadPart = 1 << 20;
            extents->Extents[i].ExtentLength.QuadPart = 8 << 20;
        }
        *returned = static_cast<DWORD>(offsetof(VOLUME_DISK_EXTENTS, Extents) + n * sizeof(DISK_EXTENT));
        return TRUE;
    }
    const ImageDisk& disk = disks_[open.disk];
    switch (code) {
        case IOCTL_DISK_GET_LENGTH_INFO: {
            if (outSize < sizeof(GET_LENGTH_INFORMATION)) return Fail(ERROR_INSUFFICIENT_BUFFER);
            static_cast<GET_LENGTH_INFORMATION*>(out)->Length.QuadPart = static_cast<LONGLONG>(FileSize(device));
            *returned = sizeof(GET_LENGTH_INFORMATION);
            return TRUE;
        }
        case IOCTL_DISK_GET_DRIVE_GEOMETRY_EX: {
            if (outSize < offsetof(DISK_GEOMETRY_EX, Data)) return Fail(ERROR_INSUFFICIENT_BUFFER);
            auto* g = static_cast<DISK_GEOMETRY_EX*>(out);
            const uint64_t bytes = FileSize(device);
            g->Geometry.MediaType = FixedMedia;
            g->Geometry.TracksPerCylinder = 255;
            g->Geometry.SectorsPerTrack = 63;
            g->Geometry.BytesPerSector = disk.sectorSize;
            g->Geometry.Cylinders.QuadPart = static_cast<LONGLONG>(bytes / (255ull * 63 * disk.sectorSize));
            g->DiskSize.QuadPart = static_cast<LONGLONG>(bytes);
            *returned = static_cast<DWORD>(offsetof(DISK_GEOMETRY_EX, Data));
            return TRUE;
        }
        case IOCTL_DISK_CREATE_DISK:
        case IOCTL_DISK_SET_DRIVE_LAYOUT_EX: {
            if (!(open.access & GENERIC_WRITE)) return Fail(ERROR_ACCESS_DENIED);
            const DWORD rc = code == IOCTL_DISK_CREATE_DISK ? CreateDisk(device, disk, in, inSize)
                                                            : SetLayout(device, disk, in, inSize);
            return rc ? Fail(rc) : TRUE;
        }
        default:
            return Fail(ERROR_INVALID_FUNCTION);
    }
}

DWORD ImageDisks::CreateDisk(HANDLE h, const ImageDisk& disk, const void* in, DWORD inSize) {
    if (!in || inSize < sizeof(CREATE_DISK)) return ERROR_INVALID_PARAMETER;
    const auto* create = static_cast<const CREATE_DISK*>(in);
    const Shape s = ShapeOf(h, disk);
    // Whatever table the disk had is gone: both GPT areas are cleared.
    if (!Zero(h, s.sector, (1 + s.array) * s.sector) || !Zero(h, (s.last - s.array) * s.sector, (1 + s.array) * s.sector))
        return ::GetLastError();
    if (create->PartitionStyle == PARTITION_STYLE_MBR)
        return WriteMbr(h, create->Mbr.Signature, false, s.last) ? 0 : ::GetLastError();
    if (create->PartitionStyle != PARTITION_STYLE_GPT || create->Gpt.MaxPartitionCount != kEntries)
        return ERROR_NOT_SUPPORTED;
    return WriteMbr(h, 0, true, s.last) && WriteGpt(h, s, create->Gpt.DiskId) ? 0 : ::GetLastError();
}

DWORD ImageDisks::SetLayout(HANDLE h, const ImageDisk& disk, const void* in, DWORD inSize) {
    const size_t head = offsetof(DRIVE_LAYOUT_INFORMATION_EX, PartitionEntry);
    if (!in || inSize < head) return ERROR_INVALID_PARAMETER;
    const auto* layout = static_cast<const DRIVE_LAYOUT_INFORMATION_EX*>(in);
    if (inSize < head + layout->PartitionCount * sizeof(PARTITION_INFORMATION_EX)) return ERROR_INVALID_PARAMETER;
    const Shape s = ShapeOf(h, disk);
    const int style = StyleOnDisk(h, s);
    if (layout->PartitionStyle == PARTITION_STYLE_MBR) {
        if (style != 1 || layout->PartitionCount == 0 || layout->PartitionCount % 4) return ERROR_INVALID_PARAMETER;
        for (DWORD i = 0; i < layout->PartitionCount; ++i)
            if (layout->PartitionEntry[i].PartitionStyle != PARTITION_STYLE_MBR ||
                layout->PartitionEntry[i].Mbr.PartitionType != PARTITION_ENTRY_UNUSED)
                return ERROR_NOT_SUPPORTED;
        return WriteMbr(h, layout->Mbr.Signature, false, s.last) ? 0 : ::GetLastError();
    }
    if (layout->PartitionStyle != PARTITION_STYLE_GPT || style != 2) return ERROR_INVALID_PARAMETER;
    if (layout->PartitionCount) return ERROR_NOT_SUPPORTED;
    const DRIVE_LAYOUT_INFORMATION_GPT& g = layout->Gpt;
    if (g.MaxPartitionCount != kEntries ||
        static_cast<uint64_t>(g.StartingUsableOffset.QuadPart) != s.first() * s.sector ||
        static_cast<uint64_t>(g.UsableLength.QuadPart) != (s.lastUsable() - s.first() + 1) * s.sector)
        return ERROR_INVALID_PARAMETER;
    return WriteGpt(h, s, g.DiskId) ? 0 : ::GetLastError();
}

BOOL ImageDisks::ReadAt(HANDLE device, uint64_t offset, void* buffer, DWORD size, DWORD* read) {
    auto it = handles_.find(device);
    if (it == handles_.end()) return Fail(ERROR_INVALID_HANDLE);
    if (it->second.disk < 0) return Fail(ERROR_INVALID_FUNCTION);
    if (faults.read) return Fail(faults.read);
    // A disk reads whole sectors only.
    const DWORD sector = disks_[it->second.disk].sectorSize;
    if (offset % sector || size % sector) return Fail(ERROR_INVALID_PARAMETER);
    LARGE_INTEGER at;
    at.QuadPart = static_cast<LONGLONG>(offset);
    if (!::SetFilePointerEx(device, at, nullptr, FILE_BEGIN)) return FALSE;
    return ::ReadFile(device, buffer, size, read, nullptr);
}

void ImageDisks::Close(HANDLE device) {
    if (handles_.erase(device)) ++closes;
    ::CloseHandle(device);
}

UINT ImageDisks::WindowsDirectory(wchar_t* buffer, UINT size) {
    if (faults.windowsDir) return (::SetLastError(faults.windowsDir), 0u);
    return ::GetWindowsDirectoryW(buffer, size);
}

}  // namespace rawtest
