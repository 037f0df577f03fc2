#include "platform/vdisk.h"

namespace kx::vdisk {

DWORD OpenVhdDisk(const wchar_t* path, DWORD access, DWORD share, const PasswordBlock* password,
                  std::unique_ptr<IVDisk>* disk);

DWORD CreateVHDFileEx(const wchar_t* path, DWORD access, DWORD share, const PasswordBlock* password,
                      std::unique_ptr<IVDisk>* disk) {
    disk->reset();
    if (!path || !*path) return ERROR_INVALID_PARAMETER;
    return OpenVhdDisk(path, access, share, password, disk);
}

}  // namespace kx::vdisk
