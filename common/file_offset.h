// Positioned file I/O: the OVERLAPPED record that carries a file offset to
// ReadFile, WriteFile or LockFileEx on a handle opened without
// FILE_FLAG_OVERLAPPED (the call stays synchronous; the file pointer plays
// no part).
#pragma once

#include <windows.h>

#include <cstdint>

namespace kx {

inline OVERLAPPED AtOffset(uint64_t offset) noexcept {
    OVERLAPPED o{};
    o.Offset = static_cast<DWORD>(offset);
    o.OffsetHigh = static_cast<DWORD>(offset >> 32);
    return o;
}

}  // namespace kx
