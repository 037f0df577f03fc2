#include "platform/pe/pe_machine.h"

#include <cstring>

namespace kx::pe {

namespace {

constexpr uint64_t kDosHeaderBytes = 0x40;
constexpr uint64_t kNtOffsetField = 0x3C;
constexpr uint64_t kSignatureBytes = 4;
constexpr uint64_t kFileHeaderBytes = 20;

uint32_t Le32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

class MemorySource final : public ByteSource {
public:
    MemorySource(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    uint64_t Size() const override { return size_; }
    bool Read(uint64_t offset, void* out, size_t bytes) override {
        if (offset > size_ || bytes > size_ - offset) return false;
        if (bytes) std::memcpy(out, data_ + offset, bytes);
        return true;
    }

private:
    const uint8_t* data_;
    size_t size_;
};

}  // namespace

PeStatus ReadPeMachine(ByteSource& source, uint16_t* machine) {
    const uint64_t size = source.Size();
    if (size < kDosHeaderBytes) return PeStatus::kNoDosHeader;
    uint8_t dos[kDosHeaderBytes];
    if (!source.Read(0, dos, sizeof dos)) return PeStatus::kReadFailed;
    if (dos[0] != 'M' || dos[1] != 'Z') return PeStatus::kNoDosHeader;
    // e_lfanew is a signed field: a "negative" offset is out of the file too.
    const uint64_t nt = Le32(dos + kNtOffsetField);
    if (nt > size || size - nt < kSignatureBytes + kFileHeaderBytes) return PeStatus::kBadNtOffset;
    uint8_t head[kSignatureBytes + 2];
    if (!source.Read(nt, head, sizeof head)) return PeStatus::kReadFailed;
    if (std::memcmp(head, "PE\0\0", kSignatureBytes) != 0) return PeStatus::kNoPeSignature;
    *machine = static_cast<uint16_t>(head[4] | head[5] << 8);
    return PeStatus::kOk;
}

PeStatus ReadPeMachine(const uint8_t* data, size_t size, uint16_t* machine) {
    MemorySource source(data, size);
    return ReadPeMachine(source, machine);
}

const char* PeStatusText(PeStatus status) {
    switch (status) {
        case PeStatus::kOk: return "ok";
        case PeStatus::kReadFailed: return "read failed";
        case PeStatus::kNoDosHeader: return "no DOS header";
        case PeStatus::kBadNtOffset: return "NT header offset outside the file";
        case PeStatus::kNoPeSignature: return "no PE signature";
    }
    return "unknown";
}

}  // namespace kx::pe
