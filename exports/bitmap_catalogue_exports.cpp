// Exported session bitmap preparation, catalogue and union reader.
#include "KestrixHA/bitmap_catalogue.h"
#include "bitmap/bitmap_catalogue.h"
#include "bitmap/bitmap_creation.h"
#include "bitmap/union_reader.h"
#include "common/call_frame.h"

using namespace kx::bitmap;

KXHA_API DWORD CreateBitmap4SessionEx(const wchar_t* sessionsFolder, const wchar_t* targetFolder,
                                      const wchar_t* sessionName, DWORD bRegen, DWORD flag, bool generateBitmaps) {
    return kx::RunExport(L"CreateBitmap4SessionEx", [&] {
        return kx::bitmap::CreateBitmap4SessionEx(sessionsFolder, targetFolder, sessionName, bRegen, flag,
                                                  generateBitmaps);
    });
}

KXHA_API DWORD CreateBitmap4Session(const wchar_t* sessionsFolder, const wchar_t* targetFolder,
                                    const wchar_t* sessionName, DWORD flag) {
    return kx::RunExport(L"CreateBitmap4Session", [&] {
        return kx::bitmap::CreateBitmap4SessionEx(sessionsFolder, targetFolder, sessionName, 0, flag, true);
    });
}

KXHA_API DWORD CreateBitmap4BackupDest(const wchar_t* root, DWORD flag, const wchar_t* bitmapRoot) {
    return kx::RunExport(L"CreateBitmap4BackupDest", [&]() -> DWORD {
        if (!root) {
            kx::Log(0, L"%s() failed due to invalid parameter", L"CreateBitmap4BackupDest");
            return ERROR_INVALID_PARAMETER;
        }
        return CreateBitmap4BackupDestEx(root, bitmapRoot ? bitmapRoot : root, 0, 0, 0, flag);
    });
}

KXHA_API DWORD CreateSessionBitmapEx(const wchar_t* path, const wchar_t* bitmapRoot, DWORD begin, DWORD end,
                                     DWORD bRegen, DWORD flag) {
    return kx::RunExport(L"CreateSessionBitmapEx", [&] {
        return kx::bitmap::CreateSessionBitmapEx(path, bitmapRoot, begin, end, bRegen, flag);
    });
}

KXHA_API DWORD CreateSessionBitmap(const wchar_t* unused, DWORD flag, const wchar_t* path) {
    (void)unused;
    return kx::RunExport(L"CreateSessionBitmap",
                         [&] { return kx::bitmap::CreateSessionBitmapEx(path, path, 0, 0, 0, flag); });
}

KXHA_API DWORD GetBackupDestList(const wchar_t* path, std::vector<std::wstring>& roots) {
    return kx::RunExport(L"GetBackupDestList", [&] { return GetBackupDestListImpl(path, roots); });
}

KXHA_API DWORD GetBitmapList4BackupDest(const wchar_t* root, std::vector<std::wstring>& sessions) {
    return kx::RunExport(L"GetBitmapList4BackupDest", [&] { return GetBitmapList4BackupDestImpl(root, sessions); });
}

KXHA_API DWORD GetSessionBitmapList(const wchar_t* path, std::vector<std::wstring>& sessions) {
    return kx::RunExport(L"GetSessionBitmapList", [&] { return GetSessionBitmapListImpl(path, sessions); });
}

KXHA_API DWORD GetBitmapDiskList(const wchar_t* path, const wchar_t* session, std::vector<std::wstring>& files) {
    return kx::RunExport(L"GetBitmapDiskList", [&] { return GetBitmapDiskListImpl(path, session, files); });
}

KXHA_API DWORD CheckSessionBitmap(const wchar_t* root, const wchar_t* session, SessionBitmapCheck* result) {
    return kx::RunExport(L"CheckSessionBitmap", [&] { return CheckSessionBitmapImpl(root, session, result); });
}

KXHA_API DWORD DeleteBitmap4BackupDest(const wchar_t* root, const wchar_t* limit) {
    return kx::RunExport(L"DeleteBitmap4BackupDest", [&] { return DeleteBitmap4BackupDestImpl(root, limit); });
}

KXHA_API DWORD DeleteSessionBitmap(const wchar_t* path, const wchar_t* session) {
    return kx::RunExport(L"DeleteSessionBitmap", [&] { return DeleteSessionBitmapImpl(path, session); });
}

KXHA_API DWORD DetectAndRemoveObsolteBitmap(const wchar_t* path, const wchar_t* begin, const wchar_t* end) {
    return kx::RunExport(L"DetectAndRemoveObsolteBitmap",
                         [&] { return DetectAndRemoveObsolteBitmapImpl(path, begin, end); });
}

KXHA_API DWORD GetBitmapReader_IncsFromFull(const wchar_t* diskPath, DWORD lowestSession, void* reserved,
                                            IDiskBmpReader** reader) {
    (void)reserved;
    return kx::RunExport(L"GetBitmapReader_IncsFromFull", [&]() -> DWORD {
        if (kx::IsNullOrEmpty(diskPath) || !reader) return kx::kE_INVALIDARG;
        *reader = nullptr;
        return GetBitmapReaderIncsFromFullImpl(diskPath, lowestSession, reader);
    });
}
