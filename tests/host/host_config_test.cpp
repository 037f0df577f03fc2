// Adapter configuration through the recording WMI service: which method is
// called with which parameters (names, variant types, values), the argument
// rules checked before WMI is reached, unknown adapters, WMI's own codes and
// job waits; the getters' registry paths; and the handles and COM
// references left after many calls.
#include <gtest/gtest.h>

#include <functional>

#include "fake_wbem.h"
#include "host/host_config.h"
#include "kx_test.h"
#include "platform/wmi/wmi_client.h"

using fakewbem::FakeService;
using fakewbem::MakeInstance;
using fakewbem::MethodAnswer;
using Strings = std::vector<std::wstring>;
namespace host = kx::host;

namespace {

class Clock : public kx::wmi::JobClock {
public:
    uint64_t now = 0;
    int sleeps = 0;
    uint64_t NowMs() noexcept override { return now; }
    void SleepMs(DWORD ms) noexcept override {
        ++sleeps;
        now += ms;
    }
};

// Parameter names as the WMI class declares them (WMI matches them without
// case; the test reads the spelling the client used).
const std::vector<std::pair<const wchar_t*, Strings>> kMethods = {
    {L"EnableDHCP", {}},
    {L"EnableStatic", {L"IPAddress", L"SubnetMask"}},
    {L"SetGateways", {L"DefaultIPGateway", L"GatewayCostMetric"}},
    {L"EnableDNS", {L"DNSHostName", L"DNSDomain", L"DNSServerSearchOrder", L"DNSDomainSuffixSearchOrder"}},
    {L"SetDNSDomain", {L"DNSDomain"}},
    {L"SetDNSServerSearchOrder", {L"DNSServerSearchOrder"}},
    {L"SetDNSSuffixSearchOrder", {L"DNSDomainSuffixSearchOrder"}},
    {L"SetDynamicDNSRegistration", {L"FullDNSRegistrationEnabled", L"DomainDNSRegistrationEnabled"}},
    {L"SetWINSServer", {L"WINSPrimaryServer", L"WINSSecondaryServer"}},
};

// Two PCI adapters whose names share a start, one USB adapter.
class HostConfigTest : public ::testing::Test {
protected:
    void SetUp() override {
        baseline_ = fakewbem::LiveObjects();
        svc_ = std::make_unique<FakeService>();
        AddAdapter(L"7", L"Contoso Gigabit", L"PCI\\VEN_8086&DEV_10D3", L"{7A000000-0000-0000-0000-000000000007}");
        AddAdapter(L"11", L"Contoso Gigabit #2", L"PCI\\VEN_8086&DEV_10D3", L"{7A000000-0000-0000-0000-000000000011}");
        AddAdapter(L"12", L"Dongle", L"USB\\VID_0B95", L"{7A000000-0000-0000-0000-000000000012}");
        for (const auto& [name, inputs] : kMethods)
            svc_->DeclareMethod(L"Win32_NetworkAdapterConfiguration", name, inputs, {});
        scope_ = std::make_unique<fakewbem::ConnectorScope>(svc_.get());
        kx::wmi::testing::SetJobClock(&clock_);
    }
    void TearDown() override {
        kx::wmi::testing::SetJobClock(nullptr);
        scope_.reset();
        EXPECT_EQ(svc_->refs(), 1u);
        svc_.reset();
        EXPECT_EQ(fakewbem::LiveObjects(), baseline_);
    }
    void AddAdapter(const std::wstring& id, const std::wstring& name, const std::wstring& pnp,
                    const std::wstring& guid) {
        svc_->Add(MakeInstance(L"Win32_NetworkAdapter", L"\\\\HOST\\root\\cimv2:Win32_NetworkAdapter.DeviceID=\"" + id + L"\"",
                               {{L"DeviceID", id}, {L"Name", name}, {L"PNPDeviceID", pnp}, {L"AdapterTypeId", 0L}}));
        svc_->Add(MakeInstance(L"Win32_NetworkAdapterConfiguration",
                               L"\\\\HOST\\root\\cimv2:Win32_NetworkAdapterConfiguration.Index=" + id,
                               {{L"Index", std::stol(id)},
                                {L"SettingID", guid},
                                {L"DHCPEnabled", id == L"7"},
                                {L"MACAddress", L"00:15:5D:00:00:" + id},
                                {L"IPAddress", Strings{L"192.0.2." + id, L"fe80::" + id}},
                                {L"IPSubnet", Strings{L"255.255.255.0", L"64"}},
                                {L"DNSServerSearchOrder", Strings{L"198.51.100.53", L"198.51.100.54"}}}));
    }
    std::unique_ptr<FakeService> svc_;
    std::unique_ptr<fakewbem::ConnectorScope> scope_;
    Clock clock_;
    long baseline_ = 0;
};

std::wstring ArrayText(const VARIANT* v) {
    if (!v) return L"(absent)";
    std::wstring text = L"vt" + std::to_wstring(v->vt) + L":";
    if (!(v->vt & VT_ARRAY)) {
        kx::unique_variant s;
        if (SUCCEEDED(VariantChangeType(s.put(), const_cast<VARIANT*>(v), 0, VT_BSTR))) text += s->bstrVal;
        return text;
    }
    LONG lo = 0, hi = -1;
    SafeArrayGetLBound(v->parray, 1, &lo);
    SafeArrayGetUBound(v->parray, 1, &hi);
    for (LONG i = lo; i <= hi; ++i) {
        if ((v->vt & ~VT_ARRAY) == VT_BSTR) {
            BSTR b = nullptr;
            SafeArrayGetElement(v->parray, &i, &b);
            text += std::wstring(b ? b : L"") + L";";
            SysFreeString(b);
        } else {
            LONG n = 0;
            SafeArrayGetElement(v->parray, &i, &n);
            text += std::to_wstring(n) + L";";
        }
    }
    return text;
}

constexpr int kBstrs = VT_ARRAY | VT_BSTR, kLongs = VT_ARRAY | VT_I4;
std::wstring Vt(int vt) { return L"vt" + std::to_wstring(vt) + L":"; }

TEST_F(HostConfigTest, SettersCallTheirMethodWithExactlyTheseParameters) {
    const std::wstring gigabit = L"Contoso Gigabit";
    struct Case {
        const wchar_t* method;
        std::function<DWORD()> call;
        std::vector<std::pair<std::wstring, std::wstring>> params;  // name -> ArrayText
        bool hasInput = true;
    } cases[] = {
        {L"EnableDHCP", [&] { return host::EnableHostDHCP(gigabit); }, {}, false},
        {L"EnableStatic",
         [&] { return host::EnableHostStatic(gigabit, {L"10.1.0.5", L"10.1.0.6"}, {L"255.255.0.0", L"255.255.0.0"}); },
         {{L"IPAddress", Vt(kBstrs) + L"10.1.0.5;10.1.0.6;"},
          {L"SubNetMask", Vt(kBstrs) + L"255.255.0.0;255.255.0.0;"}}},
        {L"SetGateways", [&] { return host::SetHostGateways(gigabit, {L"10.1.0.1", L"10.1.0.2"}, {5, 65535}); },
         {{L"DefaultIPGateway", Vt(kBstrs) + L"10.1.0.1;10.1.0.2;"}, {L"GatewayCostMetric", Vt(kLongs) + L"5;65535;"}}},
        // Without metrics the metric parameter is left out altogether.
        {L"SetGateways", [&] { return host::SetHostGateways(gigabit, {L"10.1.0.1"}, {}); },
         {{L"DefaultIPGateway", Vt(kBstrs) + L"10.1.0.1;"}}},
        {L"EnableDNS", [&] { return host::EnableHostDNS(gigabit); }, {}, false},
        {L"SetDNSDomain", [&] { return host::SetHostDNSDomain(gigabit, L"corp.example"); },
         {{L"DNSDomain", Vt(VT_BSTR) + L"corp.example"}}},
        {L"SetDNSServerSearchOrder", [&] { return host::SetHostDNSServerSearchOrder(gigabit, {L"10.1.0.53"}); },
         {{L"DNSServerSearchOrder", Vt(kBstrs) + L"10.1.0.53;"}}},
        // An empty server list reaches WMI as an empty array (it clears them).
        {L"SetDNSServerSearchOrder", [&] { return host::SetHostDNSServerSearchOrder(gigabit, {}); },
         {{L"DNSServerSearchOrder", Vt(kBstrs)}}},
        {L"SetDNSSuffixSearchOrder",
         [&] { return host::SetHostDNSSuffixSearchOrder(gigabit, {L"corp.example", L"example"}); },
         {{L"DNSDomainSuffixSearchOrder", Vt(kBstrs) + L"corp.example;example;"}}},
        {L"SetDynamicDNSRegistration", [&] { return host::SetHostDynamicDNSRegistration(gigabit, true, false); },
         {{L"FullDNSRegistrationEnabled", Vt(VT_I4) + L"1"}, {L"DomainDNSRegistrationEnabled", Vt(VT_I4) + L"0"}}},
        {L"SetWINSServer", [&] { return host::SetHostWINSServer(gigabit, L"10.1.0.44", L""); },
         {{L"WINSPrimaryServer", Vt(VT_BSTR) + L"10.1.0.44"}, {L"WINSSecondaryServer", Vt(VT_BSTR)}}},
    };
    for (const auto& c : cases) {
        svc_->calls.clear();
        svc_->objectPaths.clear();
        svc_->queries.clear();
        EXPECT_EQ(c.call(), 0u) << c.method;
        ASSERT_EQ(svc_->calls.size(), 1u) << c.method;
        const auto& call = svc_->calls[0];
        EXPECT_EQ(call.method, c.method);
        // The first adapter whose name starts so ("Contoso Gigabit #2" matches too).
        EXPECT_EQ(call.path, L"\\\\HOST\\root\\cimv2:Win32_NetworkAdapterConfiguration.Index=7") << c.method;
        EXPECT_EQ(call.hasInput, c.hasInput) << c.method;
        ASSERT_EQ(call.params.size(), c.params.size()) << c.method;
        for (size_t i = 0; i < c.params.size(); ++i) {
            EXPECT_EQ(call.params[i].first, c.params[i].first) << c.method;
            EXPECT_EQ(ArrayText(call.params[i].second->get()), c.params[i].second) << c.method;
        }
        if (c.hasInput) {
            ASSERT_FALSE(svc_->objectPaths.empty());
            EXPECT_EQ(svc_->objectPaths[0], L"Win32_NetWorkAdapterConfiguration");
        }
        ASSERT_EQ(svc_->queries.size(), 2u);
        EXPECT_EQ(svc_->queries[0], L"SELECT * FROM Win32_NetworkAdapter WHERE Name LIKE 'Contoso Gigabit%'");
        EXPECT_EQ(svc_->queries[1], L"ASSOCIATORS OF {Win32_NetworkAdapter.DeviceID='7'} WHERE ResultClass = "
                                    L"Win32_NetworkAdapterConfiguration");
    }
}

TEST_F(HostConfigTest, ArgumentRulesAnswerBeforeWmiIsReached) {
    const std::wstring a = L"Contoso Gigabit";
    struct Case {
        const wchar_t* what;
        std::function<DWORD()> call;
        DWORD rc;
        const wchar_t* finish;
    } cases[] = {
        {L"static without addresses", [&] { return host::EnableHostStatic(a, {}, {L"255.0.0.0"}); }, 87,
         L"finish EnableHostStatic, ret=87"},
        {L"gateways without gateway", [&] { return host::SetHostGateways(a, {}, {1}); }, 87,
         L"finish SetHostGateways, ret=87"},
        {L"empty domain", [&] { return host::SetHostDNSDomain(a, L""); }, 87, L"finish SetHostDNSDomain, ret=87"},
        {L"empty primary WINS", [&] { return host::SetHostWINSServer(a, L"", L"10.0.0.2"); }, 87,
         L"finish SetHostWINSServer, ret=87"},
        {L"no suffixes", [&] { return host::SetHostDNSSuffixSearchOrder(a, {}); }, 0,
         L"finish SetHostDNSSuffixSearchOrder, ret=0"},
    };
    for (const auto& c : cases) {
        kxtest::LogCursor log;
        EXPECT_EQ(c.call(), c.rc) << c.what;
        EXPECT_TRUE(log.Contains(c.finish)) << c.what;
        EXPECT_FALSE(log.Contains(L"failed due to invalid parameter")) << c.what;
    }
    EXPECT_EQ(scope_->connections(), 0);
    EXPECT_TRUE(svc_->queries.empty());
    EXPECT_TRUE(svc_->calls.empty());
}

TEST_F(HostConfigTest, UnknownAdapterIs1168WithoutAnyMethodCall) {
    kxtest::LogCursor log;
    EXPECT_EQ(host::EnableHostDHCP(L"No Such Adapter"), ERROR_NOT_FOUND);
    EXPECT_EQ(host::SetHostDNSServerSearchOrder(L"Gigabit", {}), ERROR_NOT_FOUND);  // matches the start only
    EXPECT_EQ(host::SetHostWINSServer(L"No Such Adapter", L"10.0.0.1", L""), ERROR_NOT_FOUND);
    EXPECT_TRUE(svc_->calls.empty());
    EXPECT_TRUE(log.Contains(L"begin EnableHostDHCP, adapter=No Such Adapter"));
    EXPECT_TRUE(log.Contains(L"fiish EnableHostDHCP, ret=1168"));
    EXPECT_TRUE(log.Contains(L"begin SetHostWINSServer, adapter=No Such Adapter, wins=10.0.0.1, wins2="));
}

TEST_F(HostConfigTest, WmiCodesAndJobResultsReachTheCallerUnchanged) {
    struct Case {
        MethodAnswer answer;
        DWORD rc;
        int sleeps;
    } cases[] = {
        {{.returnValue = 1}, 1, 0},      // done, restart needed
        {{.callResult = HRESULT(WBEM_E_ACCESS_DENIED)}, static_cast<DWORD>(WBEM_E_ACCESS_DENIED), 0},
        {{.jobPolls = 4, .jobState = 7}, 0, 4},
        {{.jobPolls = 2, .jobState = 10, .jobError = 84}, 84, 2},
        {{.jobPolls = 5000}, ERROR_TIMEOUT, 1200},  // ten minutes of 500 ms polls
    };
    for (const auto& c : cases) {
        svc_->SetAnswer(L"EnableStatic", c.answer);
        clock_.sleeps = 0;
        kxtest::LogCursor log;
        EXPECT_EQ(host::EnableHostStatic(L"Dongle", {L"10.0.0.9"}, {L"255.0.0.0"}), c.rc);
        EXPECT_EQ(clock_.sleeps, c.sleeps);
        EXPECT_TRUE(log.Contains(L"finish EnableHostStatic, ret=" + std::to_wstring(c.rc)));
        EXPECT_EQ(svc_->calls.back().path, L"\\\\HOST\\root\\cimv2:Win32_NetworkAdapterConfiguration.Index=12");
    }
}

TEST_F(HostConfigTest, AdapterListPrefersPciAdaptersAndFallsBackToEthernet) {
    kxtest::LogCursor log;
    host::AdapterList list = host::GetHostAdapterList();
    EXPECT_EQ(list, (host::AdapterList{{L"11", L"Contoso Gigabit #2"}, {L"7", L"Contoso Gigabit"}}));
    EXPECT_EQ(svc_->queries.back(), L"SELECT * FROM Win32_NetworkAdapter WHERE PNPDeviceID LIKE 'PCI\\\\%'");
    EXPECT_TRUE(log.Contains(L"Host network adapter: Contoso Gigabit #2, 11"));
    EXPECT_TRUE(log.Contains(L"finish GetHostAdapterList, get 2 NetworkAdapter"));

    // No PCI adapter: every Ethernet adapter; a repeated DeviceID keeps its
    // first place, takes the later name, and still counts in the line.
    scope_.reset();
    svc_ = std::make_unique<FakeService>();
    scope_ = std::make_unique<fakewbem::ConnectorScope>(svc_.get());
    AddAdapter(L"3", L"First", L"ROOT\\NET\\0000", L"{A}");
    AddAdapter(L"3", L"Second", L"ROOT\\NET\\0001", L"{B}");
    AddAdapter(L"4", L"Other", L"VMBUS\\{1}", L"{C}");
    kxtest::LogCursor log2;
    list = host::GetHostAdapterList();
    EXPECT_EQ(list, (host::AdapterList{{L"3", L"Second"}, {L"4", L"Other"}}));
    EXPECT_EQ(svc_->queries.back(), L"SELECT * FROM Win32_NetworkAdapter WHERE AdapterTypeId = '0'");
    EXPECT_TRUE(log2.Contains(L"finish GetHostAdapterList, get 3 NetworkAdapter"));
}

// The TCP/IP key of an interface, written and removed by the test (the
// run's own HKEY_LOCAL_MACHINE).
struct InterfaceKey {
    std::wstring path;
    explicit InterfaceKey(const std::wstring& guid) : path(host::TcpipInterfaceKey(guid)) {
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, path.c_str());
        RegCreateKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr);
    }
    ~InterfaceKey() {
        RegCloseKey(key);
        RegDeleteTreeW(HKEY_LOCAL_MACHINE, path.c_str());
    }
    void Multi(const wchar_t* name, const Strings& items) {
        std::wstring data;
        for (const auto& i : items) data += i + L'\0';
        data += L'\0';
        RegSetValueExW(key, name, 0, REG_MULTI_SZ, reinterpret_cast<const BYTE*>(data.data()),
                       static_cast<DWORD>(data.size() * 2));
    }
    void Text(const wchar_t* name, const std::wstring& value) {
        RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value.c_str()),
                       static_cast<DWORD>((value.size() + 1) * 2));
    }
    HKEY key = nullptr;
};

