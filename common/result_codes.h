// Result codes that the exports return beside plain Win32 codes.
#pragma once

#include <windows.h>

namespace kx {

// A failure that has no system code.
inline constexpr DWORD kFailNoCode = 0xFFFFFFFF;

// HRESULTs returned as DWORDs at interface-style calls.
inline constexpr DWORD kE_INVALIDARG = 0x80070057;
inline constexpr DWORD kE_OUTOFMEMORY = 0x8007000E;
inline constexpr DWORD kE_POINTER = 0x80004003;
inline constexpr DWORD kE_FAIL = 0x80004005;

// The HRESULT made from a Win32 error (0 stays 0).
inline DWORD HresultFromWin32(DWORD code) noexcept { return code == 0 ? 0 : (0x80070000u | (code & 0xFFFF)); }

// GetLastError(), or kFailNoCode when the system left no code.
inline DWORD LastErrorOr(DWORD fallback = kFailNoCode) noexcept {
    DWORD e = ::GetLastError();
    return e ? e : fallback;
}

// GetLastError() as an HRESULT, for COM-style calls; a failure that left no
// code is reported as ERROR_GEN_FAILURE.
inline HRESULT LastErrorHresult() noexcept { return HRESULT_FROM_WIN32(LastErrorOr(ERROR_GEN_FAILURE)); }

}  // namespace kx
