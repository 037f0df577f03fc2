// kxha host: the host's network adapters, facts and name resolution, and
// changes to an adapter's IP configuration (only with --yes).
#include <winsock2.h>
#include <windows.h>
#include <objbase.h>

#include <algorithm>
#include <cwchar>
#include <functional>

#include "KestrixHA.h"
#include "commands.h"
#include "output.h"

namespace kxha {

namespace {

// COM (with its process-wide security) and Winsock, as a process that uses
// the host calls must set them up: the library does neither.
class HostProcess {
public:
    HostProcess() {
        com_ = SUCCEEDED(::CoInitializeEx(nullptr, COINIT_MULTITHREADED));
        ::CoInitializeSecurity(nullptr, -1, nullptr, nullptr, RPC_C_AUTHN_LEVEL_DEFAULT, RPC_C_IMP_LEVEL_IMPERSONATE,
                               nullptr, EOAC_NONE, nullptr);
        WSADATA data;
        wsa_ = ::WSAStartup(MAKEWORD(2, 2), &data) == 0;
    }
    ~HostProcess() {
        if (wsa_) ::WSACleanup();
        if (com_) ::CoUninitialize();
    }

private:
    bool com_ = false, wsa_ = false;
};

std::vector<std::wstring> Split(const std::wstring& list) {
    std::vector<std::wstring> items;
    if (list.empty()) return items;
    for (size_t from = 0;;) {
        const size_t comma = list.find(L',', from);
        items.push_back(list.substr(from, comma - from));
        if (comma == std::wstring::npos) return items;
        from = comma + 1;
    }
}

std::wstring Join(const std::vector<std::wstring>& items) {
    std::wstring text;
    for (const auto& i : items) text += (text.empty() ? L"" : L",") + i;
    return text.empty() ? L"-" : text;
}

struct AdapterRow {
    std::wstring id, name, mac;
    bool dhcp = false;
    std::vector<std::wstring> addresses, subnets, gateways, dns;
    bool autoDns = false;
    DWORD gatewayRc = 0, dnsRc = 0;
};

std::wstring Padded(const std::wstring& s, size_t width) {
    return s.size() >= width ? s + L"  " : s + std::wstring(width - s.size() + 2, L' ');
}

int Adapters(bool json) {
    std::vector<AdapterRow> rows;
    for (const auto& [id, name] : GetHostAdapterList()) {
        AdapterRow r;
        r.id = id;
        r.name = name;
        GetHostMac(id, r.mac);
        GetHostIsDHCPEnabed(id, &r.dhcp);
        GetHostIPSetting(id, r.addresses, r.subnets);
        r.gatewayRc = GetHostGatewaySetting(id, r.gateways);
        r.dnsRc = GetHostDNSServerSetting(id, &r.autoDns, r.dns);
        rows.push_back(std::move(r));
    }
    if (json) {
        std::wstring out = L"[";
        for (const auto& r : rows) {
            out += (out.size() > 1 ? L",\n " : L"") + std::wstring(L"{\"id\": ") + JsonString(r.id) +
                   L", \"name\": " + JsonString(r.name) + L", \"mac\": " + JsonString(r.mac) +
                   L", \"dhcp\": " + (r.dhcp ? L"true" : L"false") + L", \"addresses\": " + JsonList(r.addresses) +
                   L", \"subnets\": " + JsonList(r.subnets) + L", \"gateways\": " + JsonList(r.gateways) +
                   L", \"gatewaysRc\": " + Num(r.gatewayRc) + L", \"dnsServers\": " + JsonList(r.dns) +
                   L", \"dnsAutomatic\": " + (r.autoDns ? L"true" : L"false") + L", \"dnsRc\": " + Num(r.dnsRc) + L"}";
        }
        Out(out + L"]\n");
        return 0;
    }
    const wchar_t* head[] = {L"ID", L"NAME", L"MAC", L"DHCP", L"ADDRESSES", L"GATEWAYS", L"DNS SERVERS"};
    std::vector<std::vector<std::wstring>> cells;
    for (const auto& r : rows) {
        std::vector<std::wstring> addr;
        for (size_t i = 0; i < r.addresses.size(); ++i)
            addr.push_back(r.addresses[i] + (i < r.subnets.size() ? L"/" + r.subnets[i] : L""));
        // A gateway or DNS value the interface key does not have reads "-";
        // automatic DNS servers are marked so.
        cells.push_back({r.id, r.name, r.mac.empty() ? L"-" : r.mac, r.dhcp ? L"yes" : L"no", Join(addr),
                         Join(r.gateways), Join(r.dns) + (r.autoDns && !r.dns.empty() ? L" (dhcp)" : L"")});
    }
    std::vector<size_t> width(7);
    for (size_t c = 0; c < 7; ++c) {
        width[c] = wcslen(head[c]);
        for (const auto& row : cells) width[c] = std::max(width[c], row[c].size());
    }
    std::wstring text;
    for (size_t c = 0; c < 7; ++c) text += c == 6 ? std::wstring(head[c]) : Padded(head[c], width[c]);
    text += L"\n";
    for (const auto& row : cells) {
        for (size_t c = 0; c < 7; ++c) text += c == 6 ? row[c] : Padded(row[c], width[c]);
        text += L"\n";
    }
    if (rows.empty()) text += L"(no physical network adapter)\n";
    Out(text);
    return 0;
}

const wchar_t* ArchitectureName(DWORD a) {
    switch (a) {
        case PROCESSOR_ARCHITECTURE_INTEL: return L"x86";
        case PROCESSOR_ARCHITECTURE_ARM: return L"ARM";
        case PROCESSOR_ARCHITECTURE_IA64: return L"IA-64";
        case PROCESSOR_ARCHITECTURE_AMD64: return L"x64";
        case 12: return L"ARM64";
        default: return L"unknown";
    }
}

int Facts(bool json) {
    DWORD processors = 0;
    const DWORD processorRc = GetHostProcessorCount(&processors);
    unsigned long long memory = 0;
    GetHostPhysicalMemory(&memory);
    const DWORD arch = GetHostCPUArchitecture();
    const bool hyperv = IsHyperVRole() != 0;
    // The newest of these the host is at least.
    struct Release {
        DWORD major, minor;
        const wchar_t* name;
    } releases[] = {{10, 0, L"10.0"}, {6, 3, L"6.3"}, {6, 2, L"6.2"}, {6, 1, L"6.1"}, {6, 0, L"6.0"}, {5, 2, L"5.2"}};
    std::wstring atLeast = L"older than 5.2";
    for (const auto& r : releases)
        if (HA_IsHostOSGreaterEqual(r.major, r.minor, 0, 0)) {
            atLeast = r.name;
            break;
        }
    if (json) {
        Out(L"{\"logicalProcessors\": " + (processorRc ? std::wstring(L"null") : Num(processors)) +
            L", \"processorRc\": " + Num(processorRc) + L", \"physicalMemory\": " + Num(memory) +
            L", \"architecture\": " + Num(arch) + L", \"architectureName\": " + JsonString(ArchitectureName(arch)) +
            L", \"hyperVRole\": " + (hyperv ? L"true" : L"false") + L", \"windowsAtLeast\": " + JsonString(atLeast) +
            L"}\n");
        return 0;
    }
    std::wstring text = L"Logical processors: " + (processorRc ? L"unknown (rc " + Num(processorRc) + L")" : Num(processors)) +
                        L"\nPhysical memory:    " + Num(memory) + L" bytes (" + Num(memory >> 20) + L" MiB)" +
                        L"\nArchitecture:       " + ArchitectureName(arch) + L" (" + Num(arch) + L")" +
                        L"\nHyper-V role:       " + (hyperv ? L"installed" : L"not installed") +
                        L"\nWindows version:    at least " + atLeast + L"\n";
    Out(text);
    return 0;
}

int Resolve(const std::wstring& name, bool json) {
    std::vector<std::wstring> addresses;
    if (DWORD rc = GetIpAddressFromDns(name, addresses)) return Fail(L"GetIpAddressFromDns(" + name + L")", rc);
    if (json) {
        Out(L"{\"name\": " + JsonString(name) + L", \"addresses\": " + JsonList(addresses) + L"}\n");
        return 0;
    }
    for (const auto& a : addresses) Out(a + L"\n");
    if (addresses.empty()) Out(L"(no address)\n");
    return 0;
}

// The calls of one change: described without --yes, made with it, in order
// until one fails (WMI's 1, "done, restart needed", is no failure).
using Step = std::pair<std::wstring, std::function<DWORD()>>;

int Change(const Args& args, const std::wstring& what, const std::vector<Step>& steps) {
    if (!HasFlag(args, L"--yes")) {
        Err(L"kxha host: would " + what + L"; nothing changed. Add --yes to change the host.\n");
        return 2;
    }
    DWORD rc = 0;
    std::wstring failed;
    bool restart = false;
    for (const auto& [call, run] : steps) {
        rc = run();
        restart = restart || rc == 1;
        if (rc > 1) {
            failed = call;
            break;
        }
    }
    if (HasFlag(args, L"--json")) {
        Out(L"{\"rc\": " + Num(rc) + L", \"failedCall\": " + (failed.empty() ? L"null" : JsonString(failed)) +
            L", \"restartNeeded\": " + (restart ? L"true" : L"false") + L"}\n");
        return failed.empty() ? 0 : 1;
    }
    if (!failed.empty()) return Fail(failed, rc, rc == ERROR_NOT_FOUND ? L"no adapter of that name" : nullptr);
    Out(L"done: " + what + (restart ? L" (the host must restart to finish)" : L"") + L"\n");
    return 0;
}

int HostSet(const std::wstring& sub, const std::vector<std::wstring>& pos, const Args& args) {
    static const std::wstring known[] = {L"set-dhcp", L"set-static", L"set-gateways", L"set-wins", L"set-dns"};
    if (std::find(std::begin(known), std::end(known), sub) == std::end(known)) {
        Err(L"kxha host: unknown subcommand '" + sub + L"'\n");
        return 2;
    }
    if (pos.size() < 2) return Err(L"kxha host " + sub + L": an adapter name is needed\n"), 2;
    const std::wstring adapter = pos[1];
    const std::wstring on = L" on adapter \"" + adapter + L"\"";
    const std::wstring arg2 = pos.size() > 2 ? pos[2] : L"", arg3 = pos.size() > 3 ? pos[3] : L"";
    if (sub == L"set-dhcp")
        return Change(args, L"switch DHCP on" + on, {{L"EnableHostDHCP", [&] { return EnableHostDHCP(adapter); }}});
    if (sub == L"set-static") {
        const auto ips = Split(Option(args, L"--ip")), masks = Split(Option(args, L"--mask"));
        return Change(args, L"set addresses " + Join(ips) + L" with masks " + Join(masks) + on,
                      {{L"EnableHostStatic", [&] { return EnableHostStatic(adapter, ips, masks); }}});
    }
    if (sub == L"set-gateways") {
        const auto gateways = Split(arg2);
        std::vector<unsigned short> metrics;
        for (const auto& m : Split(Option(args, L"--metrics")))
            metrics.push_back(static_cast<unsigned short>(wcstoul(m.c_str(), nullptr, 10)));
        return Change(args, L"set gateways " + Join(gateways) + on,
                      {{L"SetHostGateways", [&] { return SetHostGateways(adapter, gateways, metrics); }}});
    }
    if (sub == L"set-wins")
        return Change(args, L"set WINS servers " + (arg2.empty() ? L"-" : arg2) + L" " + arg3 + on,
                      {{L"SetHostWINSServer", [&] { return SetHostWINSServer(adapter, arg2, arg3); }}});
    if (sub == L"set-dns") {
        // Each option given is one call, in this order.
        const auto servers = Split(Option(args, L"--servers"));
        const std::wstring domain = Option(args, L"--domain"), reg = Option(args, L"--register");
        const auto suffixes = Split(Option(args, L"--suffixes"));
        std::vector<Step> steps;
        std::wstring what = L"set DNS";
        if (HasFlag(args, L"--servers")) {
            what += L" servers " + Join(servers);
            steps.push_back({L"SetHostDNSServerSearchOrder", [&] { return SetHostDNSServerSearchOrder(adapter, servers); }});
        }
        if (!domain.empty()) {
            what += L" domain " + domain;
            steps.push_back({L"SetHostDNSDomain", [&] { return SetHostDNSDomain(adapter, domain); }});
        }
        if (!suffixes.empty()) {
            what += L" suffixes " + Join(suffixes);
            steps.push_back({L"SetHostDNSSuffixSearchOrder", [&] { return SetHostDNSSuffixSearchOrder(adapter, suffixes); }});
        }
        if (!reg.empty()) {
            if (reg != L"full" && reg != L"domain" && reg != L"both" && reg != L"none")
                return Err(L"kxha host set-dns: --register takes full, domain, both or none\n"), 2;
            what += L" registration " + reg;
            steps.push_back({L"SetHostDynamicDNSRegistration", [&] {
                                 return SetHostDynamicDNSRegistration(adapter, reg == L"full" || reg == L"both",
                                                                      reg == L"domain" || reg == L"both");
                             }});
        }
        if (steps.empty()) {
            what = L"enable DNS";
            steps.push_back({L"EnableHostDNS", [&] { return EnableHostDNS(adapter); }});
        }
        return Change(args, what + on, steps);
    }
    return 2;
}

}  // namespace

int CmdHost(const Args& args) {
    const auto pos = Positionals(args, {L"--ip", L"--mask", L"--metrics", L"--servers", L"--domain", L"--suffixes",
                                        L"--register"});
    if (pos.empty()) {
        Err(std::wstring(L"usage: ") + kHostUsage + L"\n");
        return 2;
    }
    HostProcess process;
    const bool json = HasFlag(args, L"--json");
    const std::wstring& sub = pos[0];
    if (sub == L"adapters") return Adapters(json);
    if (sub == L"facts") return Facts(json);
    if (sub == L"resolve") {
        if (pos.size() < 2) return Err(L"kxha host resolve: a name is needed\n"), 2;
        return Resolve(pos[1], json);
    }
    return HostSet(sub, pos, args);
}

}  // namespace kxha
