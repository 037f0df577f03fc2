// The default disk objects: VHD files through the VHD library.
#include "platform/vdisk.h"

namespace kx::vdisk {

DWORD OpenVhdDisk(const wchar_t* path, DWORD access, DWORD share, const PasswordBlock* password,
                  std::unique_ptr<IVDisk>* disk) {
    (void)path, (void)access, (void)share, (void)password, (void)disk;
    return ERROR_NOT_SUPPORTED;  // wired to the VHD library next
}

}  // namespace kx::vdisk
