// The machine type of a PE image (an .exe, .dll or .sys file), read from
// the file's own headers. Portable: no Windows headers, built natively under
// the sanitizers and fuzzed, since the files it reads come from a guest's
// disk and may be anything.
//
// The layout read: the DOS header ("MZ" at 0, the 32-bit little-endian
// offset of the NT headers, e_lfanew, at 0x3C), then at e_lfanew the
// signature "PE\0\0" followed by the file header, whose first field is the
// 16-bit machine type. e_lfanew must leave room for the signature and the
// whole 20-byte file header inside the file; anything else is refused
// without reading past the end.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kx::pe {

inline constexpr uint16_t kMachineI386 = 0x014C;
inline constexpr uint16_t kMachineAmd64 = 0x8664;

enum class PeStatus {
    kOk,
    kReadFailed,     // the source could not give the bytes asked for
    kNoDosHeader,    // shorter than a DOS header, or no "MZ"
    kBadNtOffset,    // e_lfanew outside the file, or too close to its end
    kNoPeSignature,  // no "PE\0\0" at e_lfanew
};

// Where the bytes come from: `read` fills `bytes` bytes at `offset` and
// returns false when it cannot (a short read is a failure).
class ByteSource {
public:
    virtual ~ByteSource() = default;
    virtual uint64_t Size() const = 0;
    virtual bool Read(uint64_t offset, void* data, size_t bytes) = 0;
};

// The machine field of the image in `source`; `*machine` is set only with kOk.
PeStatus ReadPeMachine(ByteSource& source, uint16_t* machine);

// The same over bytes in memory.
PeStatus ReadPeMachine(const uint8_t* data, size_t size, uint16_t* machine);

const char* PeStatusText(PeStatus status);

}  // namespace kx::pe
