// Guest registry hives read through the offline hive engine, read-only: the
// file is opened for reading alone and a dirty hive is read as it stands,
// never repaired, so inspecting a guest leaves every byte of it as it was.
// (A system load of a hive may write to the hive and its logs.)
#pragma once

#include <windows.h>

#include <cstdint>
#include <cwchar>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "platform/regf/regf_hive.h"

namespace kxha {

struct GuestHive {
    std::wstring path;
    bool found = false;         // the file exists
    DWORD fileError = 0;        // opening or sizing the file failed with this
    uint64_t size = 0;
    bool headerRead = false;    // the base block passed its checks
    kx::regf::HeaderInfo header;
    kx::regf::Result rc = 0;    // the engine's answer; 0 when `hive` is open
    std::unique_ptr<kx::regf::Hive> hive;
};

GuestHive OpenGuestHive(const std::wstring& path);

std::wstring Wide(const std::u16string& s);
std::u16string U16(const std::wstring& s);

// Value data read as the registry types say: a string up to its first NUL;
// the items of a multi-string (an empty item ends the list); a DWORD or
// QWORD of the right size.
std::wstring ValueText(const kx::regf::Value& v);
std::vector<std::wstring> ValueItems(const kx::regf::Value& v);
std::optional<uint64_t> ValueNumber(const kx::regf::Value& v);

// Every value of a key, in the hive's order, with its name. 0 or the
// engine's code.
kx::regf::Result ReadValues(const kx::regf::Hive& hive, kx::regf::Key key,
                            std::vector<std::pair<std::wstring, kx::regf::Value>>* values);

// A string or DWORD value of the key at `path` (below the root); nullopt
// when the key or the value is absent or of another type.
std::optional<std::wstring> ReadString(const kx::regf::Hive& hive, const std::wstring& path, const std::wstring& name);
std::optional<uint32_t> ReadDword(const kx::regf::Hive& hive, const std::wstring& path, const std::wstring& name);

// The name of a registry value type ("REG_DWORD"; "0x.." for others).
std::wstring TypeName(uint32_t type);
// The data as `kxha guest reg` shows it: strings as they are, multi-string
// items joined by " | ", numbers in hex and decimal, other data as hex bytes
// (the first 32); with `json`, a JSON string, list, number or hex string.
std::wstring ShownData(const kx::regf::Value& v, bool json);

// A short formatted text.
std::wstring Printf(const wchar_t* format, auto... args) {
    wchar_t buf[128];
    swprintf(buf, 128, format, args...);
    return buf;
}

}  // namespace kxha
