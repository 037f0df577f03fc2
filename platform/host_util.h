// Small host helpers shared by the registry and guest code: process token
// privileges, GUID text, decimal conversions, registry string reads and a
// service presence check. Every function answers with a Win32 code or a bool;
// nothing throws.
#pragma once

#include <windows.h>

#include <cstdint>
#include <string>
#include <vector>

#include "common/unique_resource.h"

namespace kx::hostutil {

// Privileges enabled through this object in the process token. Destroying it
// puts back the state each enabled privilege had before, in reverse order.
class TokenPrivilege {
public:
    TokenPrivilege() noexcept;
    ~TokenPrivilege();
    TokenPrivilege(const TokenPrivilege&) = delete;
    TokenPrivilege& operator=(const TokenPrivilege&) = delete;

    // 0 when the privilege is now enabled; otherwise the system's code:
    // ERROR_NO_SUCH_PRIVILEGE for an unknown name, ERROR_NOT_ALL_ASSIGNED
    // when the token does not hold it, or the code of the token open.
    DWORD EnablePrivilege(const wchar_t* name) noexcept;

private:
    struct Saved {
        LUID luid;
        DWORD attributes;
    };
    unique_handle token_;
    DWORD openError_ = ERROR_SUCCESS;
    std::vector<Saved> saved_;
};

// A new random GUID; false when the system could not make one.
bool CreateGuid(GUID* guid) noexcept;
// "{XXXXXXXX-XXXX-XXXX-XXXX-XXXXXXXXXXXX}" in upper case.
std::wstring GuidToString(const GUID& guid);
// Reads the 36-character form, with or without surrounding braces (both or
// neither), hex digits of either case. Anything else is refused.
bool StringToGuid(const std::wstring& text, GUID* guid) noexcept;

// Decimal text of DWORD, unsigned short and int64_t. FromString refuses an
// empty string, any character that is not a digit (a leading '-' is allowed
// for signed types only, '+' never), and values out of range; *out is left
// untouched on refusal.
template <class T>
struct StringConverter {
    static std::wstring ToString(T value);
    static bool FromString(const std::wstring& text, T* out) noexcept;
};
extern template struct StringConverter<DWORD>;
extern template struct StringConverter<unsigned short>;
extern template struct StringConverter<int64_t>;

// A REG_SZ or REG_EXPAND_SZ value as stored (environment strings are not
// expanded). `root` may be a loaded hive's key of either backend (see
// platform/registry.h). Returns the registry's code: ERROR_FILE_NOT_FOUND for a missing
// key or value, ERROR_UNSUPPORTED_TYPE for a value of another type.
DWORD GetRegistryString(HKEY root, const std::wstring& subkey, const std::wstring& name, std::wstring* out);
// A REG_MULTI_SZ value split into its strings; an empty list reads as none.
DWORD GetRegistryMultiString(HKEY root, const std::wstring& subkey, const std::wstring& name,
                             std::vector<std::wstring>* out);

namespace WindowsServiceMgr {
// *exists tells whether the local service control manager knows the
// service. A service that does not exist is an answer (0), not an error.
DWORD IfServiceExists(const std::wstring& name, bool* exists) noexcept;
// The service's SERVICE_* state, or 0 when the service does not exist (an
// answer, result 0). The result is 0 or the system's code.
DWORD GetServiceState(const std::wstring& name, DWORD* state) noexcept;
}  // namespace WindowsServiceMgr

}  // namespace kx::hostutil
