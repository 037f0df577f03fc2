// The host's network adapters: the list of physical adapters, their IP
// configuration changed through Win32_NetworkAdapterConfiguration's
// methods, and read back from WMI or from the TCP/IP interface keys (which
// tell static values apart from those DHCP supplied).
#include <functional>

#include "host/host_config.h"
#include "host/host_wmi.h"
#include "log/call_frame.h"
#include "platform/host_util.h"

namespace kx::host {

namespace {

using wmi::WmiInputParam;
using wmi::WmiObject;
using wmi::WmiService;

// Written as the method object's class; WMI class names are case-insensitive.
constexpr const wchar_t* kConfigClass = L"Win32_NetWorkAdapterConfiguration";

std::vector<WmiObject> CollectAdapters(const WmiService& service, bool pci) {
    wmi::WmiEnumerator e(service, L"Win32_NetworkAdapter");
    if (pci)
        e.SetLikeFilter(L"PNPDeviceID", L"PCI\\\\");  // WQL's escape of one backslash
    else
        e.SetEqualFilter(L"AdapterTypeId", L"0");  // Ethernet 802.3
    std::vector<WmiObject> found;
    if (HRESULT hr = e.Start(); FAILED(hr)) {
        Log(0, L"fail to enumerate network adapters, hr=0x%08X", static_cast<unsigned>(hr));
        return found;
    }
    for (WmiObject o = e.Next(); o; o = e.Next()) found.push_back(std::move(o));
    return found;
}

// Puts a method's arguments; the first failing put's HRESULT.
using Fill = std::function<HRESULT(WmiInputParam&)>;

// The configuration method `method` on the adapter named `adapter`: 1168
// when there is no such adapter, the method's (or its job's) return code
// otherwise, or the HRESULT of a WMI call that failed before.
DWORD InvokeOnAdapter(const std::wstring& adapter, const wchar_t* method, const Fill& fill) {
    WmiService service;
    if (HRESULT hr = OpenHostSession(&service); FAILED(hr)) return static_cast<DWORD>(hr);
    const WmiObject found = FindAdapterByName(service, adapter);
    if (!found) return ERROR_NOT_FOUND;
    const WmiObject config = FindConfiguration(service, found.GetProperty(L"DeviceID"));
    if (!config) return ERROR_NOT_FOUND;
    wmi::WmiMethod call(service, kConfigClass, method);
    WmiInputParam in;
    HRESULT hr = S_OK;
    if (fill) {
        in = call.GetInputParam(&hr);
        if (!in) {
            Log(0, L"fail to get input parameters of %s, hr=0x%08X", method, static_cast<unsigned>(hr));
            return static_cast<DWORD>(FAILED(hr) ? hr : static_cast<HRESULT>(WBEM_E_INVALID_METHOD_PARAMETERS));
        }
        if (hr = fill(in); FAILED(hr)) {
            Log(0, L"fail to put input parameters of %s, hr=0x%08X", method, static_cast<unsigned>(hr));
            return static_cast<DWORD>(hr);
        }
    }
    wmi::WmiOutputParam out = call.Invoke(fill ? &in : nullptr, config, &hr);
    if (FAILED(hr)) Log(0, L"fail to call %s, hr=0x%08X", method, static_cast<unsigned>(hr));
    if (out.IsRunning()) out.WaitJobDone(kJobPollMs, kJobLimitMs);
    return out.GetReturnCode();
}

// Puts each (name, value) in order; stops at the first failure.
template <class... Pairs>
HRESULT PutAll(WmiInputParam& in, const Pairs&... pairs) {
    HRESULT hr = S_OK;
    ((SUCCEEDED(hr) ? (hr = in.PutValue(pairs.first, pairs.second), 0) : 0), ...);
    return hr;
}

template <class T>
std::pair<const wchar_t*, const T&> Arg(const wchar_t* name, const T& value) {
    return {name, value};
}

}  // namespace

std::wstring TcpipInterfaceKey(const std::wstring& settingId) {
    return L"SYSTEM\\CurrentControlSet\\Services\\Tcpip\\Parameters\\Interfaces\\" + settingId;
}

AdapterList GetHostAdapterList() {
    AdapterList list;
    RunExport<kGetHostAdapterList>([&](auto& frame) -> DWORD {
        WmiService service;
        if (FAILED(OpenHostSession(&service))) return Finished(0, L"finish GetHostAdapterList, get %d NetworkAdapter", 0);
        std::vector<WmiObject> adapters = CollectAdapters(service, true);
        if (adapters.empty()) adapters = CollectAdapters(service, false);
        for (const WmiObject& a : adapters) {
            const std::wstring id = a.GetProperty(L"DeviceID");
            const std::wstring name = a.GetProperty(L"Name");
            list[id] = name;
            Log(4, L"Host network adapter: %s, %s", name.c_str(), id.c_str());
        }
        return Finished(0, L"finish GetHostAdapterList, get %d NetworkAdapter", static_cast<int>(adapters.size()));
    });
    return list;
}

// ---- setters ------------------------------------------------------------------------

DWORD EnableHostDHCP(const std::wstring& adapter) {
    return RunExport<kEnableHostDHCP>([&](auto&) -> DWORD { return InvokeOnAdapter(adapter, L"EnableDHCP", {}); },
                                      adapter.c_str());
}

DWORD EnableHostStatic(const std::wstring& adapter, const std::vector<std::wstring>& addresses,
                       const std::vector<std::wstring>& masks) {
    return RunExport<kEnableHostStatic>(
        [&](auto& frame) -> DWORD {
            if (addresses.empty() || masks.empty()) return frame.InvalidParameter();
            return InvokeOnAdapter(adapter, L"EnableStatic", [&](WmiInputParam& in) {
                return PutAll(in, Arg(L"IPAddress", addresses), Arg(L"SubNetMask", masks));
            });
        },
        adapter.c_str());
}

DWORD EnableHostDNS(const std::wstring& adapter) {
    // Called without input parameters: the host keeps what it has.
    return RunExport<kEnableHostDNS>([&](auto&) -> DWORD { return InvokeOnAdapter(adapter, L"EnableDNS", {}); },
                                     adapter.c_str());
}

DWORD SetHostDNSDomain(const std::wstring& adapter, const std::wstring& domain) {
    return RunExport<kSetHostDNSDomain>(
        [&](auto& frame) -> DWORD {
            if (domain.empty()) return frame.InvalidParameter();
            return InvokeOnAdapter(adapter, L"SetDNSDomain",
                                   [&](WmiInputParam& in) { return PutAll(in, Arg(L"DNSDomain", domain)); });
        },
        adapter.c_str(), domain.c_str());
}

DWORD SetHostDNSServerSearchOrder(const std::wstring& adapter, const std::vector<std::wstring>& servers) {
    // An empty list is handed on as it is: WMI clears the servers.
    return RunExport<kSetHostDNSServerSearchOrder>(
        [&](auto&) -> DWORD {
            return InvokeOnAdapter(adapter, L"SetDNSServerSearchOrder", [&](WmiInputParam& in) {
                return PutAll(in, Arg(L"DNSServerSearchOrder", servers));
            });
        },
        adapter.c_str());
}

DWORD SetHostDNSSuffixSearchOrder(const std::wstring& adapter, const std::vector<std::wstring>& suffixes) {
    // An empty list changes nothing and succeeds.
    return RunExport<kSetHostDNSSuffixSearchOrder>(
        [&](auto&) -> DWORD {
            if (suffixes.empty()) return ERROR_SUCCESS;
            return InvokeOnAdapter(adapter, L"SetDNSSuffixSearchOrder", [&](WmiInputParam& in) {
                return PutAll(in, Arg(L"DNSDomainSuffixSearchOrder", suffixes));
            });
        },
        adapter.c_str());
}

DWORD SetHostDynamicDNSRegistration(const std::wstring& adapter, bool full, bool domain) {
    return RunExport<kSetHostDynamicDNSRegistration>(
        [&](auto&) -> DWORD {
            const long fullValue = full ? 1 : 0, domainValue = domain ? 1 : 0;
            return InvokeOnAdapter(adapter, L"SetDynamicDNSRegistration", [&](WmiInputParam& in) {
                return PutAll(in, Arg(L"FullDNSRegistrationEnabled", fullValue),
                              Arg(L"DomainDNSRegistrationEnabled", domainValue));
            });
        },
        adapter.c_str(), full ? 1 : 0, domain ? 1 : 0);
}

DWORD SetHostGateways(const std::wstring& adapter, const std::vector<std::wstring>& gateways,
                      const std::vector<uint16_t>& metrics) {
    return RunExport<kSetHostGateways>(
        [&](auto& frame) -> DWORD {
            if (gateways.empty()) return frame.InvalidParameter();
            return InvokeOnAdapter(adapter, L"SetGateways", [&](WmiInputParam& in) {
                // Without metrics the parameter is left out altogether.
                if (metrics.empty()) return PutAll(in, Arg(L"DefaultIPGateway", gateways));
                return PutAll(in, Arg(L"DefaultIPGateway", gateways), Arg(L"GatewayCostMetric", metrics));
            });
        },
        adapter.c_str());
}

DWORD SetHostWINSServer(const std::wstring& adapter, const std::wstring& primary, const std::wstring& secondary) {
    return RunExport<kSetHostWINSServer>(
        [&](auto& frame) -> DWORD {
            if (primary.empty()) return frame.InvalidParameter();
            return InvokeOnAdapter(adapter, L"SetWINSServer", [&](WmiInputParam& in) {
                return PutAll(in, Arg(L"WINSPrimaryServer", primary), Arg(L"WINSSecondaryServer", secondary));
            });
        },
        adapter.c_str(), primary.c_str(), secondary.c_str());
}

// ---- getters ------------------------------------------------------------------------

DWORD GetHostIsDHCPEnabed(const std::wstring& deviceId, bool* dhcp) {
    return RunExport<kGetHostIsDHCPEnabed>([&](auto& frame) -> DWORD {
        if (!dhcp) return frame.InvalidParameter();
        *dhcp = ConfigurationOf(deviceId).GetBoolProperty(L"DHCPEnabled", false);
        return Finished(0, L"finish GetHostIsDHCPEnabed, isDHCP=%d", *dhcp ? 1 : 0);
    });
}

DWORD GetHostIPSetting(const std::wstring& deviceId, std::vector<std::wstring>* addresses,
                       std::vector<std::wstring>* subnets) {
    return RunExport<kGetHostIPSetting>([&](auto& frame) -> DWORD {
        if (!addresses || !subnets) return frame.InvalidParameter();
        const WmiObject config = ConfigurationOf(deviceId);
        if (!config) {
            Log(0, L"fail to GetHostIP, id=%s", deviceId.c_str());
            return ERROR_INVALID_DATA;
        }
        *addresses = config.GetMultiValueProperty(L"IPAddress");
        *subnets = config.GetMultiValueProperty(L"IPSubnet");
        return Finished(0, L"finish GetHostIP, ip count=%d", static_cast<int>(addresses->size()));
    });
}

DWORD GetHostGatewaySetting(const std::wstring& deviceId, std::vector<std::wstring>* gateways) {
    return RunExport<kGetHostGatewaySetting>([&](auto& frame) -> DWORD {
        if (!gateways) return frame.InvalidParameter();
        const std::wstring key = TcpipInterfaceKey(ConfigurationOf(deviceId).GetProperty(L"SettingID"));
        // Only statically configured gateways are in the key: a DHCP
        // adapter reports none.
        DWORD rc = hostutil::GetRegistryMultiString(HKEY_LOCAL_MACHINE, key, L"DefaultGateway", gateways);
        if (rc == ERROR_SUCCESS) {
            // The metrics are read as well, though the caller gets the
            // gateways only; an entry that is not a number counts as 0.
            std::vector<std::wstring> texts;
            rc = hostutil::GetRegistryMultiString(HKEY_LOCAL_MACHINE, key, L"DefaultGatewayMetric", &texts);
            std::vector<uint16_t> metrics;
            for (const auto& t : texts) {
                unsigned short m = 0;
                hostutil::StringConverter<unsigned short>::FromString(t, &m);
                metrics.push_back(m);
            }
        }
        if (rc != ERROR_SUCCESS) {
            Log(0, L"fail to GetHostGateway, id=%s", deviceId.c_str());
            return rc;
        }
        return Finished(0, L"finish GetHostGateway, gateway count=%d", static_cast<int>(gateways->size()));
    });
}

DWORD GetHostDNSServerSetting(const std::wstring& deviceId, bool* automatic, std::vector<std::wstring>* servers) {
    return RunExport<kGetHostDNSServerSetting>([&](auto& frame) -> DWORD {
        if (!automatic || !servers) return frame.InvalidParameter();
        *automatic = false;
        const WmiObject config = ConfigurationOf(deviceId);
        const std::wstring key = TcpipInterfaceKey(config.GetProperty(L"SettingID"));
        std::wstring nameServer;
        DWORD rc = hostutil::GetRegistryString(HKEY_LOCAL_MACHINE, key, L"NameServer", &nameServer);
        if (rc != ERROR_SUCCESS) {
            Log(0, L"GetDNSServers fail to open reg key %s, ec=%u", key.c_str(), rc);
            rc = 1;
        } else if (nameServer.empty()) {
            // Automatic: the servers DHCP supplied, as WMI reports them.
            *automatic = true;
            if (!config) {
                rc = ERROR_INVALID_DATA;
            } else {
                config.GetProperty(L"DNSHostName");
                config.GetProperty(L"DNSDomain");
                *servers = config.GetMultiValueProperty(L"DNSServerSearchOrder");
                config.GetMultiValueProperty(L"DNSDomainSuffixSearchOrder");
            }
        } else {
            // Static: the value lists them, comma-separated.
            for (size_t from = 0;;) {
                const size_t comma = nameServer.find(L',', from);
                servers->push_back(nameServer.substr(from, comma - from));
                if (comma == std::wstring::npos) break;
                from = comma + 1;
            }
        }
        if (rc != ERROR_SUCCESS) {
            Log(0, L"fail to GetHostDNSServer, id=%s", deviceId.c_str());
            return rc;
        }
        return Finished(0, L"finish GetHostDNSServer, isAutoDNS=%d, count=%d", *automatic ? 1 : 0,
                        static_cast<int>(servers->size()));
    });
}

DWORD GetHostMac(const std::wstring& deviceId, std::wstring* mac) {
    return RunExport<kGetHostMac>(
        [&](auto& frame) -> DWORD {
            if (!mac) return frame.InvalidParameter();
            *mac = ConfigurationOf(deviceId).GetProperty(L"MACAddress");
            return Finished(0, L"finish GetHostMac, mac=%s", mac->c_str());
        },
        deviceId.c_str());
}

}  // namespace kx::host
