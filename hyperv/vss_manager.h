// The shadow-copy snapshot manager behind MVCM_CreateVssMgr. The design is
// written out in the public header (include/KestrixHA/vss.h); the pieces
// here are shared with the tests: the wait on an asynchronous step, the
// names of the common shadow-copy results, and the limits.
#pragma once

#include <windows.h>
#include <vss.h>

#include "KestrixHA/vss.h"

namespace kx::hyperv {

// An asynchronous step is asked for its state every kVssPollMs and given
// up (cancelled) after kVssStepLimitMs of pauses.
inline constexpr DWORD kVssPollMs = 100;
inline constexpr DWORD kVssStepLimitMs = 10 * 60 * 1000;
// The context of every set: persistent, writers taking part.
inline constexpr LONG kVssContext = VSS_CTX_APP_ROLLBACK;
// HRESULT_FROM_WIN32(ERROR_TIMEOUT) and HRESULT_FROM_WIN32(ERROR_CANCELLED).
inline constexpr HRESULT kVssStepTimedOut = static_cast<HRESULT>(0x800705B4);
inline constexpr HRESULT kVssStepCancelled = static_cast<HRESULT>(0x800704C7);

// The name of a shadow-copy result (VSS_E_..., VSS_S_...) or of a common
// COM result; null for any other code.
const wchar_t* VssResultName(HRESULT hr) noexcept;

// Polls `async` (not owned) until it finishes: S_OK, the step's failure,
// kVssStepCancelled, kVssStepTimedOut (after cancelling it), or the
// failure of QueryStatus. Each failure is logged with `step`.
HRESULT WaitForVssAsync(IVssAsync* async, const wchar_t* step) noexcept;

// MVCM_CreateVssMgr.
DWORD CreateVssManager(IVssMgr** mgr);

}  // namespace kx::hyperv
