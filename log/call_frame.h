// The frame of every exported function. An export is one transaction: its
// start line, its argument checks, its work, its end line with the result on
// every path out. The frame owns that protocol: the lines each export writes
// about itself stand in one table (log/export_lines.h), the frame writes
// them, turns a stray exception into a logged failure code, and hands the
// body only the work. No exception leaves a frame.
//
//   DWORD DeleteSessionBitmap(const wchar_t* path, const wchar_t* session) {
//       return RunExport<kDeleteSessionBitmap>([&](auto& frame) -> DWORD {
//           if (!path) return frame.InvalidParameter();
//           ... the work ...
//       }, OrNull(path), OrNull(session));
//   }
//
// The start arguments follow the row's start format; the export's name is
// put in front of them when the format has one conversion more than there
// are arguments (the usual "%s(%s) starts..."), and left out otherwise.
// Every format is checked against its arguments at compile time.
#pragma once

#include <windows.h>

#include <new>
#include <utility>

#include "common/result_codes.h"
#include "log/debug_log.h"
#include "log/export_lines.h"

namespace kx {

template <const ExportLines& Row>
class ExportFrame {
public:
    // The row's line for rejected arguments (formatted with the name and
    // `args`), and its code.
    template <class... A>
    [[nodiscard]] DWORD InvalidParameter(A... args) noexcept {
        if constexpr (Row.invalid != nullptr) {
            static_assert(log::fmt::FitsArgs<const wchar_t*, A...>(Row.invalid), "arguments do not fit the row's line");
            Log(0, log::fmt::Checked<const wchar_t*, A...>::Unchecked(Row.invalid), Row.name, args...);
        }
        return Row.invalidCode;
    }

    // Ends with the row's end line formatted with the export's name and
    // `values` (an end line that reports more than the result: counts,
    // flags). Returns `rc`.
    template <class... A>
    [[nodiscard]] DWORD End(DWORD rc, A... values) noexcept {
        static_assert(Row.endKind == EndKind::Values, "End(rc, values...) is for rows whose end line carries values");
        static_assert(log::fmt::FitsArgs<const wchar_t*, A...>(Row.end), "end values do not fit the row's end format");
        Log(Row.endLevel, log::fmt::Checked<const wchar_t*, A...>::Unchecked(Row.end), Row.name, values...);
        ended_ = true;
        return rc;
    }

    // This path out writes no end line (an early answer that the export's
    // contract leaves without one).
    [[nodiscard]] DWORD WithoutEndLine(DWORD rc) noexcept {
        ended_ = true;
        return rc;
    }

    bool ended() const noexcept { return ended_; }

private:
    bool ended_ = false;
};

namespace detail {

template <const ExportLines& Row, class... A>
void StartLine(A... args) noexcept {
    if constexpr (Row.start != nullptr) {
        constexpr bool withName = log::fmt::FitsArgs<const wchar_t*, std::decay_t<A>...>(Row.start);
        static_assert(withName || log::fmt::FitsArgs<std::decay_t<A>...>(Row.start),
                      "start arguments do not fit the row's start format");
        if constexpr (withName)
            Log(Row.startLevel, log::fmt::Checked<const wchar_t*, std::decay_t<A>...>::Unchecked(Row.start), Row.name,
                args...);
        else
            Log(Row.startLevel, log::fmt::Checked<std::decay_t<A>...>::Unchecked(Row.start), args...);
    }
}

template <const ExportLines& Row>
void EndLine(DWORD rc) noexcept {
    if constexpr (Row.endKind == EndKind::Result) {
        // The export's name first when the line has a place for it, as with start lines.
        if constexpr (log::fmt::FitsArgs<const wchar_t*, DWORD>(Row.end)) {
            Log(Row.endLevel, log::fmt::Checked<const wchar_t*, DWORD>::Unchecked(Row.end), Row.name, rc);
        } else {
            static_assert(log::fmt::FitsArgs<DWORD>(Row.end), "a result end line takes the rc, or the name and rc");
            Log(Row.endLevel, log::fmt::Checked<DWORD>::Unchecked(Row.end), rc);
        }
    } else if constexpr (Row.endKind == EndKind::Values) {
        // A path out that reported no values: the plain end line.
        Log(Row.endLevel, L"%s() finished, rc = [%d]", Row.name, rc);
    } else if constexpr (Row.endKind == EndKind::Plain) {
        static_assert(log::fmt::FitsArgs<>(Row.end), "a plain end line has no conversions");
        Log(Row.endLevel, log::fmt::Checked<>::Unchecked(Row.end));
    }
}

template <const ExportLines& Row>
DWORD Failed(DWORD rc, const wchar_t* why) noexcept {
    Log(0, L"%s() failed: %s", Row.name, why);
    if constexpr (Row.endKind != EndKind::None) Log(1, L"%s() finished, rc = [%d]", Row.name, rc);
    return rc;
}

}  // namespace detail

// Runs `body(frame)` (returning a DWORD) as the export `Row`.
template <const ExportLines& Row, class Body, class... A>
DWORD RunExport(Body&& body, A... startArgs) noexcept {
    try {
        detail::StartLine<Row>(startArgs...);
        ExportFrame<Row> frame;
        const DWORD rc = std::forward<Body>(body)(frame);
        if (!frame.ended()) detail::EndLine<Row>(rc);
        return rc;
    } catch (const std::bad_alloc&) {
        return detail::Failed<Row>(Row.exceptionCode ? Row.exceptionCode : ERROR_OUTOFMEMORY, L"out of memory");
    } catch (...) {
        return detail::Failed<Row>(Row.exceptionCode ? Row.exceptionCode : kFailNoCode, L"unexpected exception");
    }
}

// The same for exports without a result.
template <const ExportLines& Row, class Body, class... A>
void RunExportVoid(Body&& body, A... startArgs) noexcept {
    try {
        detail::StartLine<Row>(startArgs...);
        std::forward<Body>(body)();
    } catch (...) {
        Log(0, L"%s() failed: unexpected exception", Row.name);
    }
}

// The text printed for a string argument in start lines.
inline const wchar_t* OrNull(const wchar_t* s) noexcept { return s ? s : L"NULL"; }

inline bool IsNullOrEmpty(const wchar_t* s) noexcept { return !s || !*s; }

}  // namespace kx
