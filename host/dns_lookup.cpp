// A host name resolved to its IPv4 addresses by a DNS server: the hosts
// file and the resolver's cache are bypassed, so only a server's answer
// counts.
#include <winsock2.h>
#include <windns.h>

#include "host/host_config.h"
#include "log/call_frame.h"
#include "platform/host_system.h"

namespace kx::host {

DWORD GetIpAddressFromDns(const std::wstring& name, std::vector<std::wstring>* addresses) {
    return RunExport<kGetIpAddressFromDns>(
        [&](auto& frame) -> DWORD {
            if (name.empty()) return frame.InvalidParameter();
            if (!addresses) return ERROR_INVALID_PARAMETER;
            std::vector<DWORD> raw;
            const LONG status =
                platform::CurrentHostSystem().QueryA(name, DNS_QUERY_NO_HOSTS_FILE | DNS_QUERY_WIRE_ONLY, &raw);
            if (status != 0) {
                Log(0, L"%s: fail to query dns for[%s], rc[%d]", kGetIpAddressFromDns.name, name.c_str(),
                    static_cast<int>(status));
                return static_cast<DWORD>(status);
            }
            for (DWORD address : raw) {
                SOCKADDR_IN sa{};
                sa.sin_family = AF_INET;
                sa.sin_port = 0;
                sa.sin_addr.s_addr = address;
                wchar_t text[128];
                DWORD chars = 128;
                if (::WSAAddressToStringW(reinterpret_cast<SOCKADDR*>(&sa), sizeof(sa), nullptr, text, &chars) != 0) {
                    const int error = ::WSAGetLastError();
                    Log(0, L"%s: convert %u to string failed, rc[%d]", kGetIpAddressFromDns.name,
                        static_cast<unsigned>(address), error);
                    return static_cast<DWORD>(error);
                }
                addresses->push_back(text);
            }
            return ERROR_SUCCESS;
        },
        name.c_str());
}

}  // namespace kx::host
