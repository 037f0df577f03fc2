// Value data in the forms the registry gives its types: UTF-16LE strings with
// their terminating NUL (REG_SZ, REG_EXPAND_SZ), lists of such strings ended
// by an empty one (REG_MULTI_SZ), little-endian DWORD and QWORD.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace kx::regf {

inline std::vector<uint8_t> EncodeString(std::u16string_view text) {
    std::vector<uint8_t> out;
    out.reserve((text.size() + 1) * 2);
    for (char16_t c : text) out.insert(out.end(), {uint8_t(c), uint8_t(c >> 8)});
    out.insert(out.end(), {0, 0});
    return out;
}

inline std::vector<uint8_t> EncodeMultiString(const std::vector<std::u16string>& items) {
    std::vector<uint8_t> out;
    for (const auto& item : items) {
        std::vector<uint8_t> one = EncodeString(item);
        out.insert(out.end(), one.begin(), one.end());
    }
    out.insert(out.end(), {0, 0});
    return out;
}

// The text up to the first NUL (or the end; an odd last byte is dropped).
inline std::u16string DecodeString(const std::vector<uint8_t>& data) {
    std::u16string out;
    for (size_t i = 0; i + 1 < data.size(); i += 2) {
        char16_t c = char16_t(data[i] | data[i + 1] << 8);
        if (c == 0) break;
        out.push_back(c);
    }
    return out;
}

// The strings up to the first empty one.
inline std::vector<std::u16string> DecodeMultiString(const std::vector<uint8_t>& data) {
    std::vector<std::u16string> out;
    std::u16string cur;
    for (size_t i = 0; i + 1 < data.size(); i += 2) {
        char16_t c = char16_t(data[i] | data[i + 1] << 8);
        if (c != 0) {
            cur.push_back(c);
            continue;
        }
        if (cur.empty()) break;
        out.push_back(std::move(cur));
        cur.clear();
    }
    if (!cur.empty()) out.push_back(std::move(cur));
    return out;
}

// False unless the data holds at least the value's bytes.
inline bool DecodeDword(const std::vector<uint8_t>& data, uint32_t* value) {
    if (data.size() < 4) return false;
    *value = uint32_t(data[0]) | uint32_t(data[1]) << 8 | uint32_t(data[2]) << 16 | uint32_t(data[3]) << 24;
    return true;
}

inline bool DecodeQword(const std::vector<uint8_t>& data, uint64_t* value) {
    if (data.size() < 8) return false;
    *value = 0;
    for (int i = 7; i >= 0; --i) *value = *value << 8 | data[size_t(i)];
    return true;
}

}  // namespace kx::regf
