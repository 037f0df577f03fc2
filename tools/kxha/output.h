// Output helpers of kxha: JSON text, numbers, and the exit-status rule.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "tools/vhd_destination/vhd_destination.h"

namespace kxha {

std::wstring JsonString(const std::wstring& s);  // quoted and escaped
std::wstring JsonList(const std::vector<std::wstring>& items);  // ["a", "b"]
std::wstring Num(unsigned long long v);
using kx::fixture::SessionName;  // S##########

// True when stdout is a console (progress is shown only then).
bool StdoutIsTerminal();

// The value after `flag` in args, or `fallback`.
std::wstring Option(const std::vector<std::wstring>& args, const wchar_t* flag, const std::wstring& fallback = L"");
// Positional arguments (those that are neither flags nor flag values).
std::vector<std::wstring> Positionals(const std::vector<std::wstring>& args,
                                      std::initializer_list<const wchar_t*> flagsWithValue);

}  // namespace kxha
