// Fuzz target of the VHDX library: the input is a disk file in the compact
// form of sparse_image.h (a VHDX file is mostly zeros), held as its nonzero
// pages. It is opened read-only and read, then opened for writing, written
// a little and read again; nothing may crash, leak or read out of bounds.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/vhdx/vhdx_disk.h"
#include "sparse_image.h"

namespace {

// Parents are never found: the input is one file.
class NoParents : public kx::vhd::FileSystem {
public:
    kx::vhd::Status OpenParent(const std::u16string&, std::unique_ptr<kx::vhd::PositionedFile>*) override {
        return kx::vhd::kFileNotFound;
    }
    kx::vhd::Status CreateNew(const std::u16string&, std::unique_ptr<kx::vhd::PositionedFile>*) override {
        return kx::vhd::kAccessDenied;
    }
    kx::vhd::Status Remove(const std::u16string&) override { return kx::vhd::kFileNotFound; }
    std::u16string Absolute(const std::u16string& path) override { return path; }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    NoParents fs;
    for (bool writable : {false, true}) {
        std::unique_ptr<kx::vhdx::VhdxDisk> disk;
        auto file = std::make_unique<vhdxtest::SparseFile>(data, size, uint64_t{64} << 20);
        if (kx::vhdx::VhdxDisk::Open(std::move(file), u"/d/disk.vhdx", writable, fs, &disk)) continue;
        const uint64_t total = disk->Size();
        std::vector<uint8_t> buf(65536 + 512);
        // Reads spread over the disk, each up to one odd-sized buffer.
        for (uint64_t at = 0, step = total / 7 + 1; at < total; at += step)
            disk->Read(at, static_cast<size_t>(std::min<uint64_t>(buf.size() - 1, total - at)), buf.data());
        uint32_t signature;
        disk->Signature(&signature);
        if (writable) {
            for (size_t i = 0; i < 4096; ++i) buf[i] = static_cast<uint8_t>(i * 7);
            disk->Write(total / 3 / 512 * 512 + 100, static_cast<size_t>(std::min<uint64_t>(1000, total)), buf.data());
            disk->Write(0, static_cast<size_t>(std::min<uint64_t>(4096, total)), buf.data());
            disk->Read(0, static_cast<size_t>(std::min<uint64_t>(total, buf.size())), buf.data());
            disk->Flush();
        }
    }
    return 0;
}
