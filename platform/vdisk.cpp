#include "platform/vdisk.h"

#include <atomic>

namespace kx::vdisk {

DWORD OpenVhdDisk(const wchar_t* path, DWORD access, DWORD share, const PasswordBlock* password,
                  std::unique_ptr<IVDisk>* disk);

namespace {
std::atomic<OpenFn> g_opener{nullptr};
}

DWORD CreateVHDFileEx(const wchar_t* path, DWORD access, DWORD share, const PasswordBlock* password,
                      std::unique_ptr<IVDisk>* disk) {
    disk->reset();
    if (!path || !*path) return ERROR_INVALID_PARAMETER;
    OpenFn open = g_opener.load();
    return open ? open(path, access, share, password, disk) : OpenVhdDisk(path, access, share, password, disk);
}

namespace testing {
void SetOpener(OpenFn open) noexcept { g_opener.store(open); }
}  // namespace testing

}  // namespace kx::vdisk