TEST_F(HostConfigTest, DnsServersComeFromTheInterfaceKeyOrFromDhcp) {
    InterfaceKey key(L"{7A000000-0000-0000-0000-000000000007}");
    struct Case {
        const wchar_t* what;
        std::function<void()> prepare;
        DWORD rc;
        bool automatic;
        Strings servers;
    } cases[] = {
        {L"static pair", [&] { key.Text(L"NameServer", L"10.9.0.1,10.9.0.2"); }, 0, false,
         {L"old", L"10.9.0.1", L"10.9.0.2"}},  // appended to what the vector held
        {L"automatic", [&] { key.Text(L"NameServer", L""); }, 0, true, {L"198.51.100.53", L"198.51.100.54"}},
        {L"unreadable", [&] { RegDeleteValueW(key.key, L"NameServer"); }, 1, false, {L"old"}},
    };
    for (const auto& c : cases) {
        c.prepare();
        bool automatic = !c.automatic;
        Strings servers{L"old"};
        kxtest::LogCursor log;
        EXPECT_EQ(host::GetHostDNSServerSetting(L"7", &automatic, &servers), c.rc) << c.what;
        EXPECT_EQ(automatic, c.automatic) << c.what;
        EXPECT_EQ(servers, c.servers) << c.what;
        EXPECT_TRUE(log.Contains(L"GetHostIsDHCPEnabed begin")) << c.what;
        if (c.rc == 0) {
            EXPECT_TRUE(log.Contains(L"finish GetHostDNSServer, isAutoDNS=" + std::to_wstring(c.automatic) +
                                     L", count=" + std::to_wstring(servers.size())))
                << c.what;
        } else {
            EXPECT_TRUE(log.Contains(L"GetDNSServers fail to open reg key " + key.path + L", ec=2")) << c.what;
            EXPECT_TRUE(log.Contains(L"fail to GetHostDNSServer, id=7")) << c.what;
        }
    }
}

