// One way to walk a folder listing: FindFirstFileW / FindNextFileW with the
// find handle owned, "." and ".." passed over, and the two ways a listing
// can fail told apart, so that callers log them as they must.
#pragma once

#include <windows.h>

#include <string>
#include <utility>

#include "common/result_codes.h"
#include "common/unique_resource.h"

namespace kx {

struct ListResult {
    DWORD code = 0;           // 0: the listing ended normally (or the visitor stopped it)
    bool atFirstFind = false; // the first find failed (code is its error, ERROR_FILE_NOT_FOUND: nothing matched)
    explicit operator bool() const noexcept { return code != 0; }
};

inline bool IsDotEntry(const wchar_t* name) noexcept {
    return name[0] == L'.' && (name[1] == 0 || (name[1] == L'.' && name[2] == 0));
}

inline bool IsFolder(const WIN32_FIND_DATAW& fd) noexcept {
    return (fd.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0;
}

// Calls `visit(const WIN32_FIND_DATAW&)` for each entry matching `pattern`
// other than "." and "..". A visitor returning bool stops the walk with
// false; one returning void sees every entry.
template <class Visit>
ListResult ListDirectory(const std::wstring& pattern, Visit&& visit) {
    WIN32_FIND_DATAW fd;
    unique_hfind find(::FindFirstFileW(pattern.c_str(), &fd));
    if (!find) return {LastErrorOr(), true};
    do {
        if (IsDotEntry(fd.cFileName)) continue;
        if constexpr (std::is_same_v<decltype(visit(std::as_const(fd))), bool>) {
            if (!visit(std::as_const(fd))) return {};
        } else {
            visit(std::as_const(fd));
        }
    } while (::FindNextFileW(find.get(), &fd));
    const DWORD e = ::GetLastError();
    return {e == ERROR_NO_MORE_FILES ? 0 : LastErrorOr(), false};
}

}  // namespace kx
