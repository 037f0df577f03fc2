#include "bitmap/session_password.h"

#include "common/dest_layout.h"
#include "common/wstring_format.h"
#include "log/debug_log.h"
#include "platform/backup_core.h"
#include "platform/backup_info.h"

namespace kx::bitmap {

DWORD GetZekSessionPwd(const std::wstring& root, DWORD session, DWORD flag, bool* encrypted, std::wstring* password) {
    *encrypted = false;
    password->clear();
    std::wstring folder;
    if (DWORD rc = HA_GetKbSessPathByRootAndNum(root.c_str(), session, folder)) {
        Log(0, L"GetZekSessionPwd, invalid root [%s], rc = %d", root.c_str(), rc);
        return rc;
    }
    platform::BackupInfo info;
    const std::wstring xml = JoinPath(folder, platform::kBackupInfoFile);
    if (DWORD rc = platform::ReadBackupInfo(xml, &info)) {
        Log(0, L"GetZekSessionPwd, read session information failed, file = %s, rc = %d", xml.c_str(), rc);
        return rc;
    }
    if (!info.encrypted) return 0;
    *encrypted = true;
    if (DWORD rc = platform::QuerySessionPassword(info.sessionGuid, flag, password)) {
        Log(0, L"GetZekSessionPwd, get password of encrypted session %s failed, guid = %s, rc = %d", folder.c_str(),
            info.sessionGuid.c_str(), rc);
        return rc;
    }
    return 0;
}

}  // namespace kx::bitmap
