// Exported manual-conversion configuration and intact-session queries.
#include "KestrixHA/session.h"
#include "common/call_frame.h"
#include "session/intact_sessions.h"
#include "session/vcm_config.h"

KXHA_API DWORD ReadVCMConfigure(VCMConfigure* config) {
    return kx::RunExport(L"ReadVCMConfigure", [&] { return kx::session::ReadVCMConfig(config); });
}

KXHA_API DWORD WriteVCMConfigure(const VCMConfigure* config) {
    return kx::RunExport(L"WriteVCMConfigure", [&] {
        const DWORD rc = kx::session::WriteVCMConfig(config);
        if (rc) kx::Log(0, L"WriteVCMConfigFromFile failed, rc = 0x%X", rc);
        return rc;
    });
}

KXHA_API DWORD MVCM_GetSessionRWFolder(const std::wstring& sessionPath, std::wstring& rwFolder) {
    return kx::RunExport(L"MVCM_GetSessionRWFolder",
                         [&] { return kx::session::GetSessionRWFolder(sessionPath, rwFolder); });
}

KXHA_API DWORD MVCM_OpenIntactSessionListHandle(const wchar_t* root, IntactSessionListHandle** handle) {
    return kx::RunExport(L"MVCM_OpenIntactSessionListHandle",
                         [&] { return kx::session::OpenIntactSessionList(root, handle); });
}

KXHA_API DWORD MVCM_QueryIntactSessionList(IntactSessionListHandle* handle, unsigned* sessions, int capacity,
                                           unsigned* count) {
    return kx::RunExport(L"MVCM_QueryIntactSessionList",
                         [&] { return kx::session::QueryIntactSessionList(handle, sessions, capacity, count); });
}

KXHA_API void MVCM_CloseIntactSessionListHandle(IntactSessionListHandle* handle) {
    kx::RunExportVoid(L"MVCM_CloseIntactSessionListHandle", [&] { kx::session::CloseIntactSessionList(handle); });
}
