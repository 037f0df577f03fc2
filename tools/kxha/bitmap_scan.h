// Reading a whole bitmap through IDiskBmpReader: set sectors and extents.
#pragma once

#include <windows.h>

#include <vector>

#include "KestrixHA.h"

namespace kxha {

struct Extent {
    unsigned long long first = 0, count = 0;  // sectors
};

struct BitmapScan {
    unsigned long long totalSectors = 0;
    unsigned long long setSectors = 0;
    std::vector<Extent> extents;  // runs of set sectors, in order
    std::vector<BYTE> bits;       // the whole bitmap, when asked for
};

// Reads the reader's bitmap from sector 0 in 1 MiB requests. 0 or the
// reader's code.
DWORD ScanBitmap(IDiskBmpReader* reader, BitmapScan* scan, bool keepBits = false);

}  // namespace kxha
