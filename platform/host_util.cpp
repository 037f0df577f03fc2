#include "platform/host_util.h"

#include "platform/registry.h"

#include <objbase.h>

#include <cwchar>
#include <limits>
#include <type_traits>

namespace kx::hostutil {

TokenPrivilege::TokenPrivilege() noexcept {
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_ADJUST_PRIVILEGES | TOKEN_QUERY, token_.put()))
        openError_ = ::GetLastError();
}

TokenPrivilege::~TokenPrivilege() {
    for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) {
        TOKEN_PRIVILEGES tp{};
        tp.PrivilegeCount = 1;
        tp.Privileges[0].Luid = it->luid;
        tp.Privileges[0].Attributes = it->attributes;
        ::AdjustTokenPrivileges(token_.get(), FALSE, &tp, 0, nullptr, nullptr);
    }
}

DWORD TokenPrivilege::EnablePrivilege(const wchar_t* name) noexcept {
    if (!token_) return openError_ ? openError_ : ERROR_INVALID_HANDLE;
    if (!name) return ERROR_INVALID_PARAMETER;
    LUID luid{};
    if (!::LookupPrivilegeValueW(nullptr, name, &luid)) return ::GetLastError();
    TOKEN_PRIVILEGES tp{};
    tp.PrivilegeCount = 1;
    tp.Privileges[0].Luid = luid;
    tp.Privileges[0].Attributes = SE_PRIVILEGE_ENABLED;
    TOKEN_PRIVILEGES previous{};
    DWORD previousSize = sizeof previous;
    if (!::AdjustTokenPrivileges(token_.get(), FALSE, &tp, previousSize, &previous, &previousSize))
        return ::GetLastError();
    // The call succeeds without granting a privilege the token lacks; only
    // the last error tells.
    DWORD rc = ::GetLastError();
    if (rc != ERROR_SUCCESS) return rc;
    // A privilege that was already enabled reports no previous state and has
    // nothing to put back.
    if (previous.PrivilegeCount == 1) {
        try {
            saved_.push_back({luid, previous.Privileges[0].Attributes});
        } catch (...) {
            ::AdjustTokenPrivileges(token_.get(), FALSE, &previous, 0, nullptr, nullptr);
            return ERROR_NOT_ENOUGH_MEMORY;
        }
    }
    return ERROR_SUCCESS;
}

bool CreateGuid(GUID* guid) noexcept {
    return guid && SUCCEEDED(::CoCreateGuid(guid));
}

std::wstring GuidToString(const GUID& g) {
    wchar_t text[40];
    std::swprintf(text, 40, L"{%08lX-%04hX-%04hX-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                  static_cast<unsigned long>(g.Data1), g.Data2, g.Data3, g.Data4[0], g.Data4[1], g.Data4[2],
                  g.Data4[3], g.Data4[4], g.Data4[5], g.Data4[6], g.Data4[7]);
    return text;
}

namespace {

int HexDigit(wchar_t c) noexcept {
    if (c >= L'0' && c <= L'9') return c - L'0';
    if (c >= L'a' && c <= L'f') return c - L'a' + 10;
    if (c >= L'A' && c <= L'F') return c - L'A' + 10;
    return -1;
}

// Reads `digits` hex digits at p; false on any non-hex character.
bool ReadHex(const wchar_t* p, int digits, uint64_t* value) noexcept {
    uint64_t v = 0;
    for (int i = 0; i < digits; ++i) {
        int d = HexDigit(p[i]);
        if (d < 0) return false;
        v = v << 4 | static_cast<unsigned>(d);
    }
    *value = v;
    return true;
}

}  // namespace

bool StringToGuid(const std::wstring& text, GUID* guid) noexcept {
    if (!guid) return false;
    std::wstring_view s(text);
    if (s.size() == 38) {
        if (s.front() != L'{' || s.back() != L'}') return false;
        s = s.substr(1, 36);
    }
    if (s.size() != 36 || s[8] != L'-' || s[13] != L'-' || s[18] != L'-' || s[23] != L'-') return false;
    const wchar_t* p = s.data();
    uint64_t d1, d2, d3, d4a, d4b;
    if (!ReadHex(p, 8, &d1) || !ReadHex(p + 9, 4, &d2) || !ReadHex(p + 14, 4, &d3) || !ReadHex(p + 19, 4, &d4a) ||
        !ReadHex(p + 24, 12, &d4b))
        return false;
    GUID g{};
    g.Data1 = static_cast<unsigned long>(d1);
    g.Data2 = static_cast<unsigned short>(d2);
    g.Data3 = static_cast<unsigned short>(d3);
    g.Data4[0] = static_cast<unsigned char>(d4a >> 8);
    g.Data4[1] = static_cast<unsigned char>(d4a);
    for (int i = 0; i < 6; ++i) g.Data4[2 + i] = static_cast<unsigned char>(d4b >> (8 * (5 - i)));
    *guid = g;
    return true;
}

