// Writes the seed images of the VHD fuzz target into a folder: a fixed
// disk, a dynamic one with a few blocks, and a differencing child of it.
// usage: vhd_seed_gen OUTPUT_DIR
#include <cstdio>
#include <string>

#include "memory_file_system.h"
#include "platform/vhd/vhd_disk.h"

namespace v = kx::vhd;

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s OUTPUT_DIR\n", argv[0]);
        return 2;
    }
    kxnative::MemoryFileSystem fs;
    std::unique_ptr<v::VhdDisk> disk;
    uint8_t sector[v::kSectorSize];
    auto write = [&](uint64_t first, uint32_t count, uint8_t fill) {
        for (uint32_t i = 0; i < count; ++i) {
            std::fill(sector, sector + sizeof sector, static_cast<uint8_t>(fill + i));
            if (disk->Write(first + i, 1, sector)) std::exit(1);
        }
    };
    v::CreateParams p;
    p.blockSize = 4096;
    p.type = v::DiskType::kFixed;
    p.size = 8 * 1024;
    if (v::VhdDisk::Create(fs, u"/seed/fixed.vhd", p, &disk)) return 1;
    write(0, 2, 0x10);
    write(15, 1, 0x20);

    p.type = v::DiskType::kDynamic;
    p.size = 64 * 1024 + 3 * 512;  // a partial last block
    if (v::VhdDisk::Create(fs, u"/seed/dynamic.vhd", p, &disk)) return 1;
    write(0, 3, 0x30);
    write(7, 2, 0x40);
    write(40, 8, 0x50);
    write(130, 1, 0x60);

    p.type = v::DiskType::kDifferencing;
    p.parentPath = u"/seed/dynamic.vhd";
    if (v::VhdDisk::Create(fs, u"/seed/differencing.vhd", p, &disk)) return 1;
    write(1, 1, 0x70);
    write(64, 4, 0x80);
    disk.reset();

    for (const char* name : {"fixed", "dynamic", "differencing"}) {
        const std::string base = name;
        const kxnative::Bytes bytes = fs.Get(u"/seed/" + std::u16string(base.begin(), base.end()) + u".vhd");
        const std::string out = std::string(argv[1]) + "/" + base + ".vhd";
        FILE* f = std::fopen(out.c_str(), "wb");
        if (!f || std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size() || std::fclose(f)) return 1;
    }
    return 0;
}
