#include "platform/disk_devices.h"

#include <atomic>
#include <memory>
#include <cstddef>
#include <new>
#include <vector>

#include <winioctl.h>

#include "common/positioned_io.h"
#include "log/debug_log.h"

namespace kx::platform {

namespace {
DiskDevices g_real;
std::atomic<DiskDevices*> g_current{nullptr};
}  // namespace

HDEVINFO DiskDevices::OpenInterfaceSet(const GUID& cls, DWORD flags) {
    return ::SetupDiGetClassDevsW(&cls, nullptr, nullptr, flags);
}

BOOL DiskDevices::EnumInterface(HDEVINFO set, const GUID& cls, DWORD index, SP_DEVICE_INTERFACE_DATA* data) {
    return ::SetupDiEnumDeviceInterfaces(set, nullptr, &cls, index, data);
}

BOOL DiskDevices::InterfaceDetail(HDEVINFO set, SP_DEVICE_INTERFACE_DATA* data,
                                  SP_DEVICE_INTERFACE_DETAIL_DATA_W* detail, DWORD size, DWORD* required) {
    return ::SetupDiGetDeviceInterfaceDetailW(set, data, detail, size, required, nullptr);
}

void DiskDevices::CloseInterfaceSet(HDEVINFO set) { ::SetupDiDestroyDeviceInfoList(set); }

HANDLE DiskDevices::Open(const std::wstring& path, DWORD access, DWORD share, DWORD attributes) {
    return ::CreateFileW(path.c_str(), access, share, nullptr, OPEN_EXISTING, attributes, nullptr);
}

BOOL DiskDevices::Control(HANDLE device, DWORD code, const void* in, DWORD inSize, void* out, DWORD outSize,
                          DWORD* returned) {
    DWORD ignored = 0;
    return ::DeviceIoControl(device, code, const_cast<void*>(in), inSize, out, outSize, returned ? returned : &ignored,
                             nullptr);
}

BOOL DiskDevices::ReadAt(HANDLE device, uint64_t offset, void* buffer, DWORD size, DWORD* read) {
    return io::ReadAt(device, offset, buffer, size, read) == 0;
}

void DiskDevices::Close(HANDLE device) { ::CloseHandle(device); }

UINT DiskDevices::WindowsDirectory(wchar_t* buffer, UINT size) { return ::GetWindowsDirectoryW(buffer, size); }

DiskDevices& CurrentDiskDevices() noexcept {
    DiskDevices* d = g_current.load();
    return d ? *d : g_real;
}

namespace testing {
void SetDiskDevices(DiskDevices* devices) noexcept { g_current.store(devices); }
}  // namespace testing

DWORD GetDiskPath(HDEVINFO set, DWORD index, std::wstring* path) {
    DiskDevices& devices = CurrentDiskDevices();
    SP_DEVICE_INTERFACE_DATA data{};
    data.cbSize = sizeof(data);
    if (!devices.EnumInterface(set, kDiskInterfaceClass, index, &data)) {
        const DWORD rc = LastErrorOr();
        if (rc == ERROR_NO_MORE_ITEMS) {
            Log(4, L"No more interfaces");
        } else {
            Log(0, L"SetupDiEnumDeviceInterfaces failed with error: %d", rc);
        }
        return rc;
    }
    // The first call only asks for the size, and must fail for want of room.
    DWORD required = 0;
    if (const DWORD rc = devices.InterfaceDetail(set, &data, nullptr, 0, &required) ? ERROR_INVALID_DATA : LastErrorOr();
        rc != ERROR_INSUFFICIENT_BUFFER) {
        Log(0, L"SetupDiGetDeviceInterfaceDetail failed with error: %d", rc);
        return rc;
    }
    if (required < offsetof(SP_DEVICE_INTERFACE_DETAIL_DATA_W, DevicePath) + sizeof(wchar_t)) {
        Log(0, L"SetupDiGetDeviceInterfaceDetail failed with error: %d", static_cast<DWORD>(ERROR_INVALID_DATA));
        return ERROR_INVALID_DATA;
    }
    // The buffer is kept in DWORDs so that the record's alignment holds.
    std::unique_ptr<DWORD[]> buffer(new (std::nothrow) DWORD[required / sizeof(DWORD) + 1]);
    if (!buffer) {
        Log(0, L"Unable to allocate memory to get the interface detail data.");
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    auto* detail = reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_W*>(buffer.get());
    detail->cbSize = sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_W);
    if (!devices.InterfaceDetail(set, &data, detail, required, nullptr)) {
        const DWORD rc = LastErrorOr();
        Log(0, L"Error in SetupDiGetDeviceInterfaceDetail failed with error: %d", rc);
        return rc;
    }
    // The path ends at its terminator or at the end of what was asked for.
    const size_t room = (required - offsetof(SP_DEVICE_INTERFACE_DETAIL_DATA_W, DevicePath)) / sizeof(wchar_t);
    size_t length = 0;
    while (length < room && detail->DevicePath[length]) ++length;
    path->assign(detail->DevicePath, length);
    return 0;
}

DWORD EnumerateDiskPaths(std::vector<std::wstring>* paths) {
    unique_interface_set set(
        CurrentDiskDevices().OpenInterfaceSet(kDiskInterfaceClass, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE));
    if (!set) {
        const DWORD rc = LastErrorOr();
        Log(0, L"SetupDiGetClassDevs failed with error: %d", rc);
        return rc;
    }
    for (DWORD index = 0;; ++index) {
        std::wstring path;
        const DWORD rc = GetDiskPath(set.get(), index, &path);
        if (rc == ERROR_NO_MORE_ITEMS) {
            Log(2, L"No More disks, cnt = %d", static_cast<int>(index));
            return rc;
        }
        if (rc) {
            Log(0, L"GetDiskPaths failed, index = %d, rc = 0x%X", static_cast<int>(index), rc);
            return rc;
        }
        paths->push_back(std::move(path));
    }
}

unique_device OpenDevice(const std::wstring& path, DWORD access, DWORD share, DWORD attributes) {
    return unique_device(CurrentDiskDevices().Open(path, access, share, attributes));
}

DWORD DeviceControl(HANDLE device, DWORD code, const void* in, DWORD inSize, void* out, DWORD outSize,
                    DWORD* returned) {
    DWORD got = 0;
    if (CurrentDiskDevices().Control(device, code, in, inSize, out, outSize, &got)) {
        if (returned) *returned = got;
        return 0;
    }
    return LastErrorOr();
}

namespace {

constexpr DWORD kGptEntryBytes = 128;

// The usable area of a new GPT, in sectors: after the MBR, the header and
// the entry array, and before the backup array and header.
struct GptArea {
    ULONGLONG sector = 0, first = 0, last = 0;
};

// The empty layout of `style`, as the bytes IOCTL_DISK_SET_DRIVE_LAYOUT_EX
// takes; `area` is used for a GPT only.
std::vector<BYTE> EmptyLayout(bool gpt, DWORD signature, const GUID& diskGuid, const GptArea& area) {
    // An MBR layout always lists its four primary entries, unused or not.
    const DWORD count = gpt ? 0 : 4;
    const size_t bytes =
        offsetof(DRIVE_LAYOUT_INFORMATION_EX, PartitionEntry) + (count ? count : 1) * sizeof(PARTITION_INFORMATION_EX);
    std::vector<BYTE> buffer(bytes, 0);
    auto* layout = reinterpret_cast<DRIVE_LAYOUT_INFORMATION_EX*>(buffer.data());
    layout->PartitionCount = count;
    if (!gpt) {
        layout->PartitionStyle = PARTITION_STYLE_MBR;
        layout->Mbr.Signature = signature;
        for (DWORD i = 0; i < count; ++i) {
            PARTITION_INFORMATION_EX& entry = layout->PartitionEntry[i];
            entry.PartitionStyle = PARTITION_STYLE_MBR;
            entry.RewritePartition = TRUE;
            entry.Mbr.PartitionType = PARTITION_ENTRY_UNUSED;
        }
        return buffer;
    }
    layout->PartitionStyle = PARTITION_STYLE_GPT;
    layout->Gpt.DiskId = diskGuid;
    layout->Gpt.StartingUsableOffset.QuadPart = static_cast<LONGLONG>(area.first * area.sector);
    layout->Gpt.UsableLength.QuadPart = static_cast<LONGLONG>((area.last - area.first + 1) * area.sector);
    layout->Gpt.MaxPartitionCount = kNewGptEntries;
    return buffer;
}

}  // namespace

DWORD WriteEmptyPartitionTable(const std::wstring& path, bool gpt, DWORD signature, const GUID& diskGuid,
                               TableStep* failed) {
    *failed = TableStep::kOpen;
    const unique_device disk = OpenDevice(path, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE);
    if (!disk) return LastErrorOr();
    // A GPT's usable area depends on the sector size and the disk's size.
    GptArea area;
    if (gpt) {
        *failed = TableStep::kGeometry;
        DISK_GEOMETRY_EX geometry{};
        if (const DWORD rc =
                DeviceControl(disk.get(), IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, nullptr, 0, &geometry, sizeof(geometry)))
            return rc;
        area.sector = geometry.Geometry.BytesPerSector;
        if (area.sector < 512) return ERROR_INVALID_DATA;
        const ULONGLONG sectors = static_cast<ULONGLONG>(geometry.DiskSize.QuadPart) / area.sector;
        const ULONGLONG arraySectors = (kNewGptEntries * kGptEntryBytes + area.sector - 1) / area.sector;
        if (sectors < 2 * arraySectors + 4) return ERROR_INVALID_DATA;
        area.first = 2 + arraySectors;
        area.last = sectors - 2 - arraySectors;
    }
    *failed = TableStep::kCreate;
    CREATE_DISK create{};
    if (!gpt) {
        create.PartitionStyle = PARTITION_STYLE_MBR;
        create.Mbr.Signature = signature;
    } else {
        create.PartitionStyle = PARTITION_STYLE_GPT;
        create.Gpt.DiskId = diskGuid;
        create.Gpt.MaxPartitionCount = kNewGptEntries;
    }
    if (const DWORD rc = DeviceControl(disk.get(), IOCTL_DISK_CREATE_DISK, &create, sizeof(create), nullptr, 0))
        return rc;
    *failed = TableStep::kLayout;
    std::vector<BYTE> layout = EmptyLayout(gpt, signature, diskGuid, area);
    if (const DWORD rc = DeviceControl(disk.get(), IOCTL_DISK_SET_DRIVE_LAYOUT_EX, layout.data(),
                                       static_cast<DWORD>(layout.size()), nullptr, 0))
        return rc;
    // Asks the system to read the new table now; the table is written either way.
    DeviceControl(disk.get(), IOCTL_DISK_UPDATE_PROPERTIES, nullptr, 0, nullptr, 0);
    return 0;
}

}  // namespace kx::platform
