// Big-endian integers as the VHD file stores them, and whole raw structures
// copied in and out of byte buffers.
//
// BigEndian<T> is a byte array with alignment 1 read and written through
// get()/set(), so a struct built from them and from byte arrays has exactly
// the file's layout, with no padding, at any address. Portable: no platform
// headers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <type_traits>

namespace kx::vhd {

template <class T>
constexpr T LoadBe(const uint8_t* p) noexcept {
    static_assert(std::is_unsigned_v<T>);
    T v = 0;
    for (size_t i = 0; i < sizeof(T); ++i) v = static_cast<T>((v << 8) | p[i]);
    return v;
}

template <class T>
constexpr void StoreBe(uint8_t* p, T v) noexcept {
    static_assert(std::is_unsigned_v<T>);
    for (size_t i = sizeof(T); i-- > 0; v = static_cast<T>(v >> 8)) p[i] = static_cast<uint8_t>(v);
}

template <class T>
struct BigEndian {
    uint8_t bytes[sizeof(T)];

    constexpr T get() const noexcept { return LoadBe<T>(bytes); }
    constexpr void set(T v) noexcept { StoreBe<T>(bytes, v); }
};

using Be16 = BigEndian<uint16_t>;
using Be32 = BigEndian<uint32_t>;
using Be64 = BigEndian<uint64_t>;
static_assert(sizeof(Be64) == 8 && alignof(Be64) == 1 && std::is_trivially_copyable_v<Be64>);

// A raw structure copied out of `p` (which needs no alignment), and back.
template <class Raw>
Raw LoadRaw(const uint8_t* p) noexcept {
    static_assert(std::is_trivially_copyable_v<Raw> && alignof(Raw) == 1);
    Raw r;
    std::memcpy(&r, p, sizeof r);
    return r;
}

template <class Raw>
void StoreRaw(uint8_t* p, const Raw& r) noexcept {
    static_assert(std::is_trivially_copyable_v<Raw> && alignof(Raw) == 1);
    std::memcpy(p, &r, sizeof r);
}

}  // namespace kx::vhd
