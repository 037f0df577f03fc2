// Raw access to the host's disks: the disk interfaces SetupAPI lists, a
// device opened by path, its control codes and positioned reads, and the
// Windows folder (which names the system volume).
//
// Every call sits behind one small interface with the real system as its
// default, so that a test can serve "disks" that are image files and make
// any step fail. The walk over the disk interfaces is written here once, on
// top of that interface, with its log lines.
#pragma once

#include <windows.h>
#include <setupapi.h>

#include <cstdint>
#include <string>
#include <vector>

#include "common/unique_resource.h"

namespace kx::platform {

class DiskDevices {
public:
    virtual ~DiskDevices() = default;

    // SetupDiGetClassDevsW(cls, null, null, flags); INVALID_HANDLE_VALUE and
    // the thread's last error on failure.
    virtual HDEVINFO OpenInterfaceSet(const GUID& cls, DWORD flags);
    // SetupDiEnumDeviceInterfaces(set, null, cls, index, data).
    virtual BOOL EnumInterface(HDEVINFO set, const GUID& cls, DWORD index, SP_DEVICE_INTERFACE_DATA* data);
    // SetupDiGetDeviceInterfaceDetailW(set, data, detail, size, required, null).
    virtual BOOL InterfaceDetail(HDEVINFO set, SP_DEVICE_INTERFACE_DATA* data,
                                 SP_DEVICE_INTERFACE_DETAIL_DATA_W* detail, DWORD size, DWORD* required);
    // SetupDiDestroyDeviceInfoList.
    virtual void CloseInterfaceSet(HDEVINFO set);

    // CreateFileW(path, access, share, null, OPEN_EXISTING, attributes, null).
    virtual HANDLE Open(const std::wstring& path, DWORD access, DWORD share, DWORD attributes);
    // DeviceIoControl without overlapped I/O.
    virtual BOOL Control(HANDLE device, DWORD code, const void* in, DWORD inSize, void* out, DWORD outSize,
                         DWORD* returned);
    // A positioned read of `size` bytes at byte `offset` (FALSE: the code is
    // in GetLastError()).
    virtual BOOL ReadAt(HANDLE device, uint64_t offset, void* buffer, DWORD size, DWORD* read);
    // CloseHandle.
    virtual void Close(HANDLE device);

    // GetWindowsDirectoryW.
    virtual UINT WindowsDirectory(wchar_t* buffer, UINT size);
};

// The devices in use: the real ones unless a test put others in place.
DiskDevices& CurrentDiskDevices() noexcept;

namespace testing {
// Puts `devices` in place of the real ones (nullptr restores them). The
// caller keeps it alive while it is in place.
void SetDiskDevices(DiskDevices* devices) noexcept;
}  // namespace testing

namespace detail {
inline void close_device(HANDLE h) noexcept { CurrentDiskDevices().Close(h); }
inline void close_interface_set(HDEVINFO s) noexcept { CurrentDiskDevices().CloseInterfaceSet(s); }
}  // namespace detail

// A device opened through CurrentDiskDevices(), closed through it.
using unique_device = unique_any<kx::detail::file_traits<detail::close_device>>;
// A device information set, destroyed through CurrentDiskDevices().
using unique_interface_set = unique_any<kx::detail::file_traits<detail::close_interface_set>>;

// {53F56307-B6BF-11D0-94F2-00A0C91EFB8B}: the interface class of disks.
inline constexpr GUID kDiskInterfaceClass = {0x53f56307, 0xb6bf, 0x11d0, {0x94, 0xf2, 0x00, 0xa0, 0xc9, 0x1e, 0xfb, 0x8b}};

// The device path of the disk interface at `index` of `set`. Returns 0,
// ERROR_NO_MORE_ITEMS past the last one, or the failing step's error
// (logged).
DWORD GetDiskPath(HDEVINFO set, DWORD index, std::wstring* path);

// The device paths of every present disk interface, in SetupAPI's order.
// Returns ERROR_NO_MORE_ITEMS when the walk reached the end of the list
// (every path is in *paths), or the error that ended it early (logged; the
// paths read before it stay in *paths).
DWORD EnumerateDiskPaths(std::vector<std::wstring>* paths);

// Opens `path` for `access` with sharing `share` (OPEN_EXISTING).
unique_device OpenDevice(const std::wstring& path, DWORD access, DWORD share, DWORD attributes = 0);

// DeviceIoControl; 0 or the error it left.
DWORD DeviceControl(HANDLE device, DWORD code, const void* in, DWORD inSize, void* out, DWORD outSize,
                    DWORD* returned = nullptr);

// Entries of a new GPT.
inline constexpr DWORD kNewGptEntries = 128;

// The step of WriteEmptyPartitionTable that failed.
enum class TableStep { kOpen, kGeometry, kCreate, kLayout };

// Gives the disk at `path` a new, empty partition table, and nothing else:
// - MBR (`gpt` false): `signature` at byte 440 and four unused entries;
// - GPT: a protective MBR, `diskGuid`, 128 unused entries, the usable area
//   from the first sector after the primary entry array to the last one
//   before the backup array (sized from IOCTL_DISK_GET_DRIVE_GEOMETRY_EX).
// The disk is opened read-write (sharing read and write); for a GPT its
// geometry is read; then IOCTL_DISK_CREATE_DISK and
// IOCTL_DISK_SET_DRIVE_LAYOUT_EX are sent, and IOCTL_DISK_UPDATE_PROPERTIES
// (its answer ignored). Returns 0, or the failing step's error with *failed
// set to the step (a geometry too small for a GPT gives ERROR_INVALID_DATA
// at kGeometry).
DWORD WriteEmptyPartitionTable(const std::wstring& path, bool gpt, DWORD signature, const GUID& diskGuid,
                               TableStep* failed);

}  // namespace kx::platform
