// The password lookup of a backup session.
#pragma once

#include <windows.h>

#include <string>

namespace kx::bitmap {

// Whether session `session` of `root` is encrypted and, if so, its password.
// 0, or the code of the failing step (reading its description, asking the
// backup core).
DWORD GetZekSessionPwd(const std::wstring& root, DWORD session, DWORD flag, bool* encrypted, std::wstring* password);

}  // namespace kx::bitmap
