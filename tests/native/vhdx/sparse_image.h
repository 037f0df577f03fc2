// A compact form of a mostly-empty disk file, for fuzz inputs: a VHDX file
// is at least a few MiB, nearly all zeros. The form: the file size (32-bit
// little-endian, in bytes), then runs of (32-bit offset, 16-bit length,
// bytes) laid over zeros; runs past the size are cut off. SparseFile serves
// it to the library.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <vector>

#include "platform/vhd/positioned_io.h"

namespace vhdxtest {

// A file held as its nonzero 4 KiB pages: a fuzz input of a few KiB stands
// for a file of MiBs without the MiBs ever being allocated. Files past
// `maxBytes` cannot grow.
class SparseFile : public kx::vhd::PositionedFile {
public:
    static constexpr uint64_t kPage = 4096;
    static constexpr kx::vhd::Status kDiskFull = 112;

    SparseFile(const uint8_t* in, size_t n, uint64_t maxBytes) : maxBytes_(maxBytes) {
        auto le = [&](size_t at, size_t bytes) {
            uint32_t v = 0;
            for (size_t i = bytes; i-- > 0;) v = v << 8 | in[at + i];
            return v;
        };
        if (n < 4) return;
        size_ = std::min<uint64_t>(le(0, 4), maxBytes);
        for (size_t at = 4; at + 6 <= n;) {
            const uint32_t offset = le(at, 4);
            const size_t length = std::min<size_t>(le(at + 4, 2), n - at - 6);
            at += 6;
            if (offset < size_) Copy(offset, in + at, static_cast<size_t>(std::min<uint64_t>(length, size_ - offset)));
            at += length;
        }
    }
    kx::vhd::Status ReadAt(uint64_t offset, void* data, size_t bytes) override {
        if (offset > size_ || size_ - offset < bytes) return kx::vhd::kHandleEof;
        auto* out = static_cast<uint8_t*>(data);
        for (size_t done = 0; done < bytes;) {
            const uint64_t at = offset + done, page = at / kPage, in = at % kPage;
            const size_t n = static_cast<size_t>(std::min<uint64_t>(bytes - done, kPage - in));
            const auto it = pages_.find(page);
            if (it == pages_.end()) std::memset(out + done, 0, n);
            else std::memcpy(out + done, it->second.data() + in, n);
            done += n;
        }
        return kx::vhd::kOk;
    }
    kx::vhd::Status WriteAt(uint64_t offset, const void* data, size_t bytes) override {
        if (offset > maxBytes_ || maxBytes_ - offset < bytes) return kDiskFull;
        Copy(offset, static_cast<const uint8_t*>(data), bytes);
        size_ = std::max(size_, offset + bytes);
        return kx::vhd::kOk;
    }
    kx::vhd::Status Size(uint64_t* bytes) override {
        *bytes = size_;
        return kx::vhd::kOk;
    }
    kx::vhd::Status Flush() override { return kx::vhd::kOk; }

private:
    void Copy(uint64_t offset, const uint8_t* in, size_t bytes) {
        for (size_t done = 0; done < bytes;) {
            const uint64_t at = offset + done, page = at / kPage, inPage = at % kPage;
            const size_t n = static_cast<size_t>(std::min<uint64_t>(bytes - done, kPage - inPage));
            auto it = pages_.find(page);
            if (it == pages_.end()) {
                if (std::all_of(in + done, in + done + n, [](uint8_t b) { return b == 0; })) {
                    done += n;
                    continue;
                }
                it = pages_.emplace(page, std::vector<uint8_t>(kPage, 0)).first;
            }
            std::memcpy(it->second.data() + inPage, in + done, n);
            done += n;
        }
    }
    uint64_t size_ = 0, maxBytes_;
    std::map<uint64_t, std::vector<uint8_t>> pages_;
};

}  // namespace vhdxtest
