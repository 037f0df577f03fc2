#include "guest_hive.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "output.h"
#include "platform/win32_positioned_file.h"

namespace kxha {

namespace regf = kx::regf;

GuestHive OpenGuestHive(const std::wstring& path) {
    GuestHive g;
    g.path = path;
    std::unique_ptr<kx::vhd::PositionedFile> file;
    g.fileError = kx::vdisk::Win32FileSystem::OpenFile(path, GENERIC_READ, FILE_SHARE_READ, OPEN_EXISTING, &file);
    g.found = g.fileError != ERROR_FILE_NOT_FOUND && g.fileError != ERROR_PATH_NOT_FOUND;
    if (g.fileError || (g.fileError = file->Size(&g.size))) return g;
    g.rc = regf::Hive::ReadHeader(*file, &g.header);
    g.headerRead = g.rc == regf::kOk;
    if (g.headerRead) g.rc = regf::Hive::Open(std::move(file), regf::OpenOptions{.writable = false, .acceptDirty = true}, &g.hive);
    return g;
}

std::wstring Wide(const std::u16string& s) { return kx::vdisk::ToWide(s); }
std::u16string U16(const std::wstring& s) { return kx::vdisk::ToU16(s); }

namespace {
std::wstring Units(const std::vector<uint8_t>& data) {
    std::wstring s(data.size() / 2, L'\0');
    std::memcpy(s.data(), data.data(), s.size() * 2);
    return s;
}
}  // namespace

std::wstring ValueText(const regf::Value& v) {
    std::wstring s = Units(v.data);
    return s.substr(0, s.find(L'\0'));
}

std::vector<std::wstring> ValueItems(const regf::Value& v) {
    std::vector<std::wstring> items;
    const std::wstring s = Units(v.data);
    for (size_t at = 0; at < s.size();) {
        const size_t end = std::min(s.find(L'\0', at), s.size());
        if (end == at) break;
        items.push_back(s.substr(at, end - at));
        at = end + 1;
    }
    return items;
}

std::optional<uint64_t> ValueNumber(const regf::Value& v) {
    const size_t want = v.type == regf::kRegDword ? 4 : v.type == regf::kRegQword ? 8 : 0;
    if (!want || v.data.size() != want) return std::nullopt;
    uint64_t n = 0;
    std::memcpy(&n, v.data.data(), want);
    return n;
}

std::wstring TypeName(uint32_t type) {
    static const wchar_t* const names[] = {
        L"REG_NONE",      L"REG_SZ",        L"REG_EXPAND_SZ",        L"REG_BINARY",
        L"REG_DWORD",     L"REG_DWORD_BIG_ENDIAN", L"REG_LINK",      L"REG_MULTI_SZ",
        L"REG_RESOURCE_LIST", L"REG_FULL_RESOURCE_DESCRIPTOR", L"REG_RESOURCE_REQUIREMENTS_LIST", L"REG_QWORD"};
    return type < std::size(names) ? names[type] : Printf(L"0x%x", type);
}

namespace {
std::wstring HexBytes(const std::vector<uint8_t>& data, size_t cap, const wchar_t* between) {
    std::wstring s;
    for (size_t i = 0; i < data.size() && i < cap; ++i) s += (i ? between : L"") + Printf(L"%02x", data[i]);
    return s;
}

constexpr size_t kShownBytes = 32;
}  // namespace

std::wstring ShownData(const regf::Value& v, bool json) {
    const auto n = ValueNumber(v);
    if (v.type == regf::kRegSz || v.type == regf::kRegExpandSz)
        return json ? JsonString(ValueText(v)) : ValueText(v);
    if (v.type == regf::kRegMultiSz) {
        std::wstring joined;
        for (const auto& item : ValueItems(v)) joined += (joined.empty() ? L"" : L" | ") + item;
        return json ? JsonList(ValueItems(v)) : joined;
    }
    if (n) return json ? Num(*n) : Printf(v.type == regf::kRegDword ? L"0x%08llx (%llu)" : L"0x%016llx (%llu)", *n, *n);
    if (json) return L"\"" + HexBytes(v.data, v.data.size(), L"") + L"\"";
    std::wstring s = HexBytes(v.data, kShownBytes, L" ");
    if (v.data.size() > kShownBytes) s += L" ... " + Num(v.data.size()) + L" bytes";
    return s;
}

regf::Result ReadValues(const regf::Hive& hive, regf::Key key, std::vector<std::pair<std::wstring, regf::Value>>* values) {
    for (uint32_t i = 0;; ++i) {
        std::u16string name;
        regf::Value v;
        if (regf::Result rc = hive.EnumValue(key, i, &name, &v)) return rc == regf::kNoMoreItems ? regf::kOk : rc;
        values->emplace_back(Wide(name), std::move(v));
    }
}

namespace {
std::optional<regf::Value> Read(const regf::Hive& hive, const std::wstring& path, const std::wstring& name,
                                uint32_t type) {
    regf::Key key;
    regf::Value v;
    if (hive.OpenKey(hive.Root(), U16(path), &key) || hive.GetValue(key, U16(name), &v) || v.type != type)
        return std::nullopt;
    return v;
}
}  // namespace

std::optional<std::wstring> ReadString(const regf::Hive& hive, const std::wstring& path, const std::wstring& name) {
    const auto v = Read(hive, path, name, regf::kRegSz);
    return v ? std::optional(ValueText(*v)) : std::nullopt;
}

std::optional<uint32_t> ReadDword(const regf::Hive& hive, const std::wstring& path, const std::wstring& name) {
    const auto v = Read(hive, path, name, regf::kRegDword);
    const auto n = v ? ValueNumber(*v) : std::nullopt;
    return n ? std::optional(static_cast<uint32_t>(*n)) : std::nullopt;
}

}  // namespace kxha
