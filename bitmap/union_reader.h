// The union of a disk's bitmaps across a chain of incremental sessions.
#pragma once

#include <memory>
#include <vector>

#include "KestrixHA/bitmap.h"
#include "common/unique_resource.h"

namespace kx::bitmap {

// Answers each request with the bitwise OR of its children's answers. The
// start and count are the first child's (the newest session).
class CDiskBmpReader_OR final : public IDiskBmpReader {
public:
    // Takes ownership of the children (newest first).
    using Child = unique_released<IDiskBmpReader>;
    explicit CDiskBmpReader_OR(std::vector<Child> children) noexcept;

    DWORD Release() override;
    DWORD GetBitmap(LONGLONG startingSector, LONG cbToRead, DiskBitmapBuffer* buffer) override;
    DWORD GetTotalSectors(LONGLONG* totalSectors) override;

private:
    ~CDiskBmpReader_OR() override = default;

    std::vector<Child> children_;
    std::unique_ptr<BYTE[]> scratch_;
    DWORD capacity_ = 0;  // bitmap bytes the scratch buffer holds
};

// The export GetBitmapReader_IncsFromFull: the union of the disk's bitmaps
// from its own session back to `lowestSession` or the full session before.
[[nodiscard]] DWORD GetBitmapReader_IncsFromFull(const wchar_t* diskPath, DWORD lowestSession,
                                                 IDiskBmpReader** reader);

// The bitmap file in `bitmaps` that belongs to disk file `diskFile`: the
// same name without extension. Empty when none does.
std::wstring FindBmpPathByVhdName(const std::vector<std::wstring>& bitmaps, const std::wstring& diskFile);

}  // namespace kx::bitmap
