// The native floor of the bitmap-file benchmark: the same reads as its floor
// (the BAT, then every allocated block's sector bitmap in file order), done
// on Linux with pread, to set the Wine figures against the host's own cost.
// Built with the host compiler by scripts/bench.sh.
//
//   pread_floor IMAGE.zek [passes]
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "platform/vhd/vhd_format.h"

namespace {

namespace v = kx::vhd;

bool ReadAt(int fd, uint64_t offset, void* data, size_t size) {
    auto* p = static_cast<uint8_t*>(data);
    while (size) {
        const ssize_t n = pread(fd, p, size, static_cast<off_t>(offset));
        if (n <= 0) return false;
        p += n, offset += static_cast<uint64_t>(n), size -= static_cast<size_t>(n);
    }
    return true;
}

// One pass; the number of bitmaps read, or -1.
long Pass(int fd, uint64_t fileSize) {
    v::RawFooter footer;
    v::RawDynamicHeader header;
    if (!ReadAt(fd, fileSize - sizeof footer, &footer, sizeof footer) ||
        !ReadAt(fd, footer.dataOffset.get(), &header, sizeof header))
        return -1;
    std::vector<v::Be32> bat(header.maxTableEntries.get());
    if (!ReadAt(fd, header.tableOffset.get(), bat.data(), bat.size() * sizeof bat[0])) return -1;
    std::vector<uint32_t> offsets;
    for (const v::Be32& e : bat)
        if (e.get() != v::kUnallocated) offsets.push_back(e.get());
    std::sort(offsets.begin(), offsets.end());
    const size_t bitmapBytes = (header.blockSize.get() / v::kSectorSize / 8 + v::kSectorSize - 1) /
                               v::kSectorSize * v::kSectorSize;
    std::vector<uint8_t> bitmap(bitmapBytes);
    for (uint32_t sector : offsets)
        if (!ReadAt(fd, uint64_t{sector} * v::kSectorSize, bitmap.data(), bitmapBytes)) return -1;
    return static_cast<long>(offsets.size());
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: %s IMAGE [passes]\n", argv[0]);
        return 2;
    }
    const int passes = argc > 2 ? std::atoi(argv[2]) : 3;
    const int fd = open(argv[1], O_RDONLY);
    struct stat st {};
    if (fd < 0 || fstat(fd, &st) != 0 || st.st_size < static_cast<off_t>(v::kFooterSize)) {
        std::perror(argv[1]);
        return 1;
    }
    Pass(fd, static_cast<uint64_t>(st.st_size));  // warm the page cache
    double best = 1e9;
    long blocks = 0;
    for (int i = 0; i < passes; ++i) {
        const auto t0 = std::chrono::steady_clock::now();
        blocks = Pass(fd, static_cast<uint64_t>(st.st_size));
        best = std::min(best, std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count());
        if (blocks < 0) {
            std::fprintf(stderr, "%s: read failed\n", argv[1]);
            return 1;
        }
    }
    close(fd);
    std::printf("native floor: pread of the BAT and %ld block bitmaps: %.3f s (best of %d)\n", blocks, best, passes);
    return 0;
}
