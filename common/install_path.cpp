#include "common/install_path.h"

namespace kx {

DWORD GetZekInstallPath(std::wstring& path) {
    path.clear();
    wchar_t buf[MAX_PATH] = {};
    DWORD size = sizeof buf;
    const LSTATUS rc = ::RegGetValueW(HKEY_LOCAL_MACHINE, kInstallPathKey, L"Path", RRF_RT_REG_SZ, nullptr, buf, &size);
    if (rc != ERROR_SUCCESS) return static_cast<DWORD>(rc);
    path = buf;
    while (path.size() > 3 && path.back() == L'\\') path.pop_back();
    return path.empty() ? ERROR_FILE_NOT_FOUND : 0;
}

}  // namespace kx
