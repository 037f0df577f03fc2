// The manual conversion configuration file "vcm.ini" and the folders it
// names.
#pragma once

#include <windows.h>

#include <string>

#include "KestrixHA/session.h"

namespace kx::session {

// <install path>\Configuration\vcm.ini
DWORD GetVCMConfigFilePath(std::wstring& path);

// The exports ReadVCMConfigure and WriteVCMConfigure.
[[nodiscard]] DWORD ReadVCMConfig(VCMConfigure* config);
[[nodiscard]] DWORD WriteVCMConfig(const VCMConfigure* config);

// The session's folder under the index folder: <index>\<root name>-<hash of
// the root path>\S##########. The hash (FNV-1a of the upper-cased root) keeps
// destinations with the same folder name apart; the same root always maps to
// the same folder.
DWORD TranslateSessionPath(const std::wstring& indexFolder, const std::wstring& sessionPath, std::wstring& rwFolder);

// The export MVCM_GetSessionRWFolder, and its work.
[[nodiscard]] DWORD GetSessionRWFolder(const std::wstring& sessionPath, std::wstring& rwFolder);
[[nodiscard]] DWORD SessionRWFolder(const std::wstring& sessionPath, std::wstring& rwFolder);

}  // namespace kx::session
