#include "hyperv/pending_delete.h"

#include <algorithm>
#include <memory>
#include <new>

#include "common/result_codes.h"
#include "common/unique_resource.h"
#include "common/wstring_format.h"
#include "log/debug_log.h"
#include "platform/unicode_ini.h"

namespace kx::hyperv {

namespace {

// Where a list and its size key live.
struct ListKeys {
    const wchar_t* section;
    const wchar_t* key;
    const wchar_t* sizeSection;
    const wchar_t* sizeKey;
};
constexpr ListKeys kFolders{L"INC_SESS_FOLDER", L"IncFolder", L"INC_SESS_SIZE", L"IncSize"};
constexpr ListKeys kPairs{L"VHD_AVHD_LIST", L"list", L"VHD_AVHD_SIZE", L"size"};
constexpr const wchar_t* kZeroGuid = L"00000000-0000-0000-0000-000000000000";

bool FileExists(const std::wstring& path) {
    WIN32_FIND_DATAW fd;
    unique_hfind find(::FindFirstFileW(path.c_str(), &fd));
    return find.valid();
}

// Creates the record when it is missing; the creation's code.
DWORD EnsureRecord(const std::wstring& path, const wchar_t* routine) {
    if (FileExists(path)) return 0;
    const DWORD rc = _CreateIniWithUnicodePrefix(path.c_str());
    if (rc) Log(0, L"%s, create ini failed, path = %s, rc = %d", routine, path.c_str(), rc);
    return rc;
}

int ReadSize(const std::wstring& path, const wchar_t* section, const wchar_t* key) {
    return static_cast<int>(::GetPrivateProfileIntW(section, key, 0, path.c_str()));
}

// A buffer of `chars` characters, or null when there is no memory for it.
std::unique_ptr<wchar_t[]> Alloc(size_t chars) {
    std::unique_ptr<wchar_t[]> buf(new (std::nothrow) wchar_t[chars]);
    if (buf) buf[0] = 0;
    return buf;
}

// The record's path (the file made when missing) and a list's size key. 0,
// the creation's code, or 0xFFFFFFFF for a negative size.
DWORD SizeOfList(const PendingDelContext& context, const wchar_t* routine, const ListKeys& list, std::wstring& path,
                 int& size) {
    path = PendingDelRecordPath(context);
    if (DWORD rc = EnsureRecord(path, routine)) return rc;
    size = ReadSize(path, list.sizeSection, list.sizeKey);
    if (size < 0) {
        Log(2, L"%s, incorrect size, size = %d", routine, size);
        return kFailNoCode;
    }
    return 0;
}

// Reads the value that a size key announces, into at most min(size, cap) + 2
// characters. 0 with the text, SizeOfList's codes, or 0x8007000E.
DWORD ReadList(const PendingDelContext& context, const wchar_t* routine, const ListKeys& list, std::wstring& text) {
    text.clear();
    std::wstring path;
    int size = 0;
    if (DWORD rc = SizeOfList(context, routine, list, path, size)) return rc;
    if (size == 0) return 0;
    const DWORD chars = static_cast<DWORD>(std::min(size, kPendingDelCap)) + 2;
    auto buf = Alloc(chars);
    if (!buf) {
        Log(0, L"%s, Alloc buf, outofmem, size = %d", routine, size);
        return kE_OUTOFMEMORY;
    }
    const DWORD got = ::GetPrivateProfileStringW(list.section, list.key, L"", buf.get(), chars, path.c_str());
    text.assign(buf.get(), got);
    return 0;
}

// Writes a list value and then its length (the record made first when it
// is missing); the lines name the routine.
DWORD WriteList(const PendingDelContext& context, const wchar_t* routine, const ListKeys& list,
                const std::wstring& value) {
    const std::wstring path = PendingDelRecordPath(context);
    if (DWORD rc = EnsureRecord(path, routine)) return rc;
    if (!::WritePrivateProfileStringW(list.section, list.key, value.c_str(), path.c_str())) {
        const DWORD rc = LastErrorOr();
        Log(0, L"%s, write failed, path = %s, rc = %d", routine, path.c_str(), rc);
        return rc;
    }
    const int count = static_cast<int>(value.size());
    if (!::WritePrivateProfileStringW(list.sizeSection, list.sizeKey, std::to_wstring(count).c_str(), path.c_str())) {
        const DWORD rc = LastErrorOr();
        Log(0, L"%s, update folder size failed, path = %s, cnt = %d, rc = %d", routine, path.c_str(), count, rc);
        return rc;
    }
    return 0;
}

std::wstring JoinFolders(const std::vector<std::wstring>& folders) {
    std::wstring out;
    for (const auto& f : folders) out += f + L"|";
    return out;
}

}  // namespace

std::wstring PendingDelRecordPath(const PendingDelContext& context) {
    return JoinPath(context.dataFolder, context.vmGuid + L"_vcm_to_del.ini");
}

bool IsAcceptedPair(const std::wstring& base, const std::wstring& differencing) {
    const std::wstring zero = kZeroGuid;
    return (EndsWithNoCase(base, L".vhd") && EndsWithNoCase(differencing, zero + L".avhd")) ||
           (EndsWithNoCase(base, L".vhdx") && EndsWithNoCase(differencing, zero + L".avhdx"));
}

DWORD _ReadPendingDelFolderFromCfgFile(const PendingDelContext& context, std::vector<std::wstring>& folders) {
    constexpr const wchar_t* routine = L"_ReadPendingDelFolderFromCfgFile";
    folders.clear();
    std::wstring text;
    if (DWORD rc = ReadList(context, routine, kFolders, text)) return rc;
    // Each run ended by "|" is a folder; a last run without one was cut off.
    size_t start = 0;
    for (size_t bar = text.find(L'|'); bar != std::wstring::npos; bar = text.find(L'|', start)) {
        folders.push_back(text.substr(start, bar - start));
        start = bar + 1;
    }
    return 0;
}

DWORD _AddPendingDelFolderToCfgFile(const PendingDelContext& context, const std::vector<std::wstring>& folders) {
    constexpr const wchar_t* routine = L"_AddPendingDelFolderToCfgFile";
    if (folders.empty()) return 0;
    std::wstring path;
    int size = 0;
    if (DWORD rc = SizeOfList(context, routine, kFolders, path, size)) return rc;
    const std::wstring addition = JoinFolders(folders);
    const size_t trusted = static_cast<size_t>(std::min(size, kPendingDelCap));
    const size_t chars = addition.size() + 2 + trusted;
    auto buf = Alloc(chars);
    if (!buf) {
        Log(0, L"%s, Alloc buf, outofmem, size = %d", routine, size);
        return kE_OUTOFMEMORY;
    }
    // The old value takes at most what its size key announces (plus the
    // reader's slack), so the new entries always fit behind it.
    const DWORD got = ::GetPrivateProfileStringW(kFolders.section, kFolders.key, L"", buf.get(),
                                                 static_cast<DWORD>(trusted + 2), path.c_str());
    std::wstring value(buf.get(), got);
    // A cut-off last entry would run into the first new one: drop it, as the
    // reader would.
    const size_t lastBar = value.rfind(L'|');
    value.resize(lastBar == std::wstring::npos ? 0 : lastBar + 1);
    value += addition.substr(0, chars - 1 - value.size());
    return WriteList(context, routine, kFolders, value);
}

DWORD _WritePendingDelFolderToCfgFile(const PendingDelContext& context, const std::vector<std::wstring>& folders) {
    return WriteList(context, L"_WritePendingDelFolderToCfgFile", kFolders, JoinFolders(folders));
}

DWORD _ReadPendingDelPair(const PendingDelContext& context, std::vector<DiskPair>& pairs) {
    constexpr const wchar_t* routine = L"_ReadPendingDelPair";
    pairs.clear();
    std::wstring text;
    if (DWORD rc = ReadList(context, routine, kPairs, text)) return rc;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find_first_of(L"<>", start);
        if (end == std::wstring::npos) end = text.size();
        if (end > start) {
            const std::wstring token = text.substr(start, end - start);
            const size_t bar = token.find(L'|');
            std::wstring base = token.substr(0, bar);
            std::wstring differencing = bar == std::wstring::npos ? L"" : token.substr(bar + 1);
            if (IsAcceptedPair(base, differencing)) pairs.emplace_back(std::move(base), std::move(differencing));
        }
        start = end + 1;
    }
    return 0;
}

DWORD _WritePendingDelPair(const PendingDelContext& context, const std::vector<DiskPair>& pairs) {
    std::wstring value;
    for (const auto& [base, differencing] : pairs) value += L"<" + base + L"|" + differencing + L">";
    return WriteList(context, L"_WritePendingDelPair", kPairs, value);
}

void _AppendToPendingDelVhdList(const std::wstring& base, const std::wstring& differencing,
                                std::vector<DiskPair>& pairs) {
    Log(2, L"_AppendToPendingDelVhdList, vhd = %s, avhd = %s", base.c_str(), differencing.c_str());
    pairs.emplace_back(base, differencing);
}

}  // namespace kx::hyperv
