#include "disk/raw_checks.h"

#include <winioctl.h>

#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "host/host_wmi.h"
#include "log/call_frame.h"
#include "platform/disk_devices.h"

namespace kx::disk {

using platform::DeviceControl;
using platform::OpenDevice;

namespace {

constexpr DWORD kSectorBytes = 512;
constexpr size_t kSignatureOffset = 440;

}  // namespace

DWORD GetDiskSize(const std::wstring& path, int64_t* size) {
    const platform::unique_device disk = OpenDevice(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE);
    if (!disk) {
        const DWORD rc = LastErrorOr();
        Log(0, L"GetDiskSize, create disk failed, disk = %s, rc = 0x%X", path.c_str(), rc);
        return rc;
    }
    GET_LENGTH_INFORMATION length{};
    if (const DWORD rc = DeviceControl(disk.get(), IOCTL_DISK_GET_LENGTH_INFO, nullptr, 0, &length, sizeof(length))) {
        Log(0, L"GetDiskSize, devioctl failed, disk = %s, rc = 0x%X", path.c_str(), rc);
        return rc;
    }
    *size = length.Length.QuadPart;
    return 0;
}

DWORD GetSystemVolume(std::wstring* volume) {
    wchar_t folder[MAX_PATH] = {};
    const UINT n = platform::CurrentDiskDevices().WindowsDirectory(folder, MAX_PATH);
    if (n < 2 || n >= MAX_PATH) {
        const DWORD rc = LastErrorOr();
        Log(0, L"GetActivePartition: Failed to get windows directory.");
        return rc;
    }
    volume->assign(folder, 2);
    return 0;
}

namespace {

// IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS into a buffer that grows until the
// extents fit (a volume spanning several disks has one extent per piece).
DWORD GetVolumeDiskExtents(HANDLE volume, std::vector<BYTE>* buffer) {
    buffer->assign(sizeof(VOLUME_DISK_EXTENTS), 0);
    for (int attempt = 0; attempt < 8; ++attempt) {
        DWORD rc = DeviceControl(volume, IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, nullptr, 0, buffer->data(),
                                 static_cast<DWORD>(buffer->size()));
        if (rc == ERROR_MORE_DATA) {
            const auto* extents = reinterpret_cast<const VOLUME_DISK_EXTENTS*>(buffer->data());
            const size_t count = extents->NumberOfDiskExtents > 1 ? extents->NumberOfDiskExtents : 2;
            buffer->assign(offsetof(VOLUME_DISK_EXTENTS, Extents) + count * sizeof(DISK_EXTENT), 0);
            continue;
        }
        if (rc == 0 && reinterpret_cast<const VOLUME_DISK_EXTENTS*>(buffer->data())->NumberOfDiskExtents == 0)
            rc = ERROR_NOT_FOUND;
        if (rc) Log(0, L"GetVolumeDiskExtents: DeviceIOControl IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, rc=%d.", rc);
        return rc;
    }
    Log(0, L"GetVolumeDiskExtents: DeviceIOControl IOCTL_VOLUME_GET_VOLUME_DISK_EXTENTS, rc=%d.",
        static_cast<DWORD>(ERROR_MORE_DATA));
    return ERROR_MORE_DATA;
}

}  // namespace

DWORD GetVolumeDiskNumber(const std::wstring& volume, DWORD* disk) {
    const std::wstring device = L"\\\\.\\" + volume;
    const platform::unique_device handle = OpenDevice(device, 0, FILE_SHARE_READ | FILE_SHARE_WRITE);
    if (!handle) {
        const DWORD rc = LastErrorOr();
        Log(0, L"GetDiskInfo: CreateFile for %s failed with rc = %d.", device.c_str(), rc);
        return rc;
    }
    std::vector<BYTE> buffer;
    if (const DWORD rc = GetVolumeDiskExtents(handle.get(), &buffer)) {
        Log(0, L"GetDiskInfo: Failed to get the volume disk extents, rc = %d.", rc);
        return rc;
    }
    *disk = reinterpret_cast<const VOLUME_DISK_EXTENTS*>(buffer.data())->Extents[0].DiskNumber;
    return 0;
}

DWORD ReadDiskSignature(const std::wstring& path, DWORD* signature) {
    const platform::unique_device disk =
        OpenDevice(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, FILE_ATTRIBUTE_NORMAL);
    if (!disk) {
        const DWORD rc = LastErrorOr();
        Log(0, L"GetDiskSignature: CreateFile %s Failed (0x%x) ", path.c_str(), rc);
        return rc;
    }
    // A disk reads whole sectors only: one sector of the disk's own size
    // (512 bytes when the disk does not say).
    DISK_GEOMETRY_EX geometry{};
    DWORD bytes = kSectorBytes;
    if (DeviceControl(disk.get(), IOCTL_DISK_GET_DRIVE_GEOMETRY_EX, nullptr, 0, &geometry, sizeof(geometry)) == 0 &&
        geometry.Geometry.BytesPerSector > kSectorBytes && geometry.Geometry.BytesPerSector <= 65536)
        bytes = geometry.Geometry.BytesPerSector;
    std::unique_ptr<BYTE[]> sector(new (std::nothrow) BYTE[bytes]);
    if (!sector) {
        Log(0, L"GetDiskSignature: Failed to allocate buffer. ");
        return ERROR_NOT_ENOUGH_MEMORY;
    }
    DWORD read = 0;
    if (!platform::CurrentDiskDevices().ReadAt(disk.get(), 0, sector.get(), bytes, &read) || read != bytes) {
        const DWORD rc = LastErrorOr(ERROR_HANDLE_EOF);
        Log(0, L"GetDiskSignature: Read Drive failed with Error: %d.", rc);
        return rc;
    }
    std::memcpy(signature, sector.get() + kSignatureOffset, sizeof(*signature));
    Log(2, L"GetDiskSignature: The signature read for the disk %s is 0x%x.", path.c_str(), *signature);
    return 0;
}

DWORD CheckIfExistDiskLargerThan2T(bool* larger) {
    return RunExport<kCheckIfExistDiskLargerThan2T>([&](auto& frame) -> DWORD {
        if (!larger) return frame.InvalidParameter();
        *larger = false;
        std::vector<std::wstring> paths;
        const DWORD walk = platform::EnumerateDiskPaths(&paths);
        for (const std::wstring& path : paths) {
            int64_t size = 0;
            if (const DWORD rc = GetDiskSize(path, &size)) {
                Log(1, L"GetDiskSize failed, disk = %s, rc = 0x%X", path.c_str(), rc);
                continue;
            }
            if (size > kMbrLimit) {
                *larger = true;
                Log(2, L"Have disk > 2T, name = %s, size = 0x%I64X", path.c_str(), static_cast<unsigned long long>(size));
                return 0;
            }
        }
        return walk == ERROR_NO_MORE_ITEMS ? 0 : walk;
    });
}

DWORD getMaxDiskSize(int64_t* size) {
    return RunExport<kgetMaxDiskSize>([&](auto& frame) -> DWORD {
        if (!size) return frame.InvalidParameter();
        *size = 0;
        std::vector<std::wstring> paths;
        DWORD last = platform::EnumerateDiskPaths(&paths);
        for (const std::wstring& path : paths) {
            int64_t one = 0;
            if (const DWORD rc = GetDiskSize(path, &one)) {
                Log(1, L"GetDiskSize failed, disk = %s, rc = 0x%X", path.c_str(), rc);
                last = rc;
                continue;
            }
            if (one > *size) *size = one;
        }
        return *size > 0 ? 0 : last;
    });
}

DWORD GetSystemDiskSignature(DWORD* signature) {
    return RunExport<kGetSystemDiskSignature>([&](auto& frame) -> DWORD {
        if (!signature) return frame.InvalidParameter();
        // The host session is held around the disk work; nothing is asked of
        // it, and a host without WMI still gets its answer.
        wmi::WmiService session;
        host::OpenHostSession(&session);
        std::wstring volume;
        if (const DWORD rc = GetSystemVolume(&volume)) return rc;
        DWORD number = 0;
        if (const DWORD rc = GetVolumeDiskNumber(volume, &number)) return rc;
        return ReadDiskSignature(L"\\\\.\\PHYSICALDRIVE" + std::to_wstring(number), signature);
    });
}

DWORD CheckFileCryptCmprsAttr(const wchar_t* path, bool* compressed, bool* encrypted) {
    return RunExport<kCheckFileCryptCmprsAttr>(
        [&](auto& frame) -> DWORD {
            if (IsNullOrEmpty(path) || !compressed || !encrypted) return frame.InvalidParameter();
            *compressed = *encrypted = false;
            const DWORD attributes = ::GetFileAttributesW(path);
            if (attributes == INVALID_FILE_ATTRIBUTES) {
                const DWORD rc = LastErrorOr();
                Log(0, L"CheckFileCryptCmprsAttr failed, file = %s, rc = %d", path, rc);
                return rc;
            }
            *compressed = (attributes & FILE_ATTRIBUTE_COMPRESSED) != 0;
            *encrypted = (attributes & FILE_ATTRIBUTE_ENCRYPTED) != 0;
            return 0;
        },
        OrNull(path));
}

DWORD CheckIfFileOnCmprsVol(const wchar_t* path, bool* onCompressed) {
    return RunExport<kCheckIfFileOnCmprsVol>(
        [&](auto& frame) -> DWORD {
            if (onCompressed) *onCompressed = false;
            if (IsNullOrEmpty(path) || !onCompressed) return frame.InvalidParameter();
            wchar_t volume[MAX_PATH] = {};
            if (!::GetVolumePathNameW(path, volume, MAX_PATH)) {
                const DWORD rc = LastErrorOr();
                Log(0, L"CheckIfFileOnCmprsVol, get vol path failed, file = %s, rc = %d", path, rc);
                return rc;
            }
            DWORD flags = 0;
            if (!::GetVolumeInformationW(volume, nullptr, 0, nullptr, nullptr, &flags, nullptr, 0)) {
                const DWORD rc = LastErrorOr();
                Log(0, L"CheckIfFileOnCmprsVol, GetVolInfo failed, vol = %s, rc = %d", volume, rc);
                return rc;
            }
            if (flags & FILE_VOLUME_IS_COMPRESSED) {
                *onCompressed = true;
                return 0;
            }
            if (!volume[0]) return frame.InvalidParameter();
            const DWORD attributes = ::GetFileAttributesW(volume);
            if (attributes == INVALID_FILE_ATTRIBUTES) {
                const DWORD rc = LastErrorOr();
                Log(0, L"CheckFileCryptCmprsAttr failed, file = %s, rc = %d", volume, rc);
                return rc;
            }
            *onCompressed = (attributes & FILE_ATTRIBUTE_COMPRESSED) != 0;
            return 0;
        },
        OrNull(path));
}

}  // namespace kx::disk
