// Exported session bitmap services: the bitmap file, its preparation, the
// catalogue and the union reader. Each runs in the export frame of its
// module (start and end lines, argument checks, no exception out).
#include "KestrixHA/bitmap.h"
#include "KestrixHA/bitmap_catalogue.h"
#include "bitmap/bitmap_catalogue.h"
#include "bitmap/bitmap_creation.h"
#include "bitmap/disk_bmp_file_reader.h"
#include "bitmap/union_reader.h"
#include "bitmap/zek_bitmap_writer.h"

namespace b = kx::bitmap;

KXHA_API DWORD ReadDiskBitmap(const wchar_t* path, IDiskBmpReader** reader) { return b::ReadDiskBitmap(path, reader); }

KXHA_API DWORD CreateBitmap4ZekFile(const wchar_t* sourceFolder, const wchar_t* targetFolder, const wchar_t* fileName,
                                    DWORD flag) {
    return b::CreateBitmap4ZekFile(sourceFolder, targetFolder, fileName, flag);
}

KXHA_API DWORD CreateBitmap4SessionEx(const wchar_t* sessionsFolder, const wchar_t* targetFolder,
                                      const wchar_t* sessionName, DWORD bRegen, DWORD flag, bool generateBitmaps) {
    return b::CreateBitmap4SessionEx(sessionsFolder, targetFolder, sessionName, bRegen, flag, generateBitmaps);
}

KXHA_API DWORD CreateBitmap4Session(const wchar_t* sessionsFolder, const wchar_t* targetFolder,
                                    const wchar_t* sessionName, DWORD flag) {
    return b::CreateBitmap4Session(sessionsFolder, targetFolder, sessionName, flag);
}

KXHA_API DWORD CreateBitmap4BackupDest(const wchar_t* root, DWORD flag, const wchar_t* bitmapRoot) {
    return b::CreateBitmap4BackupDest(root, flag, bitmapRoot);
}

KXHA_API DWORD CreateSessionBitmapEx(const wchar_t* path, const wchar_t* bitmapRoot, DWORD begin, DWORD end,
                                     DWORD bRegen, DWORD flag) {
    return b::CreateSessionBitmapEx(path, bitmapRoot, begin, end, bRegen, flag);
}

KXHA_API DWORD CreateSessionBitmap(const wchar_t* /*unused*/, DWORD flag, const wchar_t* path) {
    return b::CreateSessionBitmap(flag, path);
}

KXHA_API DWORD GetBackupDestList(const wchar_t* path, std::vector<std::wstring>& roots) {
    return b::GetBackupDestList(path, roots);
}

KXHA_API DWORD GetBitmapList4BackupDest(const wchar_t* root, std::vector<std::wstring>& sessions) {
    return b::GetBitmapList4BackupDest(root, sessions);
}

KXHA_API DWORD GetSessionBitmapList(const wchar_t* path, std::vector<std::wstring>& sessions) {
    return b::GetSessionBitmapList(path, sessions);
}

KXHA_API DWORD GetBitmapDiskList(const wchar_t* path, const wchar_t* session, std::vector<std::wstring>& files) {
    return b::GetBitmapDiskList(path, session, files);
}

KXHA_API DWORD CheckSessionBitmap(const wchar_t* root, const wchar_t* session, SessionBitmapCheck* result) {
    return b::CheckSessionBitmap(root, session, result);
}

KXHA_API DWORD DeleteBitmap4BackupDest(const wchar_t* root, const wchar_t* limit) {
    return b::DeleteBitmap4BackupDest(root, limit);
}

KXHA_API DWORD DeleteSessionBitmap(const wchar_t* path, const wchar_t* session) {
    return b::DeleteSessionBitmap(path, session);
}

KXHA_API DWORD DetectAndRemoveObsolteBitmap(const wchar_t* path, const wchar_t* begin, const wchar_t* end) {
    return b::DetectAndRemoveObsolteBitmap(path, begin, end);
}

KXHA_API DWORD GetBitmapReader_IncsFromFull(const wchar_t* diskPath, DWORD lowestSession, void* /*reserved*/,
                                            IDiskBmpReader** reader) {
    return b::GetBitmapReader_IncsFromFull(diskPath, lowestSession, reader);
}