template <class T>
std::wstring StringConverter<T>::ToString(T value) {
    return std::to_wstring(value);
}

template <class T>
bool StringConverter<T>::FromString(const std::wstring& text, T* out) noexcept {
    if (!out) return false;
    size_t i = 0;
    bool negative = false;
    if constexpr (std::is_signed_v<T>) {
        if (!text.empty() && text[0] == L'-') {
            negative = true;
            i = 1;
        }
    }
    if (i == text.size()) return false;
    // The largest magnitude allowed: for a negative value one more than max.
    const uint64_t limit = static_cast<uint64_t>(std::numeric_limits<T>::max()) + (negative ? 1 : 0);
    uint64_t magnitude = 0;
    for (; i < text.size(); ++i) {
        wchar_t c = text[i];
        if (c < L'0' || c > L'9') return false;
        unsigned d = static_cast<unsigned>(c - L'0');
        if (magnitude > (limit - d) / 10) return false;
        magnitude = magnitude * 10 + d;
    }
    if (negative)
        *out = magnitude == limit ? std::numeric_limits<T>::min() : static_cast<T>(-static_cast<int64_t>(magnitude));
    else
        *out = static_cast<T>(magnitude);
    return true;
}

template struct StringConverter<DWORD>;
template struct StringConverter<unsigned short>;
template struct StringConverter<int64_t>;

DWORD GetRegistryString(HKEY root, const std::wstring& subkey, const std::wstring& name, std::wstring* out) {
    if (!out) return ERROR_INVALID_PARAMETER;
    RegistryKey key(root, subkey, KEY_QUERY_VALUE);
    if (!key) return key.Error();
    std::wstring value;
    if (DWORD rc = key.GetValue(name, std::wstring(), &value)) return rc;
    *out = std::move(value);
    return ERROR_SUCCESS;
}

DWORD GetRegistryMultiString(HKEY root, const std::wstring& subkey, const std::wstring& name,
                             std::vector<std::wstring>* out) {
    if (!out) return ERROR_INVALID_PARAMETER;
    RegistryKey key(root, subkey, KEY_QUERY_VALUE);
    if (!key) return key.Error();
    std::vector<std::wstring> list;
    if (DWORD rc = key.GetValue(name, &list)) return rc;
    *out = std::move(list);
    return ERROR_SUCCESS;
}

namespace {

// Opens the service `name` of the local service control manager for its
// status. A service that does not exist is an answer: 0 with no handle.
DWORD OpenForStatus(const std::wstring& name, unique_sc_handle* service) noexcept {
    unique_sc_handle scm(::OpenSCManagerW(nullptr, nullptr, SC_MANAGER_CONNECT));
    if (!scm) return ::GetLastError();
    service->reset(::OpenServiceW(scm.get(), name.c_str(), SERVICE_QUERY_STATUS));
    if (*service) return ERROR_SUCCESS;
    const DWORD rc = ::GetLastError();
    return rc == ERROR_SERVICE_DOES_NOT_EXIST ? ERROR_SUCCESS : rc;
}

}  // namespace

DWORD WindowsServiceMgr::IfServiceExists(const std::wstring& name, bool* exists) noexcept {
    if (!exists) return ERROR_INVALID_PARAMETER;
    unique_sc_handle service;
    const DWORD rc = OpenForStatus(name, &service);
    *exists = static_cast<bool>(service);
    return rc;
}

DWORD WindowsServiceMgr::GetServiceState(const std::wstring& name, DWORD* state) noexcept {
    *state = 0;
    unique_sc_handle service;
    if (const DWORD rc = OpenForStatus(name, &service); rc || !service) return rc;
    SERVICE_STATUS status{};
    if (!::QueryServiceStatus(service.get(), &status)) return ::GetLastError();
    *state = status.dwCurrentState;
    return ERROR_SUCCESS;
}

}  // namespace kx::hostutil
