// Fuzz target of the VHDX library: the input is a disk file in memory. It
// is opened read-only and read whole, then opened for writing and written
// a little; nothing may crash, leak or read out of bounds.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "memory_file_system.h"
#include "platform/vhdx/vhdx_disk.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kxnative::MemoryFileSystem fs;
    fs.maxFileBytes = 64u << 20;
    const std::u16string path = u"/d/disk.vhdx";
    fs.Put(path, kxnative::Bytes(data, data + size));
    for (bool writable : {false, true}) {
        std::unique_ptr<kx::vhd::PositionedFile> file;
        if (fs.Open(path, writable, &file)) return 0;
        std::unique_ptr<kx::vhdx::VhdxDisk> disk;
        if (kx::vhdx::VhdxDisk::Open(std::move(file), path, writable, fs, &disk)) continue;
        const uint64_t total = disk->Size();
        std::vector<uint8_t> buf(1 << 20);
        // Reads spread over the disk, at most a few MiB in all.
        for (uint64_t at = 0, step = total / 7 + 1; at < total; at += step) {
            const size_t n = static_cast<size_t>(std::min<uint64_t>(buf.size(), total - at));
            disk->Read(at, std::min<size_t>(n, 65536 + 511), buf.data());
        }
        uint32_t signature;
        disk->Signature(&signature);
        if (writable) {
            for (size_t i = 0; i < 4096; ++i) buf[i] = static_cast<uint8_t>(i * 7);
            disk->Write(total / 3 / 512 * 512 + 100, 1000, buf.data());
            disk->Write(0, 4096 <= total ? 4096 : static_cast<size_t>(total), buf.data());
            disk->Read(0, std::min<uint64_t>(total, buf.size()), buf.data());
            disk->Flush();
        }
    }
    return 0;
}
