// The host's network adapters (read and configured through WMI and the
// TCP/IP interface keys), name resolution and host facts. Each function is
// one export's whole transaction: its lines, checks, work and result.
#pragma once

#include <windows.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace kx::host {

using AdapterList = std::map<std::wstring, std::wstring>;  // DeviceID -> Name

AdapterList GetHostAdapterList();

// Setters: the adapter is given by its Name.
DWORD EnableHostDHCP(const std::wstring& adapter);
DWORD EnableHostStatic(const std::wstring& adapter, const std::vector<std::wstring>& addresses,
                       const std::vector<std::wstring>& masks);
DWORD EnableHostDNS(const std::wstring& adapter);
DWORD SetHostDNSDomain(const std::wstring& adapter, const std::wstring& domain);
DWORD SetHostDNSServerSearchOrder(const std::wstring& adapter, const std::vector<std::wstring>& servers);
DWORD SetHostDNSSuffixSearchOrder(const std::wstring& adapter, const std::vector<std::wstring>& suffixes);
DWORD SetHostDynamicDNSRegistration(const std::wstring& adapter, bool full, bool domain);
DWORD SetHostGateways(const std::wstring& adapter, const std::vector<std::wstring>& gateways,
                      const std::vector<uint16_t>& metrics);
DWORD SetHostWINSServer(const std::wstring& adapter, const std::wstring& primary, const std::wstring& secondary);

// Getters: the adapter is given by its DeviceID.
DWORD GetHostIsDHCPEnabed(const std::wstring& deviceId, bool* dhcp);
DWORD GetHostIPSetting(const std::wstring& deviceId, std::vector<std::wstring>* addresses,
                       std::vector<std::wstring>* subnets);
DWORD GetHostGatewaySetting(const std::wstring& deviceId, std::vector<std::wstring>* gateways);
DWORD GetHostDNSServerSetting(const std::wstring& deviceId, bool* automatic, std::vector<std::wstring>* servers);
DWORD GetHostMac(const std::wstring& deviceId, std::wstring* mac);

DWORD GetIpAddressFromDns(const std::wstring& name, std::vector<std::wstring>* addresses);

// Facts.
DWORD GetHostProcessorCount(DWORD* count);
DWORD GetHostPhysicalMemory(uint64_t* bytes);
DWORD GetHostCPUArchitecture();
DWORD IsHyperVRole();
BOOL HA_IsHostOSGreaterEqual(DWORD major, DWORD minor, WORD servicePackMajor, WORD servicePackMinor);
DWORD RebootSystem(bool force);

// The TCP/IP key of an interface under HKEY_LOCAL_MACHINE.
std::wstring TcpipInterfaceKey(const std::wstring& settingId);

// A setter's job wait: poll interval and limit.
inline constexpr DWORD kJobPollMs = 500;
inline constexpr DWORD kJobLimitMs = 600000;

}  // namespace kx::host
