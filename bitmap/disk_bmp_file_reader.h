// CDiskBmpFileRD: serves sector ranges of one bitmap file. The file stays
// open, shared for reading and writing, for the object's life.
#pragma once

#include <string>

#include "KestrixHA/bitmap.h"
#include "bitmap/bitmap_file_format.h"
#include "common/unique_resource.h"

namespace kx::bitmap {

class CDiskBmpFileRD final : public IDiskBmpReader {
public:
    CDiskBmpFileRD() noexcept;

    // Opens the file and reads its header.
    DWORD Init(const wchar_t* path);

    DWORD Release() override;
    DWORD GetBitmap(LONGLONG startingSector, LONG cbToRead, DiskBitmapBuffer* buffer) override;
    DWORD GetTotalSectors(LONGLONG* totalSectors) override;

    const BitmapFileHeader& Header() const noexcept { return header_; }

private:
    ~CDiskBmpFileRD() override = default;

    unique_hfile file_;
    std::wstring path_;
    BitmapFileHeader header_;
};

using BitmapFileReaderPtr = unique_released<CDiskBmpFileRD>;

// Opens a bitmap file as a reader; empty on failure. 0xFFFFFFFF when the
// object cannot be made, else the code of Init.
[[nodiscard]] DWORD OpenBitmapReader(const wchar_t* path, BitmapFileReaderPtr& reader);

// The export ReadDiskBitmap: E_INVALIDARG for an empty path or a null out
// pointer; *reader is null on failure.
[[nodiscard]] DWORD ReadDiskBitmap(const wchar_t* path, IDiskBmpReader** reader);

// Reads just the header of a bitmap file.
[[nodiscard]] DWORD ReadBitmapHeader(const wchar_t* path, BitmapFileHeader* header);

}  // namespace kx::bitmap
