#include "host/host_wmi.h"

#include "log/debug_log.h"
#include "platform/host_util.h"

namespace kx::host {

HRESULT OpenHostSession(wmi::WmiService* service) {
    const HRESULT hr = wmi::WmiLocator().CreateWbemService(kCimv2, service);
    if (FAILED(hr)) {
        Log(0, L"fail to connect to WMI namespace %s, hr=0x%08X", kCimv2, static_cast<unsigned>(hr));
        return hr;
    }
    service->SetNameSpace(kCimv2);
    return S_OK;
}

wmi::WmiObject FirstInstance(const wmi::WmiService& service, const std::wstring& className, HRESULT* hr) {
    wmi::WmiEnumerator e(service, className);
    *hr = e.Start();
    if (FAILED(*hr)) {
        Log(0, L"fail to query %s, hr=0x%08X", className.c_str(), static_cast<unsigned>(*hr));
        return {};
    }
    return e.Next();
}

wmi::WmiObject FindAdapterByName(const wmi::WmiService& service, const std::wstring& name) {
    wmi::WmiEnumerator e(service, L"Win32_NetworkAdapter");
    e.SetLikeFilter(L"Name", name);
    if (HRESULT hr = e.Start(); FAILED(hr)) {
        Log(0, L"fail to query adapter %s, hr=0x%08X", name.c_str(), static_cast<unsigned>(hr));
        return {};
    }
    return e.Next();
}

wmi::WmiObject FindConfiguration(const wmi::WmiService& service, const std::wstring& deviceId) {
    wmi::WmiAssociator a(service, L"Win32_NetworkAdapter.DeviceID=" + wmi::WqlQuote(deviceId));
    a.SetResultClass(L"Win32_NetworkAdapterConfiguration");
    if (HRESULT hr = a.Start(); FAILED(hr)) {
        Log(0, L"fail to query configuration of adapter %s, hr=0x%08X", deviceId.c_str(), static_cast<unsigned>(hr));
        return {};
    }
    if (wmi::WmiObject config = a.Next()) return config;
    // Some providers (Wine's among them) answer this association with
    // nothing. It pairs an adapter with the configuration whose Index is the
    // adapter's DeviceID, so that is asked directly.
    DWORD index = 0;
    if (!hostutil::StringConverter<DWORD>::FromString(deviceId, &index) || index > 0x7FFFFFFF) return {};
    wmi::WmiEnumerator e(service, L"Win32_NetworkAdapterConfiguration");
    e.SetEqualFilter(L"Index", static_cast<long>(index));
    if (FAILED(e.Start())) return {};
    return e.Next();
}

wmi::WmiObject ConfigurationOf(const std::wstring& deviceId) {
    wmi::WmiService service;
    if (FAILED(OpenHostSession(&service))) return {};
    return FindConfiguration(service, deviceId);
}

}  // namespace kx::host
