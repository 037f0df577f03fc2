// The host's WMI session and the lookups every adapter call starts with.
// One session per export call: opened at its start, released at its end.
#pragma once

#include <string>

#include "log/debug_log.h"
#include "platform/wmi/wmi_client.h"

namespace kx::host {

inline constexpr const wchar_t* kCimv2 = L"root\\cimv2";

// A service connected to root\cimv2 (its namespace set to the same), or the
// connection's HRESULT (logged).
HRESULT OpenHostSession(wmi::WmiService* service);

// The first instance of `className` (empty when there is none). *hr gets
// the query's HRESULT.
wmi::WmiObject FirstInstance(const wmi::WmiService& service, const std::wstring& className, HRESULT* hr);

// The first Win32_NetworkAdapter whose Name is like `name` (empty: none).
wmi::WmiObject FindAdapterByName(const wmi::WmiService& service, const std::wstring& name);

// The Win32_NetworkAdapterConfiguration associated with the adapter whose
// DeviceID is `deviceId` (empty: none).
wmi::WmiObject FindConfiguration(const wmi::WmiService& service, const std::wstring& deviceId);

// A reader's finish line (level 2), then its result.
template <class... A>
DWORD Finished(DWORD rc, log::fmt::Format<A...> format, A... args) noexcept {
    Log(2, format, args...);
    return rc;
}

// FindConfiguration in a session of its own (empty when the session cannot
// be opened). The getters' lookup.
wmi::WmiObject ConfigurationOf(const std::wstring& deviceId);

}  // namespace kx::host