TEST_F(HostConfigTest, GatewaysComeFromTheInterfaceKeyOnly) {
    InterfaceKey key(L"{7A000000-0000-0000-0000-000000000011}");
    Strings gateways{L"stale"};
    // A DHCP adapter: no value at all in the key.
    EXPECT_EQ(host::GetHostGatewaySetting(L"11", &gateways), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
    key.Multi(L"DefaultGateway", {});
    key.Multi(L"DefaultGatewayMetric", {});
    EXPECT_EQ(host::GetHostGatewaySetting(L"11", &gateways), 0u);
    EXPECT_TRUE(gateways.empty());
    key.Multi(L"DefaultGateway", {L"10.7.0.1", L"10.7.0.254"});
    key.Multi(L"DefaultGatewayMetric", {L"1", L"not a number"});
    kxtest::LogCursor log;
    EXPECT_EQ(host::GetHostGatewaySetting(L"11", &gateways), 0u);
    EXPECT_EQ(gateways, (Strings{L"10.7.0.1", L"10.7.0.254"}));
    EXPECT_TRUE(log.Contains(L"finish GetHostGateway, gateway count=2"));
    RegDeleteValueW(key.key, L"DefaultGatewayMetric");
    EXPECT_EQ(host::GetHostGatewaySetting(L"11", &gateways), static_cast<DWORD>(ERROR_FILE_NOT_FOUND));
}

TEST_F(HostConfigTest, GettersOfAnAdapterWithoutConfiguration) {
    bool dhcp = true;
    std::wstring mac = L"x";
    Strings ips{L"x"}, masks{L"x"};
    kxtest::LogCursor log;
    EXPECT_EQ(host::GetHostIsDHCPEnabed(L"99", &dhcp), 0u);
    EXPECT_FALSE(dhcp);
    EXPECT_EQ(host::GetHostMac(L"99", &mac), 0u);
    EXPECT_EQ(mac, L"");
    EXPECT_EQ(host::GetHostIPSetting(L"99", &ips, &masks), static_cast<DWORD>(ERROR_INVALID_DATA));
    EXPECT_TRUE(log.Contains(L"fail to GetHostIP, id=99"));
    EXPECT_TRUE(log.Contains(L"finish GetHostIsDHCPEnabed, isDHCP=0"));
    // And with one.
    EXPECT_EQ(host::GetHostIsDHCPEnabed(L"7", &dhcp), 0u);
    EXPECT_TRUE(dhcp);
    EXPECT_EQ(host::GetHostMac(L"11", &mac), 0u);
    EXPECT_EQ(mac, L"00:15:5D:00:00:11");
    EXPECT_TRUE(log.Contains(L"finish GetHostMac, mac=00:15:5D:00:00:11"));
    EXPECT_EQ(host::GetHostIPSetting(L"11", &ips, &masks), 0u);
    EXPECT_EQ(ips, (Strings{L"192.0.2.11", L"fe80::11"}));
    EXPECT_EQ(masks, (Strings{L"255.255.255.0", L"64"}));
}

// 1,000 calls of each getter: the process's handle count and the service's
// references end where they began; every fake object has been released.
TEST_F(HostConfigTest, ThousandsOfCallsLeaveNoHandleOrReference) {
    InterfaceKey key(L"{7A000000-0000-0000-0000-000000000007}");
    key.Text(L"NameServer", L"10.9.0.1,10.9.0.2");
    key.Multi(L"DefaultGateway", {L"10.7.0.1"});
    key.Multi(L"DefaultGatewayMetric", {L"1"});
    const auto calls = std::vector<std::function<DWORD()>>{
        [] { bool d; return host::GetHostIsDHCPEnabed(L"7", &d); },
        [] { Strings a, b; return host::GetHostIPSetting(L"7", &a, &b); },
        [] { Strings g; return host::GetHostGatewaySetting(L"7", &g); },
        [] { bool a; Strings s; return host::GetHostDNSServerSetting(L"7", &a, &s); },
        [] { std::wstring m; return host::GetHostMac(L"7", &m); },
        [] { return static_cast<DWORD>(host::GetHostAdapterList().size() == 2 ? 0 : 1); },
        [] { return host::EnableHostDHCP(L"Contoso Gigabit"); },
    };
    for (const auto& call : calls) ASSERT_EQ(call(), 0u);  // warm-up: first-use allocations
    DWORD before = 0, after = 0;
    GetProcessHandleCount(GetCurrentProcess(), &before);
    const long objects = fakewbem::LiveObjects();
    for (const auto& call : calls) {
        for (int i = 0; i < 1000; ++i) ASSERT_EQ(call(), 0u);
        EXPECT_EQ(svc_->refs(), 1u);
        EXPECT_EQ(fakewbem::LiveObjects(), objects);
    }
    GetProcessHandleCount(GetCurrentProcess(), &after);
    EXPECT_EQ(after, before);
}

}  // namespace
