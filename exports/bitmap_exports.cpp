// Exported bitmap file services.
#include "KestrixHA/bitmap.h"
#include "bitmap/disk_bmp_file_reader.h"
#include "bitmap/zek_bitmap_writer.h"
#include "common/call_frame.h"

KXHA_API DWORD ReadDiskBitmap(const wchar_t* path, IDiskBmpReader** reader) {
    return kx::RunExport(L"ReadDiskBitmap", [&]() -> DWORD {
        if (kx::IsNullOrEmpty(path) || !reader) return kx::kE_INVALIDARG;
        kx::bitmap::CDiskBmpFileRD* r = nullptr;
        const DWORD rc = kx::bitmap::OpenBitmapReader(path, &r);
        *reader = r;
        return rc;
    });
}

KXHA_API DWORD CreateBitmap4ZekFile(const wchar_t* sourceFolder, const wchar_t* targetFolder, const wchar_t* fileName,
                                    DWORD flag) {
    return kx::RunExport(L"CreateBitmap4ZekFile", [&] {
        return kx::bitmap::CreateBitmap4ZekFileImpl(sourceFolder, targetFolder, fileName, flag);
    });
}
