#include "bitmap/disk_bmp_file_reader.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "common/positioned_io.h"
#include "common/result_codes.h"
#include "log/call_frame.h"

namespace kx::bitmap {

namespace {
// A read at a file offset; the file pointer plays no part.
BOOL ReadAt(HANDLE file, ULONGLONG offset, void* data, DWORD size, DWORD* got) {
    const DWORD rc = io::ReadAt(file, offset, data, size, got);
    return rc == 0 || rc == ERROR_HANDLE_EOF ? TRUE : FALSE;
}
}  // namespace

CDiskBmpFileRD::CDiskBmpFileRD() noexcept { std::memset(&header_, 0, sizeof header_); }

DWORD CDiskBmpFileRD::Init(const wchar_t* path) {
    if (!path || !*path) return kE_INVALIDARG;
    file_.reset();
    Log(2, L"CDiskBmpFileRD::Init, bitmap file = %s", path);
    file_.reset(::CreateFileW(path, GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                              FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file_) {
        const DWORD rc = LastErrorOr();
        Log(0, L"CDiskBmpFileRD::Init, Open bitmap file failed, path = %s, rc = %d", path, rc);
        return rc;
    }
    LARGE_INTEGER size{};
    if (!::GetFileSizeEx(file_.get(), &size)) return LastErrorOr();
    if (size.QuadPart < kBitmapHeaderSize) {
        Log(0, L"CDiskBmpFileRD::Init, bitmap size < BITMAP_HEADER_SIZE, size = %I64d", size.QuadPart);
        return kFailNoCode;
    }
    DWORD got = 0;
    if (!ReadAt(file_.get(), 0, &header_, kBitmapHeaderSize, &got) || got != kBitmapHeaderSize) {
        const DWORD rc = LastErrorOr();
        Log(0, L"CDiskBmpFileRD::ReadBmpHeader, read file failed, rc = %d", rc);
        Log(0, L"CDiskBmpFileRD::Init, read header failed, rc = %d", rc);
        return rc;
    }
    path_ = path;
    return 0;
}

DWORD CDiskBmpFileRD::Release() {
    delete this;
    return 0;
}

DWORD CDiskBmpFileRD::GetBitmap(LONGLONG startingSector, LONG cbToRead, DiskBitmapBuffer* buffer) {
    if (!buffer || cbToRead < 0) return kE_INVALIDARG;
    const LONGLONG total = header_.totalSectors;
    if (startingSector < 0 || startingSector > total) {
        Log(0, L"CDiskBmpFileRD::GetBitmap, starting_sec < 0 || > total_secs, starting = 0x%I64X", startingSector);
        return ERROR_INVALID_PARAMETER;
    }
    const LONGLONG aligned = (startingSector / 8) * 8;
    buffer->startingSector = aligned;
    const LONGLONG remaining = total - aligned;
    const DWORD toRead = static_cast<DWORD>(std::min<LONGLONG>(cbToRead, (remaining + 7) / 8));
    const ULONGLONG offset = kBitmapHeaderSize + static_cast<ULONGLONG>(startingSector / 8);
    DWORD got = 0;
    if (toRead && !ReadAt(file_.get(), offset, buffer->bitmap, toRead, &got)) {
        const DWORD rc = LastErrorOr();
        // The offset is logged divided by 8 once more, as installed log readers expect.
        Log(0, L"CDiskBmpFileRD::GetBitmap, read failed, startoffset = %I64d, cbToRead = %d, rc = %d", offset / 8,
            static_cast<int>(toRead), rc);
        return rc;
    }
    if (got != toRead) {
        Log(0, L"CDiskBmpFileRD::GetBitmap, ToRead != cbRead, startoffset = %I64d, cbToRead = %d, cbRead = %d",
            offset / 8, static_cast<int>(toRead), static_cast<int>(got));
        return kFailNoCode;
    }
    buffer->sectorCount = std::min<LONGLONG>(static_cast<LONGLONG>(got) * 8, remaining);
    return 0;
}

DWORD CDiskBmpFileRD::GetTotalSectors(LONGLONG* totalSectors) {
    if (!totalSectors) return kE_INVALIDARG;
    *totalSectors = header_.totalSectors;
    return 0;
}

DWORD OpenBitmapReader(const wchar_t* path, BitmapFileReaderPtr& reader) {
    BitmapFileReaderPtr r(new (std::nothrow) CDiskBmpFileRD());
    reader.reset();
    if (!r) return kFailNoCode;
    if (DWORD rc = r->Init(path)) return rc;
    reader = std::move(r);
    return 0;
}

DWORD ReadDiskBitmap(const wchar_t* path, IDiskBmpReader** reader) {
    return RunExport<kReadDiskBitmap>([&](auto& frame) -> DWORD {
        if (IsNullOrEmpty(path) || !reader) return frame.InvalidParameter();
        *reader = nullptr;
        BitmapFileReaderPtr r;
        const DWORD rc = OpenBitmapReader(path, r);
        *reader = r.release();
        return rc;
    });
}

DWORD ReadBitmapHeader(const wchar_t* path, BitmapFileHeader* header) {
    if (IsNullOrEmpty(path)) return kE_INVALIDARG;
    BitmapFileReaderPtr r;
    if (DWORD rc = OpenBitmapReader(path, r)) return rc;
    *header = r->Header();
    return 0;
}

}  // namespace kx::bitmap
