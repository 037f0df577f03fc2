// Compile-time checking of the debug log's format strings against the
// arguments of each call.
//
// The log formats with the Windows runtime's wide conventions: %s and %ls
// take a wide string, %S and %hs a narrow one, %d/%i/%u/%x/%X/%o/%c an
// integer of at most 32 bits (long is 32 bits on Windows), %lld/%llu/%llx,
// %I64d/%I64u/%I64x, %zd/%zu/%Id/%Iu a 64-bit one, %p any pointer, %f/%e/%g a
// double. A call whose arguments do not fit its format is a compile error
// (the compiler names kx::log::fmt::LogFormatMismatch), so that a wrong %s or
// a size_t passed to %d never reaches a production log as garbage or a crash.
#pragma once

#include <cstddef>
#include <type_traits>

namespace kx::log::fmt {

enum class Arg { Int32, Int64, WideString, NarrowString, Pointer, Double, Other };

template <class T>
consteval Arg Classify() {
    using U = std::remove_cv_t<T>;
    if constexpr (std::is_same_v<U, const wchar_t*> || std::is_same_v<U, wchar_t*>)
        return Arg::WideString;
    else if constexpr (std::is_same_v<U, const char*> || std::is_same_v<U, char*>)
        return Arg::NarrowString;
    else if constexpr (std::is_pointer_v<U> || std::is_null_pointer_v<U>)
        return Arg::Pointer;
    else if constexpr (std::is_integral_v<U> || std::is_enum_v<U>)
        return sizeof(U) <= 4 ? Arg::Int32 : Arg::Int64;
    else if constexpr (std::is_floating_point_v<U>)
        return Arg::Double;
    else
        return Arg::Other;
}

// Not constexpr on purpose: reaching it in a constant evaluation is the
// compile error that reports a format that does not fit its arguments.
inline void LogFormatMismatch() {}

// The conversions of `f` in order; -1 when the format itself is malformed.
// `out` receives at most `cap` entries.
consteval int Conversions(const wchar_t* f, Arg* out, int cap) {
    int n = 0;
    auto push = [&](Arg a) {
        if (n < cap) out[n] = a;
        ++n;
    };
    for (const wchar_t* p = f; *p; ++p) {
        if (*p != L'%') continue;
        ++p;
        if (*p == L'%') continue;
        while (*p == L'-' || *p == L'+' || *p == L' ' || *p == L'#' || *p == L'0') ++p;
        if (*p == L'*') {
            push(Arg::Int32);
            ++p;
        }
        while (*p >= L'0' && *p <= L'9') ++p;
        if (*p == L'.') {
            ++p;
            if (*p == L'*') {
                push(Arg::Int32);
                ++p;
            }
            while (*p >= L'0' && *p <= L'9') ++p;
        }
        enum { None, Short, Long, LongLong, Size, Wide } len = None;
        if (p[0] == L'h') {
            len = Short;
            ++p;
            if (*p == L'h') ++p;
        } else if (p[0] == L'l' && p[1] == L'l') {
            len = LongLong;
            p += 2;
        } else if (p[0] == L'l' || p[0] == L'w') {
            len = Wide;  // %ls, %lc: wide; %ld: a 32-bit long
            ++p;
        } else if (p[0] == L'I' && p[1] == L'6' && p[2] == L'4') {
            len = LongLong;
            p += 3;
        } else if (p[0] == L'I' && p[1] == L'3' && p[2] == L'2') {
            p += 3;
        } else if (p[0] == L'I' || p[0] == L'z' || p[0] == L't' || p[0] == L'j') {
            len = Size;  // 64 bits in this 64-bit library
            ++p;
        }
        switch (*p) {
        case L'd': case L'i': case L'u': case L'x': case L'X': case L'o':
            push((len == LongLong || len == Size) ? Arg::Int64 : Arg::Int32);
            break;
        case L'c': case L'C':
            push(Arg::Int32);
            break;
        case L's':
            push(len == Short ? Arg::NarrowString : Arg::WideString);
            break;
        case L'S':
            push(len == Wide ? Arg::WideString : Arg::NarrowString);
            break;
        case L'p':
            push(Arg::Pointer);
            break;
        case L'f': case L'e': case L'E': case L'g': case L'G': case L'a': case L'A':
            push(Arg::Double);
            break;
        default:
            return -1;  // %n, a dangling '%', or an unknown conversion
        }
    }
    return n;
}

consteval bool Fits(const wchar_t* f, const Arg* args, int count) {
    Arg want[32] = {};
    const int n = Conversions(f, want, 32);
    if (n != count || n > 32) return false;
    for (int i = 0; i < n; ++i) {
        const Arg a = args[i];
        if (a == Arg::Other) return false;
        // A null literal may stand for a string or a pointer.
        if (want[i] == a) continue;
        return false;
    }
    return true;
}

template <class... A>
consteval bool FitsArgs(const wchar_t* f) {
    constexpr int count = static_cast<int>(sizeof...(A));
    const Arg args[count + 1] = {Classify<A>()..., Arg::Other};
    return Fits(f, args, count);
}

// A format string checked against the types of the arguments that follow
// it. Made implicitly from a string literal at the call site.
template <class... A>
class Checked {
public:
    template <std::size_t N>
    consteval Checked(const wchar_t (&f)[N]) : f_(f) {
        if (!FitsArgs<A...>(f)) LogFormatMismatch();
    }
    // A format already checked elsewhere (a static_assert on a table row).
    static constexpr Checked Unchecked(const wchar_t* f) noexcept {
        Checked c;
        c.f_ = f;
        return c;
    }
    const wchar_t* get() const noexcept { return f_; }

private:
    constexpr Checked() = default;
    const wchar_t* f_ = nullptr;
};

template <class... A>
using Format = Checked<std::type_identity_t<std::decay_t<A>>...>;

}  // namespace kx::log::fmt
