#include "platform/backup_core.h"

namespace kx::platform {

DWORD QuerySessionPassword(const std::wstring& sessionGuid, DWORD flag, std::wstring* password) {
    (void)sessionGuid;
    (void)flag;
    password->clear();
    return ERROR_NOT_SUPPORTED;
}

}  // namespace kx::platform
