// Sequential read of a VHDX disk through the library, 1 MiB at a time, next
// to qemu-img converting the same file to raw into its null device (nothing
// written anywhere) timed in the same run; three alternating rounds, as the machine's load varies.
// Prints figures only.
//   vhdx_read_bench <file.vhdx>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/vhdx/vhdx_disk.h"
#include "posix_file_system.h"

namespace {

double Seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

// MB/s of one pass through the library; 0 on failure.
double LibraryPass(const std::string& path, uint64_t* checksum) {
    kxnative::PosixFileSystem fs;
    std::unique_ptr<kx::vhd::PositionedFile> file;
    const std::u16string wide = kxnative::FromUtf8(path);
    std::unique_ptr<kx::vhdx::VhdxDisk> disk;
    if (kxnative::OpenPosixFile(wide, false, &file) || kx::vhdx::VhdxDisk::Open(std::move(file), wide, false, fs, &disk))
        return 0;
    std::vector<uint8_t> buf(1 << 20);
    const auto start = std::chrono::steady_clock::now();
    uint64_t sum = 0;
    for (uint64_t at = 0; at < disk->Size(); at += buf.size()) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(buf.size(), disk->Size() - at));
        if (disk->Read(at, n, buf.data())) return 0;
        sum += buf[n / 2];  // keeps the reads from being optimised away
    }
    *checksum = sum;
    return disk->Size() / 1e6 / Seconds(start);
}

double QemuPass(const std::string& path, uint64_t size) {
    const auto start = std::chrono::steady_clock::now();
    // /dev/null cannot take a raw image of a size; qemu's null device can.
    const std::string cmd = "qemu-img convert -n -f vhdx --target-image-opts '" + path + "' driver=null-co,size=" +
                            std::to_string(size);
    if (std::system(cmd.c_str()) != 0) return 0;
    return size / 1e6 / Seconds(start);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: vhdx_read_bench <file.vhdx>\n");
        return 2;
    }
    const std::string path = argv[1];
    uint64_t size = 0;
    {
        kxnative::PosixFileSystem fs;
        std::unique_ptr<kx::vhd::PositionedFile> file;
        std::unique_ptr<kx::vhdx::VhdxDisk> disk;
        const std::u16string wide = kxnative::FromUtf8(path);
        if (kxnative::OpenPosixFile(wide, false, &file) ||
            kx::vhdx::VhdxDisk::Open(std::move(file), wide, false, fs, &disk)) {
            std::fprintf(stderr, "cannot open %s\n", path.c_str());
            return 1;
        }
        size = disk->Size();
        std::printf("disk: %.2f GiB, %u MiB blocks, %u-byte sectors\n", size / 1073741824.0, disk->BlockSize() >> 20,
                    disk->LogicalSectorSize());
    }
    uint64_t checksum = 0;
    LibraryPass(path, &checksum);  // warms the page cache for both readers
    for (int round = 1; round <= 3; ++round) {
        const double lib = LibraryPass(path, &checksum);
        const double qemu = QemuPass(path, size);
        std::printf("round %d: library %.0f MB/s, qemu-img convert %.0f MB/s (ratio %.2f)\n", round, lib, qemu,
                    qemu > 0 ? lib / qemu : 0.0);
    }
    return 0;
}
