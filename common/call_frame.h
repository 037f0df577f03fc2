// The frame of every exported function: no exception leaves the library.
// A stray exception becomes a logged failure and a result code.
#pragma once

#include <windows.h>

#include <new>
#include <utility>

#include "common/result_codes.h"
#include "log/debug_log.h"

namespace kx {

// Runs `body` (returning a DWORD) for the export `name`. std::bad_alloc gives
// ERROR_OUTOFMEMORY, anything else kFailNoCode; both are logged at level 0.
template <class Body>
DWORD RunExport(const wchar_t* name, Body&& body) noexcept {
    try {
        return std::forward<Body>(body)();
    } catch (const std::bad_alloc&) {
        Log(0, L"%s() failed: out of memory", name);
        Log(1, L"%s() finished, rc = [%d]", name, ERROR_OUTOFMEMORY);
        return ERROR_OUTOFMEMORY;
    } catch (...) {
        Log(0, L"%s() failed: unexpected exception", name);
        Log(1, L"%s() finished, rc = [%d]", name, kFailNoCode);
        return kFailNoCode;
    }
}

// The same for exports without a result.
template <class Body>
void RunExportVoid(const wchar_t* name, Body&& body) noexcept {
    try {
        std::forward<Body>(body)();
    } catch (...) {
        Log(0, L"%s() failed: unexpected exception", name);
    }
}

// The text printed for a string argument in start lines.
inline const wchar_t* OrNull(const wchar_t* s) noexcept { return s ? s : L"NULL"; }

inline bool IsNullOrEmpty(const wchar_t* s) noexcept { return !s || !*s; }

}  // namespace kx
