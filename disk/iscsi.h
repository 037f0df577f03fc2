// iSCSI for attaching snapshot disks to the proxy: name and portal checks,
// discovery, attach with retries, logout (the design stands in
// include/KestrixHA/iscsi.h).
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "KestrixHA/iscsi.h"
#include "platform/iscsi.h"

namespace kx::disk {

// The value under the engine key that bounds discovery and login tries.
inline constexpr const wchar_t* kIscsiRetryValue = L"IscsiTargetRetryCount";
inline constexpr DWORD kIscsiDefaultTries = 3;
inline constexpr DWORD kIscsiMaxTries = 10;
inline constexpr DWORD kIscsiRetryPauseMs = 5000;

// The naming authority a Nutanix target's name carries.
inline constexpr const wchar_t* kNutanixAuthority = L"com.nutanix";

// Whether `name` is a valid iSCSI name; for an "iqn." name, `authority`
// (optional) gets its naming authority in lower case.
bool IsValidIscsiName(const std::wstring& name, std::wstring* authority = nullptr);
bool IsNutanixAuthority(const std::wstring& authority);

// Parses a portal address ("host", "host:port", "IPv6", "[IPv6]:port").
bool ParsePortal(const std::wstring& text, platform::IscsiPortal* portal);

// "0123456789abcdef-0123456789abcdef" and back.
std::wstring FormatSessionId(const platform::IscsiSessionId& id);
bool ParseSessionId(const std::wstring& text, platform::IscsiSessionId* id);

// The number of tries from the engine's registry value (see the header).
DWORD IscsiTries();

DWORD GetIqnNumber(wchar_t* buffer, DWORD* chars);
DWORD DiscoverTarget(const wchar_t* portal, std::vector<IscsiTargetInfo>* targets);
DWORD AttachIscsiTarget(const wchar_t* target, const wchar_t* portal, IscsiAttachInfo* info);
DWORD LogoutIscsiSession(const wchar_t* what, DWORD* loggedOut);

}  // namespace kx::disk
