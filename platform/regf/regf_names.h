// Registry names: decoding of stored names and the case rule of key and value
// lookups. Windows compares names code unit by code unit after upper-casing
// each; this engine upper-cases ASCII, Latin-1 (U+00E0-U+00FE except U+00F7,
// and U+00FF -> U+0178), Latin Extended-A pairs, Greek U+03B1-U+03C9 (except
// final sigma) and Cyrillic U+0430-U+045F. Other code units compare as they are.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kx::regf {

char16_t UpcaseUnit(char16_t c);
bool NamesEqual(std::u16string_view a, std::u16string_view b);
// <0, 0, >0 in the order of subkey index lists.
int CompareNames(std::u16string_view a, std::u16string_view b);
// The hash stored in "lh" lists: h = h * 37 + upper(unit) over the name.
uint32_t NameHash(std::u16string_view name);
// Names stored as one byte per character (Latin-1) or as UTF-16LE.
std::u16string DecodeName(const uint8_t* bytes, size_t size, bool compressed);
// True when the name can be stored one byte per character; new names are
// stored that way only when they are plain ASCII.
bool StoreCompressed(std::u16string_view name);

}  // namespace kx::regf
