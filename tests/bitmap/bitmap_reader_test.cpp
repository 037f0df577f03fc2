// Bitmap files read through the exported reader.
#include <gtest/gtest.h>

#include <memory>

#include "KestrixHA/bitmap.h"
#include "bitmap/disk_bmp_file_reader.h"
#include "bitmap_test_util.h"

using kxtest::ScratchDir;

namespace {

using kxtest::Reader;

Reader Open(const std::wstring& path, DWORD* rc) {
    kx::bitmap::BitmapFileReaderPtr r;
    *rc = kx::bitmap::OpenBitmapReader(path.c_str(), r);
    return Reader(r.release());
}

struct Buffer {
    explicit Buffer(size_t bytes) : raw(DiskBitmapBufferSize(bytes), 0xCC) {}
    DiskBitmapBuffer* get() { return reinterpret_cast<DiskBitmapBuffer*>(raw.data()); }
    std::vector<uint8_t> raw;
};

}  // namespace

// Requests anywhere in real bitmaps are checked in vhd_destination_test;
// here the end itself and bad arguments.
TEST(BitmapReader, EdgesOfTheRange) {
    ScratchDir d;
    // 61 sectors: 8 bytes of body, the last byte holds 5 valid bits.
    kxtest::WriteBitmapFile(d / L"a.Bitmap", 61, {0x01, 0x02, 0x03, 0x04, 0x05, 0x06, 0x07, 0x1F});
    DWORD rc;
    Reader r = Open(d / L"a.Bitmap", &rc);
    ASSERT_EQ(rc, 0u);
    EXPECT_EQ(r->GetTotalSectors(nullptr), 0x80070057u);
    Buffer b(16);
    // The end itself is accepted and returns the last partial byte (requests
    // that run past it, and one past it, are checked in vhd_destination_test).
    ASSERT_EQ(r->GetBitmap(61, 16, b.get()), 0u);
    EXPECT_EQ(b.get()->startingSector, 56);
    EXPECT_EQ(b.get()->sectorCount, 5);
    EXPECT_EQ(b.raw[16], 0x1F);
    EXPECT_EQ(r->GetBitmap(-1, 16, b.get()), 87u);
    EXPECT_EQ(r->GetBitmap(0, 16, nullptr), 0x80070057u);
}

TEST(BitmapReader, BadFilesGiveTheirCodes) {
    ScratchDir d;
    kxtest::LogCursor log;
    DWORD rc;
    // Shorter than the header.
    kxtest::WriteBytes(d / L"short.Bitmap", std::vector<uint8_t>(255).data(), 255);
    EXPECT_FALSE(Open(d / L"short.Bitmap", &rc));
    EXPECT_EQ(rc, 0xFFFFFFFFu);
    EXPECT_TRUE(log.Contains(L"CDiskBmpFileRD::Init, bitmap size < BITMAP_HEADER_SIZE, size = 255"));

    // Missing.
    EXPECT_FALSE(Open(d / L"none.Bitmap", &rc));
    EXPECT_EQ(rc, 2u);
    EXPECT_TRUE(log.Contains(L"CDiskBmpFileRD::Init, Open bitmap file failed, path = " + (d / L"none.Bitmap") +
                             L", rc = 2"));

    // A header alone opens; its body is missing: a short read.
    kxtest::WriteBitmapFile(d / L"empty.Bitmap", 100, {});
    Reader r = Open(d / L"empty.Bitmap", &rc);
    ASSERT_EQ(rc, 0u);
    Buffer b(64);
    EXPECT_EQ(r->GetBitmap(0, 64, b.get()), 0xFFFFFFFFu);

    // A truncated body: total_secs larger than what the file holds.
    kxtest::WriteBitmapFile(d / L"trunc.Bitmap", 1000, std::vector<uint8_t>(100, 0xFF));
    r = Open(d / L"trunc.Bitmap", &rc);
    ASSERT_EQ(rc, 0u);
    EXPECT_EQ(r->GetBitmap(0, 64, b.get()), 0u);
    EXPECT_EQ(r->GetBitmap(800, 64, b.get()), 0xFFFFFFFFu);
    EXPECT_EQ(b.get()->startingSector, 800);
}

TEST(BitmapReader, ExportChecksArguments) {
    ScratchDir d;
    IDiskBmpReader* r = reinterpret_cast<IDiskBmpReader*>(1);
    EXPECT_EQ(ReadDiskBitmap(nullptr, &r), 0x80070057u);
    EXPECT_EQ(ReadDiskBitmap(L"", &r), 0x80070057u);
    EXPECT_EQ(ReadDiskBitmap(L"x", nullptr), 0x80070057u);
    EXPECT_EQ(ReadDiskBitmap((d / L"none").c_str(), &r), 2u);
    EXPECT_EQ(r, nullptr);  // readers it hands out are read in vhd_destination_test
}
