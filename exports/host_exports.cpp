// Exported host configuration: network adapters, name resolution, facts.
#include "KestrixHA/host.h"
#include "host/host_config.h"

namespace h = kx::host;

KXHA_API std::map<std::wstring, std::wstring> GetHostAdapterList() { return h::GetHostAdapterList(); }
KXHA_API DWORD EnableHostDHCP(const std::wstring& adapter) { return h::EnableHostDHCP(adapter); }
KXHA_API DWORD EnableHostStatic(const std::wstring& adapter, const std::vector<std::wstring>& addresses,
                                const std::vector<std::wstring>& masks) {
    return h::EnableHostStatic(adapter, addresses, masks);
}
KXHA_API DWORD EnableHostDNS(const std::wstring& adapter) { return h::EnableHostDNS(adapter); }
KXHA_API DWORD SetHostDNSDomain(const std::wstring& adapter, const std::wstring& domain) {
    return h::SetHostDNSDomain(adapter, domain);
}
KXHA_API DWORD SetHostDNSServerSearchOrder(const std::wstring& adapter, const std::vector<std::wstring>& servers) {
    return h::SetHostDNSServerSearchOrder(adapter, servers);
}
KXHA_API DWORD SetHostDNSSuffixSearchOrder(const std::wstring& adapter, const std::vector<std::wstring>& suffixes) {
    return h::SetHostDNSSuffixSearchOrder(adapter, suffixes);
}
KXHA_API DWORD SetHostDynamicDNSRegistration(const std::wstring& adapter, bool fullRegistration,
                                             bool domainRegistration) {
    return h::SetHostDynamicDNSRegistration(adapter, fullRegistration, domainRegistration);
}
KXHA_API DWORD SetHostGateways(const std::wstring& adapter, const std::vector<std::wstring>& gateways,
                               const std::vector<unsigned short>& metrics) {
    return h::SetHostGateways(adapter, gateways, metrics);
}
KXHA_API DWORD SetHostWINSServer(const std::wstring& adapter, const std::wstring& primary,
                                 const std::wstring& secondary) {
    return h::SetHostWINSServer(adapter, primary, secondary);
}
KXHA_API DWORD GetHostIsDHCPEnabed(const std::wstring& deviceId, bool* dhcp) {
    return h::GetHostIsDHCPEnabed(deviceId, dhcp);
}
KXHA_API DWORD GetHostIPSetting(const std::wstring& deviceId, std::vector<std::wstring>& addresses,
                                std::vector<std::wstring>& subnets) {
    return h::GetHostIPSetting(deviceId, &addresses, &subnets);
}
KXHA_API DWORD GetHostGatewaySetting(const std::wstring& deviceId, std::vector<std::wstring>& gateways) {
    return h::GetHostGatewaySetting(deviceId, &gateways);
}
KXHA_API DWORD GetHostDNSServerSetting(const std::wstring& deviceId, bool* automatic,
                                       std::vector<std::wstring>& servers) {
    return h::GetHostDNSServerSetting(deviceId, automatic, &servers);
}
KXHA_API DWORD GetHostMac(const std::wstring& deviceId, std::wstring& mac) { return h::GetHostMac(deviceId, &mac); }
KXHA_API DWORD GetIpAddressFromDns(const std::wstring& name, std::vector<std::wstring>& addresses) {
    return h::GetIpAddressFromDns(name, &addresses);
}
KXHA_API DWORD GetHostProcessorCount(DWORD* count) { return h::GetHostProcessorCount(count); }
KXHA_API DWORD GetHostPhysicalMemory(unsigned long long* bytes) {
    uint64_t size = 0;
    const DWORD rc = h::GetHostPhysicalMemory(bytes ? &size : nullptr);
    if (bytes) *bytes = size;
    return rc;
}
KXHA_API DWORD GetHostCPUArchitecture() { return h::GetHostCPUArchitecture(); }
KXHA_API DWORD IsHyperVRole() { return h::IsHyperVRole(); }
KXHA_API BOOL HA_IsHostOSGreaterEqual(DWORD major, DWORD minor, WORD spMajor, WORD spMinor) {
    return h::HA_IsHostOSGreaterEqual(major, minor, spMajor, spMinor);
}
KXHA_API DWORD RebootSystem(bool force) { return h::RebootSystem(force); }
