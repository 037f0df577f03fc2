#include "platform/backup_info.h"

#include <objbase.h>
#include <shlwapi.h>
#include <xmllite.h>

#include <cwchar>
#include <cwctype>

#include "common/proc_address.h"
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

bool ParseNumber(const std::wstring& text, DWORD* out) {
    if (text.empty()) return false;
    wchar_t* end = nullptr;
    unsigned long long v = wcstoull(text.c_str(), &end, 10);
    if (*end || v > 0xFFFFFFFFull || !iswdigit(text[0])) return false;
    *out = static_cast<DWORD>(v);
    return true;
}

}  // namespace

DWORD ReadBackupInfo(const std::wstring& xmlPath, BackupInfo* info) {
    *info = BackupInfo{};
    CreateXmlReaderFn create = XmlReaderFactory();
    if (!create) return ERROR_DLL_INIT_FAILED;

    com_ptr<IStream> stream;
    HRESULT hr = ::SHCreateStreamOnFileW(xmlPath.c_str(), STGM_READ | STGM_SHARE_DENY_WRITE, stream.put());
    if (FAILED(hr)) return HRESULT_FACILITY(hr) == FACILITY_WIN32 ? HRESULT_CODE(hr) : static_cast<DWORD>(hr);
    com_ptr<IXmlReader> reader;
    if (FAILED(hr = create(__uuidof(IXmlReader), reinterpret_cast<void**>(reader.put()), nullptr)) ||
        FAILED(hr = reader->SetProperty(XmlReaderProperty_DtdProcessing, DtdProcessing_Prohibit)) ||
        FAILED(hr = reader->SetInput(stream.get())))
        return static_cast<DWORD>(hr);

    // The text of each element directly under <BackupInfo>.
    std::wstring element, number, kind, status, guid, encrypted;
    bool haveNumber = false, haveKind = false, haveStatus = false, haveGuid = false;
    int depth = 0;
    bool rootSeen = false;
    XmlNodeType node;
    while ((hr = reader->Read(&node)) == S_OK) {
        if (node == XmlNodeType_Element) {
            const wchar_t* name = nullptr;
            reader->GetLocalName(&name, nullptr);
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
            --depth;
            if (depth == 1) element.clear();
        } else if ((node == XmlNodeType_Text || node == XmlNodeType_CDATA) && depth == 2) {
            const wchar_t* value = nullptr;
            UINT len = 0;
            reader->GetValue(&value, &len);
            const std::wstring text = Trim(value, len);
            if (element == L"SessionNumber") number = text, haveNumber = true;
            else if (element == L"SessionGuid") guid = text, haveGuid = true;
            else if (element == L"BackupKind") kind = text, haveKind = true;
            else if (element == L"Status") status = text, haveStatus = true;
            else if (element == L"Encrypted") encrypted = text;
        }
    }
    // An unclosed element is a truncated file, whatever the parser says.
    if (FAILED(hr) || depth != 0 || !rootSeen) return ERROR_INVALID_DATA;
    if (!haveNumber || !haveGuid || !haveKind || !haveStatus) return ERROR_INVALID_DATA;
    if (!ParseNumber(number, &info->sessionNumber)) return ERROR_INVALID_DATA;
    info->sessionGuid = guid;
    info->backupKind = kind;
    info->status = status;
    info->encrypted = encrypted == L"1";
    return 0;
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
