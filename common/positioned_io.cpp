#include "common/positioned_io.h"

#include <winternl.h>

#include <atomic>

extern "C" {
NTSYSAPI NTSTATUS NTAPI NtReadFile(HANDLE file, HANDLE event, PIO_APC_ROUTINE apc, PVOID apcContext,
                                   PIO_STATUS_BLOCK status, PVOID buffer, ULONG length, PLARGE_INTEGER offset,
                                   PULONG key);
NTSYSAPI NTSTATUS NTAPI NtWriteFile(HANDLE file, HANDLE event, PIO_APC_ROUTINE apc, PVOID apcContext,
                                    PIO_STATUS_BLOCK status, PVOID buffer, ULONG length, PLARGE_INTEGER offset,
                                    PULONG key);
}

namespace kx::io {
namespace {

constexpr NTSTATUS kStatusPending = 0x00000103;

std::atomic<bool> g_overlapped{false};

DWORD Fail(DWORD rc) noexcept {
    ::SetLastError(rc);
    return rc;
}

// The old way, kept for the benchmarks' comparison.
DWORD OverlappedAt(bool write, HANDLE file, uint64_t offset, void* data, DWORD size, DWORD* done) noexcept {
    OVERLAPPED o{};
    o.Offset = static_cast<DWORD>(offset);
    o.OffsetHigh = static_cast<DWORD>(offset >> 32);
    const BOOL ok = write ? ::WriteFile(file, data, size, done, &o) : ::ReadFile(file, data, size, done, &o);
    return ok ? 0 : ::GetLastError();
}

template <auto Call>
DWORD NativeAt(HANDLE file, uint64_t offset, void* data, DWORD size, DWORD* done) noexcept {
    IO_STATUS_BLOCK io{};
    LARGE_INTEGER at;
    at.QuadPart = static_cast<LONGLONG>(offset);
    NTSTATUS status = Call(file, nullptr, nullptr, nullptr, &io, data, size, &at, nullptr);
    if (status == kStatusPending) {
        // Only a handle opened for overlapped I/O gets here: wait as the
        // Win32 calls do, on the handle itself.
        ::WaitForSingleObject(file, INFINITE);
        status = io.Status;
    }
    if (!NT_SUCCESS(status)) return Fail(::RtlNtStatusToDosError(status));
    *done = static_cast<DWORD>(io.Information);
    return 0;
}

}  // namespace

DWORD ReadAt(HANDLE file, uint64_t offset, void* data, DWORD size, DWORD* done) noexcept {
    *done = 0;
    if (g_overlapped.load(std::memory_order_relaxed)) return OverlappedAt(false, file, offset, data, size, done);
    return NativeAt<NtReadFile>(file, offset, data, size, done);
}

DWORD WriteAt(HANDLE file, uint64_t offset, const void* data, DWORD size, DWORD* done) noexcept {
    *done = 0;
    void* bytes = const_cast<void*>(data);  // the native call does not write to it
    if (g_overlapped.load(std::memory_order_relaxed)) return OverlappedAt(true, file, offset, bytes, size, done);
    return NativeAt<NtWriteFile>(file, offset, bytes, size, done);
}

namespace testing {
void UseOverlappedOffsets(bool on) noexcept { g_overlapped.store(on, std::memory_order_relaxed); }
}  // namespace testing

}  // namespace kx::io
