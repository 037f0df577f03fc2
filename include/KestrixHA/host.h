// The host's network adapters, name resolution and host facts.
//
// Adapters are configured through WMI (root\cimv2, the methods of
// Win32_NetworkAdapterConfiguration) and read back from WMI or from the
// TCP/IP interface keys of the registry
// (HKLM\SYSTEM\CurrentControlSet\Services\Tcpip\Parameters\Interfaces\<SettingID>),
// which hold only statically configured gateways and DNS servers.
//
// The caller must have initialised COM on the calling thread (and, for a
// process that is not a service, COM security) before calling any of these:
// the library does neither. Every call opens its own WMI session and
// releases it before it returns; nothing is kept between calls.
//
// Adapter identity: GetHostAdapterList maps each physical adapter's
// DeviceID to its Name. The setters take the Name (matched as the start of
// the adapter's name; the first adapter that matches is changed), the
// getters the DeviceID.
//
// Setters return WMI's return code of the method unchanged (0 done, 1 done
// but a restart is needed, 64-100 WMI's own failures, ...), or:
//   87   an empty required list or text (checked before any WMI call),
//   1168 no adapter whose name matches,
//   1460 a WMI job that did not end within ten minutes,
//   an HRESULT when WMI itself could not be reached.
// A setter may block for up to ten minutes while WMI works.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "KestrixHA/api.h"

// DeviceID -> Name of each physical adapter: those on a PCI bus, or, when
// there is none, every Ethernet adapter. Never fails (empty when WMI
// cannot be reached).
KXHA_API std::map<std::wstring, std::wstring> GetHostAdapterList();

KXHA_API DWORD EnableHostDHCP(const std::wstring& adapter);
// 87 when either list is empty.
KXHA_API DWORD EnableHostStatic(const std::wstring& adapter, const std::vector<std::wstring>& addresses,
                                const std::vector<std::wstring>& masks);
// Enables DNS with what the adapter has (no arguments passed to WMI).
KXHA_API DWORD EnableHostDNS(const std::wstring& adapter);
// 87 when `domain` is empty.
KXHA_API DWORD SetHostDNSDomain(const std::wstring& adapter, const std::wstring& domain);
// An empty list is passed on: WMI clears the adapter's DNS servers.
KXHA_API DWORD SetHostDNSServerSearchOrder(const std::wstring& adapter, const std::vector<std::wstring>& servers);
// An empty list returns 0 at once and changes nothing.
KXHA_API DWORD SetHostDNSSuffixSearchOrder(const std::wstring& adapter, const std::vector<std::wstring>& suffixes);
KXHA_API DWORD SetHostDynamicDNSRegistration(const std::wstring& adapter, bool fullRegistration,
                                             bool domainRegistration);
// 87 when `gateways` is empty; without metrics WMI chooses them.
KXHA_API DWORD SetHostGateways(const std::wstring& adapter, const std::vector<std::wstring>& gateways,
                               const std::vector<unsigned short>& metrics);
// 87 when `primary` is empty.
KXHA_API DWORD SetHostWINSServer(const std::wstring& adapter, const std::wstring& primary,
                                 const std::wstring& secondary);

// Always 0; *dhcp false when the adapter has no configuration.
KXHA_API DWORD GetHostIsDHCPEnabed(const std::wstring& deviceId, bool* dhcp);
// 0, or 13 when the adapter has no configuration. Both lists are replaced
// (IPv4 and IPv6 addresses; masks or prefix lengths).
KXHA_API DWORD GetHostIPSetting(const std::wstring& deviceId, std::vector<std::wstring>& addresses,
                                std::vector<std::wstring>& subnets);
// Static gateways from the registry ("DefaultGateway"): 0 with an empty
// list for a DHCP adapter, or the registry's code (2 for a missing value).
KXHA_API DWORD GetHostGatewaySetting(const std::wstring& deviceId, std::vector<std::wstring>& gateways);
// "NameServer" of the interface key: when it lists servers (comma-
// separated) they are appended and *automatic is false; when it is empty,
// *automatic is true and the list is replaced by the DHCP-supplied servers
// from WMI (13 when the adapter has no configuration). 1 when the value
// cannot be read.
KXHA_API DWORD GetHostDNSServerSetting(const std::wstring& deviceId, bool* automatic,
                                       std::vector<std::wstring>& servers);
// Always 0; empty text when the adapter has no configuration.
KXHA_API DWORD GetHostMac(const std::wstring& deviceId, std::wstring& mac);

// The IPv4 addresses a DNS server gives for `name` (A records), appended in
// the answer's order. The hosts file and the resolver cache are bypassed.
// 0 (also for an answer without records), 87 for an empty name, the DNS
// status (e.g. 9003 for a name that does not exist), or the socket error
// of an address that could not be written as text.
KXHA_API DWORD GetIpAddressFromDns(const std::wstring& name, std::vector<std::wstring>& addresses);

// Logical processors (Win32_ComputerSystem.NumberOfLogicalProcessors): 0,
// or 1168 when WMI has no computer system, or WMI's HRESULT.
KXHA_API DWORD GetHostProcessorCount(DWORD* count);
// Installed memory in bytes (Win32_ComputerSystem.TotalPhysicalMemory);
// always 0, with a size of 0 when WMI has nothing.
KXHA_API DWORD GetHostPhysicalMemory(unsigned long long* bytes);
// The processor architecture code of GetSystemInfo (0 x86, 9 x64, 12 Arm64):
// a value, not a status.
KXHA_API DWORD GetHostCPUArchitecture();
// 1 when the Hyper-V role is installed, else 0.
KXHA_API DWORD IsHyperVRole();
// Non-zero when the running Windows is at least major.minor with service
// pack spMajor.spMinor.
KXHA_API BOOL HA_IsHostOSGreaterEqual(DWORD major, DWORD minor, WORD spMajor, WORD spMinor);
// Restarts the host (applications that hang are closed when `force`).
// 0, or the error of enabling the shutdown privilege; a restart the system
// refuses is logged, not reported.
KXHA_API DWORD RebootSystem(bool force);
