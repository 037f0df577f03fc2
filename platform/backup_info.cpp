#include "platform/backup_info.h"

#include <objbase.h>
#include <shlwapi.h>
#include <xmllite.h>

#include <cwchar>
#include <string>
#include <cwctype>

#include "common/proc_address.h"
#include "common/result_codes.h"
#include "common/unique_resource.h"
#include "common/wstring_format.h"
#include "log/debug_log.h"

namespace kx::platform {

namespace {

using CreateXmlReaderFn = HRESULT(WINAPI*)(REFIID, void**, IMalloc*);

// XmlLite ships with Windows; it is loaded once and kept for the process.
CreateXmlReaderFn XmlReaderFactory() {
    static CreateXmlReaderFn fn = [] {
        HMODULE dll = ::LoadLibraryW(L"xmllite.dll");
        return ProcAddress<CreateXmlReaderFn>(dll, "CreateXmlReader");
    }();
    return fn;
}

std::wstring Trim(const wchar_t* s, UINT n) {
    UINT b = 0;
    while (b < n && iswspace(s[b])) ++b;
    while (n > b && iswspace(s[n - 1])) --n;
    return std::wstring(s + b, n - b);
}

// XML allows no U+0000 anywhere; refusing it before parsing also keeps
// input away from parsers that fail hard on it. UTF-16 (with or without a
// byte-order mark) is checked by code unit, anything else by byte.
bool HoldsNul(const unsigned char* b, size_t n) {
    const bool le = (n >= 2 && b[0] == 0xFF && b[1] == 0xFE) || (n >= 2 && b[0] != 0 && b[1] == 0);
    const bool be = (n >= 2 && b[0] == 0xFE && b[1] == 0xFF) || (n >= 2 && b[0] == 0 && b[1] != 0);
    if (le || be) {
        if (n % 2) return true;
        for (size_t i = 0; i + 1 < n; i += 2)
            if (b[i] == 0 && b[i + 1] == 0) return true;
        return false;
    }
    for (size_t i = 0; i < n; ++i)
        if (b[i] == 0) return true;
    return false;
}

bool ParseNumber(const std::wstring& text, DWORD* out) {
    if (text.empty()) return false;
    wchar_t* end = nullptr;
    unsigned long long v = wcstoull(text.c_str(), &end, 10);
    if (*end || v > 0xFFFFFFFFull || !iswdigit(text[0])) return false;
    *out = static_cast<DWORD>(v);
    return true;
}

}  // namespace

DWORD ParseBackupInfo(const void* data, size_t size, BackupInfo* info) {
    *info = BackupInfo{};
    // Too short to hold a root element (some parsers also fail hard on an
    // empty stream), or larger than any description.
    if (size < 16 || size > kMaxBackupInfoBytes) return ERROR_INVALID_DATA;
    if (HoldsNul(static_cast<const unsigned char*>(data), size)) return ERROR_INVALID_DATA;
    CreateXmlReaderFn create = XmlReaderFactory();
    if (!create) return ERROR_DLL_INIT_FAILED;

    // A line end after the last byte changes nothing a parser reports (white
    // space may follow the root element), and keeps the input from ending
    // right behind an XML declaration, where some XmlLite builds abort the
    // process instead of answering.
    std::string bytes(static_cast<const char*>(data), size);
    const auto* b = reinterpret_cast<const unsigned char*>(bytes.data());
    if (b[0] == 0xFF && b[1] == 0xFE)
        bytes.append("\r\0\n\0", 4);
    else if (b[0] == 0xFE && b[1] == 0xFF)
        bytes.append("\0\r\0\n", 4);
    else
        bytes.append("\r\n", 2);
    com_ptr<IStream> stream;
    *stream.put() = ::SHCreateMemStream(reinterpret_cast<const BYTE*>(bytes.data()), static_cast<UINT>(bytes.size()));
    if (!stream) return ERROR_OUTOFMEMORY;
    com_ptr<IXmlReader> reader;
    HRESULT hr;
    if (FAILED(hr = create(__uuidof(IXmlReader), reinterpret_cast<void**>(reader.put()), nullptr)) ||
        FAILED(hr = reader->SetProperty(XmlReaderProperty_DtdProcessing, DtdProcessing_Prohibit)) ||
        FAILED(hr = reader->SetProperty(XmlReaderProperty_MaxElementDepth, 16)) ||
        FAILED(hr = reader->SetInput(stream.get())))
        return static_cast<DWORD>(hr);

    // The text of each element directly under <BackupInfo>.
    std::wstring element, number, kind, status, guid, encrypted;
    bool haveNumber = false, haveKind = false, haveStatus = false, haveGuid = false;
    int depth = 0;
    bool rootSeen = false;
    XmlNodeType node;
    // Every step must move on through the input: a reader that hands out the
    // same node again (some parsers do at a cut-off text node or a NUL inside
    // an element) ends the read as malformed, and so does a file with more
    // nodes than a session description ever has.
    UINT lastLine = 0, lastColumn = 0;
    XmlNodeType lastNode = XmlNodeType_None;
    for (size_t nodes = 0;; ++nodes) {
        hr = reader->Read(&node);
        if (hr != S_OK) break;
        if (nodes >= kMaxBackupInfoNodes) return ERROR_INVALID_DATA;
        UINT line = 0, column = 0;
        if (FAILED(reader->GetLineNumber(&line)) || FAILED(reader->GetLinePosition(&column)))
            return ERROR_INVALID_DATA;
        if (nodes > 0 && node == lastNode && line == lastLine && column == lastColumn) return ERROR_INVALID_DATA;
        lastNode = node, lastLine = line, lastColumn = column;
        if (node == XmlNodeType_Element) {
            const wchar_t* name = nullptr;
            if (FAILED(reader->GetLocalName(&name, nullptr)) || !name) return ERROR_INVALID_DATA;
            const bool empty = reader->IsEmptyElement();
            if (depth == 0) {
                if (rootSeen || wcscmp(name, L"BackupInfo") != 0) return ERROR_INVALID_DATA;
                rootSeen = true;
            }
            if (depth == 1) element = name;
            if (!empty) ++depth;
            if (empty && depth == 1) {
                // <Status/>: present, with empty text.
                if (element == L"SessionNumber") haveNumber = true;
                if (element == L"BackupKind") haveKind = true;
                if (element == L"Status") haveStatus = true;
                if (element == L"SessionGuid") haveGuid = true;
            }
        } else if (node == XmlNodeType_EndElement) {
            if (--depth < 0) return ERROR_INVALID_DATA;
            if (depth == 1) element.clear();
        } else if ((node == XmlNodeType_Text || node == XmlNodeType_CDATA) && depth == 2) {
            const wchar_t* value = nullptr;
            UINT len = 0;
            if (FAILED(reader->GetValue(&value, &len)) || !value) return ERROR_INVALID_DATA;
            const std::wstring text = Trim(value, len);
            if (element == L"SessionNumber") number = text, haveNumber = true;
            else if (element == L"SessionGuid") guid = text, haveGuid = true;
            else if (element == L"BackupKind") kind = text, haveKind = true;
            else if (element == L"Status") status = text, haveStatus = true;
            else if (element == L"Encrypted") encrypted = text;
        }
    }
    // An unclosed element is a truncated file, whatever the parser says; so
    // is a reader that stopped without reporting the end of the input.
    if (hr != S_FALSE || depth != 0 || !rootSeen) return ERROR_INVALID_DATA;
    if (!haveNumber || !haveGuid || !haveKind || !haveStatus) return ERROR_INVALID_DATA;
    if (!ParseNumber(number, &info->sessionNumber)) return ERROR_INVALID_DATA;
    info->sessionGuid = guid;
    info->backupKind = kind;
    info->status = status;
    info->encrypted = encrypted == L"1";
    return 0;
}

DWORD ReadBackupInfo(const std::wstring& xmlPath, BackupInfo* info) {
    *info = BackupInfo{};
    unique_hfile file(::CreateFileW(xmlPath.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                    FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) return LastErrorOr();
    LARGE_INTEGER size{};
    if (!::GetFileSizeEx(file.get(), &size)) return LastErrorOr();
    if (size.QuadPart > static_cast<LONGLONG>(kMaxBackupInfoBytes)) return ERROR_INVALID_DATA;
    std::string bytes(static_cast<size_t>(size.QuadPart), '\0');
    DWORD got = 0;
    if (!bytes.empty() && !::ReadFile(file.get(), bytes.data(), static_cast<DWORD>(bytes.size()), &got, nullptr))
        return LastErrorOr();
    if (got != bytes.size()) return ERROR_INVALID_DATA;
    return ParseBackupInfo(bytes.data(), bytes.size(), info);
}

bool IsSessionValid(const std::wstring& sessionFolder) {
    BackupInfo info;
    return ReadBackupInfo(JoinPath(sessionFolder, kBackupInfoFile), &info) == 0 && EqualsNoCase(info.status, L"Finished");
}

bool IsFullSession(const std::wstring& sessionFolder) {
    BackupInfo info;
    return ReadBackupInfo(JoinPath(sessionFolder, kBackupInfoFile), &info) == 0 && EqualsNoCase(info.backupKind, L"Full");
}

}  // namespace kx::platform
