#include "platform/unicode_ini.h"

#include <cwchar>

#include "common/result_codes.h"
#include "common/unique_resource.h"
#include "log/debug_log.h"

namespace kx {

namespace {
DWORD WriteAll(HANDLE file, const void* data, DWORD size) {
    DWORD written = 0;
    if (!::WriteFile(file, data, size, &written, nullptr)) return LastErrorOr();
    return written == size ? 0 : ERROR_WRITE_FAULT;
}
}  // namespace

DWORD CreateIniWithUnicodePrefix(const wchar_t* file, const wchar_t* markSection) {
    if (!file || !markSection) return kE_INVALIDARG;
    DWORD rc = 0;
    {
        unique_hfile h(::CreateFileW(file, GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, CREATE_ALWAYS,
                                     FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!h) {
            Log(0, L"_CreateIniWithUnicodePrefix::Create failed, file = %s, rc = %d", file, 0);
            return 0;
        }
        const wchar_t bom = 0xFEFF;
        rc = WriteAll(h.get(), &bom, sizeof bom);
        if (rc) {
            Log(0, L"_CreateIniWithUnicodePrefix::Write failed, file = %s, rc = %d", file, rc);
        } else {
            const DWORD bytes = static_cast<DWORD>((wcslen(markSection) + 1) * sizeof(wchar_t));
            rc = WriteAll(h.get(), markSection, bytes);
            if (rc) Log(0, L"_CreateIniWithUnicodePrefix::Write mark sect filed, file = %s, rc = %d", file, rc);
        }
    }
    if (rc) ::DeleteFileW(file);
    return rc;
}

DWORD _CreateIniWithUnicodePrefix(const wchar_t* file) { return CreateIniWithUnicodePrefix(file, L"[QZSIG]"); }

}  // namespace kx
