#include "session/vcm_config.h"

#include <cwctype>

#include "common/dest_layout.h"
#include "common/install_path.h"
#include "common/result_codes.h"
#include "platform/unicode_ini.h"
#include "common/wstring_format.h"
#include "log/call_frame.h"
#include "platform/backup_core.h"

namespace kx::session {

namespace {

constexpr const wchar_t* kSection = L"Configuration";

// The folder that holds the file of this library.
std::wstring ModuleFolder() {
    HMODULE self = nullptr;
    ::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                         reinterpret_cast<LPCWSTR>(&ModuleFolder), &self);
    wchar_t path[MAX_PATH] = {};
    const DWORD n = ::GetModuleFileNameW(self, path, MAX_PATH);
    std::wstring p(path, n);
    const size_t slash = p.rfind(L'\\');
    return slash == std::wstring::npos ? p : p.substr(0, slash);
}

}  // namespace

DWORD GetVCMConfigFilePath(std::wstring& path) {
    path.clear();
    std::wstring install;
    if (DWORD rc = GetZekInstallPath(install)) {
        Log(0, L"GetVCMConfigFilePath, GetZekInstallPath failed, rc = 0x%X", rc);
        return rc;
    }
    path = install + L"\\Configuration\\" + L"vcm.ini";
    return 0;
}

namespace {

DWORD ReadConfig(VCMConfigure* config) {
    config->manualVCM = false;
    config->indexFolder.clear();
    std::wstring path;
    if (DWORD rc = GetVCMConfigFilePath(path)) {
        Log(0, L"ReadVCMCfg::GetCfgPath error, rc = 0x%X", rc);
        return rc;
    }
    if (path.empty()) {
        Log(0, L"ReadVCMConfigFromFile failed, rc = 0x%X", kE_INVALIDARG);
        return kE_INVALIDARG;
    }
    config->manualVCM = ::GetPrivateProfileIntW(kSection, L"ManualVCM", 0, path.c_str()) != 0;
    if (config->manualVCM) {
        wchar_t folder[1024] = {};
        ::GetPrivateProfileStringW(kSection, L"IdxFolder", L"", folder, 1024, path.c_str());
        config->indexFolder = *folder ? folder : ModuleFolder() + L"\\temp\\MVCM";
    }
    return 0;
}

DWORD WriteConfig(const VCMConfigure* config) {
    std::wstring path;
    if (DWORD rc = GetVCMConfigFilePath(path)) {
        Log(0, L"WriteVCMCfg::GetCfgPath error, rc = 0x%X", rc);
        return rc;
    }
    if (path.empty()) return kE_INVALIDARG;
    if (::GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) {
        // The install folder may not have its Configuration folder yet.
        ::CreateDirectoryW(path.substr(0, path.rfind(L'\\')).c_str(), nullptr);
        if (DWORD rc = CreateIniWithUnicodePrefix(path.c_str(), L"[VCMSIG]")) {
            Log(0, L"WriteVCMConfigFile, create cfg file failed, file = %s, rc = 0x%X", path.c_str(), rc);
            return rc;
        }
    }
    if (!::WritePrivateProfileStringW(kSection, nullptr, nullptr, path.c_str())) {
        const DWORD rc = LastErrorOr();
        Log(0, L"WriteVCMConfigFile, clear app failed, file = %s, rc = 0x%X", path.c_str(), rc);
        return rc;
    }
    const std::wstring manual = Format(L"%u", config->manualVCM ? 1u : 0u);
    if (!::WritePrivateProfileStringW(kSection, L"ManualVCM", manual.c_str(), path.c_str())) {
        const DWORD rc = LastErrorOr();
        Log(0, L"WriteVCMConfigFile, write bManul failed, file = %s, rc = 0x%X", path.c_str(), rc);
        return rc;
    }
    if (!::WritePrivateProfileStringW(kSection, L"IdxFolder", config->indexFolder.c_str(), path.c_str())) {
        const DWORD rc = LastErrorOr();
        Log(0, L"WriteVCMConfigFile, write IdxFolder failed, file = %s, rc = 0x%X", path.c_str(), rc);
        return rc;
    }
    return 0;
}

}  // namespace

DWORD ReadVCMConfig(VCMConfigure* config) {
    return RunExport<kReadVCMConfigure>([&](auto& frame) -> DWORD {
        if (!config) return frame.InvalidParameter();
        return ReadConfig(config);
    });
}

DWORD WriteVCMConfig(const VCMConfigure* config) {
    return RunExport<kWriteVCMConfigure>([&](auto& frame) -> DWORD {
        if (!config) return frame.InvalidParameter();
        const DWORD rc = WriteConfig(config);
        if (rc) Log(0, L"WriteVCMConfigFromFile failed, rc = 0x%X", rc);
        return rc;
    });
}

DWORD TranslateSessionPath(const std::wstring& indexFolder, const std::wstring& sessionPath, std::wstring& rwFolder) {
    std::wstring path = sessionPath;
    while (!path.empty() && (path.back() == L'\\' || path.back() == L'/')) path.pop_back();
    std::wstring root;
    DWORD session = 0;
    if (indexFolder.empty() || !GetRootAndSessNumFromPath(path.c_str(), root, &session) || root.empty())
        return ERROR_BAD_PATHNAME;
    uint32_t hash = 2166136261u;
    for (wchar_t c : root) {
        hash ^= static_cast<uint32_t>(towupper(c));
        hash *= 16777619u;
    }
    const size_t slash = root.find_last_of(L"\\:");
    std::wstring name = slash == std::wstring::npos ? root : root.substr(slash + 1);
    for (wchar_t& c : name) c = towlower(c);
    if (name.empty()) name = L"root";
    rwFolder = JoinPath(JoinPath(indexFolder, Format(L"%s-%08x", name.c_str(), hash)), SessionFolderName(session));
    return 0;
}

DWORD GetSessionRWFolder(const std::wstring& sessionPath, std::wstring& rwFolder) {
    return RunExport<kMVCM_GetSessionRWFolder>([&](auto&) { return SessionRWFolder(sessionPath, rwFolder); });
}

DWORD SessionRWFolder(const std::wstring& sessionPath, std::wstring& rwFolder) {
    VCMConfigure config{};
    if (DWORD rc = ReadConfig(&config)) {
        Log(0, L"MVCM_GetSessionRWFolder, ReadVCMCfg failed, rc = 0x%X", rc);
        return rc;
    }
    if (!config.manualVCM) {
        rwFolder = sessionPath;
        return 0;
    }
    if (DWORD rc = TranslateSessionPath(config.indexFolder, sessionPath, rwFolder)) {
        Log(0, L"MVCM_GetSessionRWFolder, failed to get new path, sess_path = %s", sessionPath.c_str());
        return rc;
    }
    return 0;
}

}  // namespace kx::session
