#include "bitmap_scan.h"

namespace kxha {

DWORD ScanBitmap(IDiskBmpReader* reader, BitmapScan* scan, bool keepBits) {
    *scan = BitmapScan{};
    LONGLONG total = 0;
    if (DWORD rc = reader->GetTotalSectors(&total)) return rc;
    scan->totalSectors = static_cast<unsigned long long>(total);
    constexpr LONG kRequest = 1 << 20;
    std::vector<BYTE> raw(DiskBitmapBufferSize(kRequest));
    auto* buf = reinterpret_cast<DiskBitmapBuffer*>(raw.data());
    bool inRun = false;
    for (LONGLONG start = 0; start < total;) {
        if (DWORD rc = reader->GetBitmap(start, kRequest, buf)) return rc;
        if (buf->sectorCount <= 0) break;
        for (LONGLONG i = 0; i < buf->sectorCount; ++i) {
            const bool set = (buf->bitmap[i / 8] >> (i % 8)) & 1;
            const unsigned long long sector = static_cast<unsigned long long>(buf->startingSector + i);
            if (set) {
                ++scan->setSectors;
                if (inRun) {
                    ++scan->extents.back().count;
                } else {
                    scan->extents.push_back({sector, 1});
                    inRun = true;
                }
            } else {
                inRun = false;
            }
        }
        if (keepBits)
            scan->bits.insert(scan->bits.end(), buf->bitmap, buf->bitmap + (buf->sectorCount + 7) / 8);
        start = buf->startingSector + buf->sectorCount;
    }
    return 0;
}

}  // namespace kxha
