// Reads and writes at explicit file offsets, each one system call.
//
// The calls go straight to the native read and write with a byte offset and
// no event, APC or completion context: on a handle opened without
// FILE_FLAG_OVERLAPPED the call completes before it returns, and no shared
// file pointer is involved, so threads may use one handle at once. (A
// ReadFile/WriteFile with an OVERLAPPED offset does the same work but hands
// a completion context along, which costs an extra server request under
// Wine.)
#pragma once

#include <windows.h>

#include <cstdint>

namespace kx::io {

// Reads up to `size` bytes at `offset` into `data`; `*done` gets the count.
// 0 on success, a short read at the end of the file included;
// ERROR_HANDLE_EOF when `offset` is at or past the end; otherwise the Win32
// code of the failure. A failure's code is also left in GetLastError().
DWORD ReadAt(HANDLE file, uint64_t offset, void* data, DWORD size, DWORD* done) noexcept;

// Writes `size` bytes at `offset`, extending the file as needed; `*done`
// gets the count. Returns 0 or the Win32 code (also left in GetLastError()).
DWORD WriteAt(HANDLE file, uint64_t offset, const void* data, DWORD size, DWORD* done) noexcept;

namespace testing {
// Benchmarks only: route ReadAt/WriteAt through ReadFile/WriteFile with an
// OVERLAPPED offset, as the library did before, to compare both in one run.
void UseOverlappedOffsets(bool on) noexcept;
}  // namespace testing

}  // namespace kx::io
