// Bitmap files and session folders made by hand for the bitmap tests.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "KestrixHA/bitmap.h"
#include "bitmap/bitmap_file_format.h"
#include "common/unique_resource.h"
#include "kx_test.h"
#include "tools/vhd_destination/vhd_destination.h"

namespace kxtest {

using kx::fixture::SessionName;

// A bitmap reader released when it goes out of scope.
using Reader = std::unique_ptr<IDiskBmpReader, kx::release_deleter<IDiskBmpReader>>;

inline void WriteBitmapFile(const std::wstring& path, int64_t totalSectors, const std::vector<uint8_t>& body,
                            uint32_t differencing = 1) {
    kx::bitmap::BitmapFileHeader h;
    std::memset(&h, 0, sizeof h);
    h.version = 1;
    h.differencing = differencing;
    h.totalSectors = totalSectors;
    std::vector<uint8_t> all(reinterpret_cast<uint8_t*>(&h), reinterpret_cast<uint8_t*>(&h) + sizeof h);
    all.insert(all.end(), body.begin(), body.end());
    WriteBytes(path, all.data(), all.size());
}

// BackupInfo.XML of a session made by hand.
inline void WriteBackupInfo(const std::wstring& folder, unsigned number, const char* kind,
                            const char* status = "Finished", int encrypted = 0) {
    ASSERT_EQ(kx::fixture::WriteBackupInfo(folder, number, kind, status, encrypted), 0u) << Narrow(folder);
}

}  // namespace kxtest
