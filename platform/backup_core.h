// The backup core: questions about backup destinations and sessions that the
// backup agent answers. The built-in default reads the destination layout on
// disk.
#pragma once

#include <windows.h>

#include <string>

namespace kx::platform {

// The password of an encrypted session, by session GUID. The built-in core
// cannot decrypt sessions: ERROR_NOT_SUPPORTED.
DWORD QuerySessionPassword(const std::wstring& sessionGuid, DWORD flag, std::wstring* password);

}  // namespace kx::platform
