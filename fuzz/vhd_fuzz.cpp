// libFuzzer target: the input is a VHD image held in memory. It is opened
// (a differencing image's parent is simply not found), described, its
// bitmaps asked for over a few ranges, a few sectors read, and, for images
// with small blocks, one sector written.
//
// Mutations rarely keep a checksum right, so an input of odd length loses
// its last byte and has the checksums of its footers and header fixed up:
// the fuzzer then reaches the tables and blocks behind them. Inputs of even
// length are taken as they are.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "memory_file_system.h"
#include "platform/vhd/vhd_disk.h"

using kx::vhd::VhdDisk;

namespace {

// Fixes the checksum of the footer or dynamic header at `at`, if it fits.
template <class Raw>
void Reseal(kxnative::Bytes& b, uint64_t at) {
    if (at > b.size() || b.size() - at < sizeof(Raw)) return;
    Raw raw = kx::vhd::LoadRaw<Raw>(&b[at]);
    raw.checksum.set(kx::vhd::ChecksumOf(raw));
    kx::vhd::StoreRaw(&b[at], raw);
}

void ResealAll(kxnative::Bytes& b) {
    if (b.size() < kx::vhd::kFooterSize) return;
    for (size_t footer : {size_t{0}, b.size() - kx::vhd::kFooterSize}) {
        Reseal<kx::vhd::RawFooter>(b, footer);
        Reseal<kx::vhd::RawDynamicHeader>(b, kx::vhd::LoadRaw<kx::vhd::RawFooter>(&b[footer]).dataOffset.get());
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kxnative::MemoryFileSystem fs;
    fs.maxFileBytes = 64u << 20;
    kxnative::Bytes image(data, data + size);
    if (size % 2) {
        image.pop_back();
        ResealAll(image);
    }
    fs.Put(u"/fuzz/disk.vhd", std::move(image));
    std::unique_ptr<kx::vhd::PositionedFile> file;
    if (fs.Open(u"/fuzz/disk.vhd", true, &file)) return 0;
    std::unique_ptr<VhdDisk> disk;
    if (VhdDisk::Open(std::move(file), u"/fuzz/disk.vhd", true, fs, &disk)) return 0;

    const uint64_t sectors = disk->SectorCount();
    volatile uint64_t sink = disk->Size() + disk->Geometry().cylinders + disk->BlockSize() +
                             static_cast<uint32_t>(disk->Type());
    (void)sink;

    uint8_t bits[96];
    uint64_t aligned = 0, valid = 0;
    const uint32_t spb = disk->Type() == kx::vhd::DiskType::kFixed ? 8 : disk->BlockSize() / kx::vhd::kSectorSize;
    for (uint64_t start : {uint64_t{0}, uint64_t{spb} - 3, sectors / 2, sectors - 1, sectors + 9})
        disk->GetBitmap(start, sizeof bits, &aligned, &valid, bits);

    std::vector<uint8_t> buf(32 * kx::vhd::kSectorSize);
    for (uint64_t start : {uint64_t{0}, uint64_t{spb} - 5, sectors / 3, sectors - 1}) {
        if (start >= sectors) continue;
        const uint32_t n = static_cast<uint32_t>(std::min<uint64_t>(32, sectors - start));
        disk->Read(start, n, buf.data());
    }
    uint32_t signature;
    disk->Signature(&signature);

    if (disk->Type() != kx::vhd::DiskType::kFixed && disk->BlockSize() <= (1u << 20)) {
        std::fill(buf.begin(), buf.end(), 0xA5);
        if (disk->Write(sectors / 2, 1, buf.data()) == 0) disk->Read(sectors / 2, 1, buf.data());
    }
    return 0;
}
