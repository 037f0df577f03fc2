// Typed lookup of a function exported by a loaded module.
#pragma once

#include <windows.h>

namespace kx {

// The export `name` (or an ordinal through MAKEINTRESOURCEA) of `module` as a
// pointer of type Fn, or nullptr when the module is null or lacks it
// (GetLastError says why). The detour through void (*)() keeps the compiler
// from warning about the cast from FARPROC's generic signature.
template <typename Fn>
Fn ProcAddress(HMODULE module, const char* name) noexcept {
    if (!module) return nullptr;
    return reinterpret_cast<Fn>(reinterpret_cast<void (*)()>(::GetProcAddress(module, name)));
}

}  // namespace kx
