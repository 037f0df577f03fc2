#include "platform/regf/regf_names.h"

namespace kx::regf {

char16_t UpcaseUnit(char16_t c) {
    if (c < 0x80) return (c >= u'a' && c <= u'z') ? char16_t(c - 0x20) : c;
    if (c < 0x100) {
        if (c >= 0xE0 && c <= 0xFE && c != 0xF7) return char16_t(c - 0x20);
        if (c == 0xFF) return 0x178;
        return c;
    }
    if (c < 0x180) {
        // Pairs upper/lower: even/odd in 0100-0137 and 014A-0177, odd/even in
        // 0139-0148 and 0179-017E.
        if ((c <= 0x137 || (c >= 0x14A && c <= 0x177)) && (c & 1)) return char16_t(c - 1);
        if (((c >= 0x139 && c <= 0x148) || (c >= 0x179 && c <= 0x17E)) && !(c & 1)) return char16_t(c - 1);
        return c;
    }
    if (c >= 0x3B1 && c <= 0x3C9 && c != 0x3C2) return char16_t(c - 0x20);
    if (c >= 0x430 && c <= 0x44F) return char16_t(c - 0x20);
    if (c >= 0x450 && c <= 0x45F) return char16_t(c - 0x50);
    return c;
}

int CompareNames(std::u16string_view a, std::u16string_view b) {
    size_t n = a.size() < b.size() ? a.size() : b.size();
    for (size_t i = 0; i < n; ++i) {
        char16_t x = UpcaseUnit(a[i]), y = UpcaseUnit(b[i]);
        if (x != y) return x < y ? -1 : 1;
    }
    return a.size() == b.size() ? 0 : (a.size() < b.size() ? -1 : 1);
}

bool NamesEqual(std::u16string_view a, std::u16string_view b) {
    return a.size() == b.size() && CompareNames(a, b) == 0;
}

uint32_t NameHash(std::u16string_view name) {
    uint32_t h = 0;
    for (char16_t c : name) h = h * 37 + UpcaseUnit(c);
    return h;
}

std::u16string DecodeName(const uint8_t* bytes, size_t size, bool compressed) {
    std::u16string out;
    if (compressed) {
        out.assign(bytes, bytes + size);
    } else {
        out.resize(size / 2);
        for (size_t i = 0; i < out.size(); ++i) out[i] = char16_t(bytes[2 * i] | (bytes[2 * i + 1] << 8));
    }
    return out;
}

bool StoreCompressed(std::u16string_view name) {
    for (char16_t c : name)
        if (c >= 0x80) return false;
    return true;
}

}  // namespace kx::regf
