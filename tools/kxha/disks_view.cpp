#include "disks_view.h"

#include <cwchar>

#include "output.h"

namespace kxha {

namespace {

constexpr const wchar_t* kFreeSpace = L"{00000000-0000-0000-0000-000000000000}";

std::wstring Hex8(unsigned long v) {
    wchar_t text[16];
    std::swprintf(text, 16, L"0x%08lX", v);
    return text;
}

std::wstring Pad(std::wstring s, size_t width) {
    if (s.size() < width) s.append(width - s.size(), L' ');
    return s;
}

std::wstring Gib(unsigned long long bytes) {
    wchar_t text[32];
    std::swprintf(text, 32, L"%.1f GiB", static_cast<double>(bytes) / (1ull << 30));
    return text;
}

// The letter of the volume `guid`, "(free)" for free space, else the GUID.
std::wstring ExtentOwner(const std::wstring& guid, const std::vector<VdsVolumeRecord>& volumes) {
    if (guid == kFreeSpace) return L"(free)";
    for (const VdsVolumeRecord& v : volumes)
        if (v.volumeGuid == guid) return v.letter.empty() ? guid : v.letter + L"  " + guid;
    return guid;
}

}  // namespace

const wchar_t* StyleName(unsigned long style) {
    switch (style) {
        case 1: return L"MBR";
        case 2: return L"GPT";
        default: return L"raw";
    }
}

std::wstring DisksTable(const std::vector<VdsDiskRecord>& disks, const std::vector<VdsVolumeRecord>& volumes) {
    std::wstring out = L"DISK  SIZE          STYLE  IDENTITY\n";
    for (const VdsDiskRecord& d : disks) {
        const std::wstring identity = d.partitionStyle == 1 ? Hex8(d.signature) + L"  " + d.diskGuid : d.diskGuid;
        out += Pad(Num(d.diskNumber), 6) + Pad(Gib(d.size), 14) + Pad(StyleName(d.partitionStyle), 7) + identity +
               L"\n";
        for (const VdsDiskExtentRecord& e : d.extents)
            out += L"      at " + Pad(Num(e.offset), 16) + ExtentOwner(e.volumeGuid, volumes) + L"\n";
    }
    out += L"\nVOLUME                                  LETTER  FLAGS       DYNAMIC\n";
    for (const VdsVolumeRecord& v : volumes)
        out += Pad(v.volumeGuid, 40) + Pad(v.letter.empty() ? L"-" : v.letter, 8) + Pad(Hex8(v.flags), 12) +
               (v.dynamic ? L"yes" : L"no") + L"\n";
    return out;
}

std::wstring DisksJson(const std::vector<VdsDiskRecord>& disks, const std::vector<VdsVolumeRecord>& volumes) {
    std::wstring out = L"{\"disks\": [";
    for (size_t i = 0; i < disks.size(); ++i) {
        const VdsDiskRecord& d = disks[i];
        out += (i ? L", " : L"") + std::wstring(L"{\"number\": ") + Num(d.diskNumber) + L", \"size\": " +
               Num(d.size) + L", \"style\": " + JsonString(StyleName(d.partitionStyle)) + L", \"signature\": " +
               Num(d.signature) + L", \"guid\": " + JsonString(d.diskGuid) + L", \"extents\": [";
        for (size_t j = 0; j < d.extents.size(); ++j)
            out += (j ? L", " : L"") + std::wstring(L"{\"offset\": ") + Num(d.extents[j].offset) +
                   L", \"volume\": " + JsonString(d.extents[j].volumeGuid) + L"}";
        out += L"]}";
    }
    out += L"], \"volumes\": [";
    for (size_t i = 0; i < volumes.size(); ++i) {
        const VdsVolumeRecord& v = volumes[i];
        out += (i ? L", " : L"") + std::wstring(L"{\"guid\": ") + JsonString(v.volumeGuid) + L", \"letter\": " +
               JsonString(v.letter) + L", \"flags\": " + Num(v.flags) + L", \"dynamic\": " +
               (v.dynamic ? L"true" : L"false") + L"}";
    }
    return out + L"]}\n";
}

}  // namespace kxha
