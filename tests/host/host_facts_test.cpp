// The getters and host facts against Wine's own WMI provider, compared with
// what the machine's own tools say (`ip -j addr`, /proc/cpuinfo,
// /proc/meminfo, written to a file by the step before this test). Wine's
// provider answers the association of an adapter with its configuration
// with nothing, so these runs also take the library's direct lookup by
// Index.
#include <gtest/gtest.h>

#include <fstream>
#include <functional>
#include <set>
#include <sstream>

#include "fake_wbem.h"
#include "host/host_config.h"
#include "kx_test.h"
#include "platform/host_system.h"
#include "platform/wmi/wmi_client.h"

using Strings = std::vector<std::wstring>;
namespace host = kx::host;

namespace {

struct Oracle {
    struct Adapter {
        std::wstring mac;
        std::set<std::wstring> v4, v4masks, v6;
    };
    std::map<std::wstring, Adapter> adapters;
    long logical = 0, packages = 0;
    uint64_t memory = 0;
};

std::wstring Wide(const std::string& s) { return std::wstring(s.begin(), s.end()); }

std::wstring Mask(int prefix) {
    const uint32_t m = prefix ? ~0u << (32 - prefix) : 0;
    return std::to_wstring(m >> 24) + L"." + std::to_wstring((m >> 16) & 255) + L"." +
           std::to_wstring((m >> 8) & 255) + L"." + std::to_wstring(m & 255);
}

Oracle ReadOracle() {
    Oracle o;
    std::ifstream in(std::string("Z:") + KX_HOST_ORACLE);
    EXPECT_TRUE(in) << "no oracle file " << KX_HOST_ORACLE;
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream f(line);
        std::string kind, a, b, c, d;
        f >> kind >> a >> b >> c >> d;
        if (kind == "adapter") o.adapters[Wide(a)].mac = Wide(b);
        if (kind == "addr" && b == "inet") {
            o.adapters[Wide(a)].v4.insert(Wide(c));
            o.adapters[Wide(a)].v4masks.insert(Mask(std::stoi(d)));
        }
        if (kind == "addr" && b == "inet6") o.adapters[Wide(a)].v6.insert(Wide(c));
        if (kind == "cpu") o.logical = std::stol(a), o.packages = std::stol(b);
        if (kind == "mem") o.memory = std::stoull(a);
    }
    return o;
}

// Wine's provider takes tens of milliseconds a call; the thousand-call runs
// are those against the recording service (host_config_test.cpp).
constexpr int kRealCalls = 50;

bool IsV4(const std::wstring& s) { return s.find(L':') == std::wstring::npos; }

class RealWmiTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { ::CoInitializeEx(nullptr, COINIT_MULTITHREADED); }
};

TEST_F(RealWmiTest, AdaptersAndTheirSettingsMatchTheMachinesOwnTools) {
    const Oracle oracle = ReadOracle();
    ASSERT_FALSE(oracle.adapters.empty());
    const host::AdapterList list = host::GetHostAdapterList();
    std::set<std::wstring> names;
    for (const auto& [id, name] : list) names.insert(name);
    std::set<std::wstring> expected;
    for (const auto& [name, a] : oracle.adapters) expected.insert(name);
    EXPECT_EQ(names, expected);

    for (const auto& [id, name] : list) {
        SCOPED_TRACE(kxtest::Narrow(name + L" (" + id + L")"));
        const Oracle::Adapter& want = oracle.adapters.at(name);
        std::wstring mac;
        EXPECT_EQ(host::GetHostMac(id, &mac), 0u);
        EXPECT_EQ(_wcsicmp(mac.c_str(), want.mac.c_str()), 0) << kxtest::Narrow(mac);

        Strings ips, masks;
        ASSERT_EQ(host::GetHostIPSetting(id, &ips, &masks), 0u);
        ASSERT_EQ(ips.size(), masks.size());
        std::set<std::wstring> v4, v4masks, v6;
        for (size_t i = 0; i < ips.size(); ++i) {
            if (IsV4(ips[i])) {
                v4.insert(ips[i]);
                v4masks.insert(masks[i]);
            } else {
                v6.insert(ips[i].substr(0, ips[i].find(L'%')));  // without the zone index
            }
        }
        EXPECT_EQ(v4, want.v4);
        EXPECT_EQ(v4masks, want.v4masks);
        EXPECT_EQ(v6, want.v6);

        bool dhcp = false;
        EXPECT_EQ(host::GetHostIsDHCPEnabed(id, &dhcp), 0u);
    }
    // An adapter the machine does not have.
    Strings ips, masks;
    EXPECT_EQ(host::GetHostIPSetting(L"424242", &ips, &masks), static_cast<DWORD>(ERROR_INVALID_DATA));
}

TEST_F(RealWmiTest, ProcessorsMemoryAndArchitectureMatchTheMachine) {
    const Oracle oracle = ReadOracle();
    kxtest::LogCursor log;
    DWORD count = 0;
    ASSERT_EQ(host::GetHostProcessorCount(&count), 0u);
    EXPECT_EQ(static_cast<long>(count), oracle.logical);
    // The line names the packages, the caller gets the logical processors.
    EXPECT_TRUE(log.Contains(L"finish GetHostProcessorCount, count=" + std::to_wstring(oracle.packages)));

    uint64_t bytes = 0;
    ASSERT_EQ(host::GetHostPhysicalMemory(&bytes), 0u);
    // The kernel's page accounting and MemTotal differ by a few pages.
    const uint64_t diff = bytes > oracle.memory ? bytes - oracle.memory : oracle.memory - bytes;
    EXPECT_LE(diff, 1u << 20) << bytes << " vs " << oracle.memory;
    EXPECT_TRUE(log.Contains(L"finish GetHostPhysicalMemory, size=" + std::to_wstring(bytes)));

    // An x64 host: 9, a value a caller must not read as a failure.
    EXPECT_EQ(host::GetHostCPUArchitecture(), static_cast<DWORD>(PROCESSOR_ARCHITECTURE_AMD64));
    EXPECT_TRUE(log.Contains(L"finish GetHostCPUArchitecture, ret=9"));

    // Wine has no server-feature class: the role is absent, not an error.
    EXPECT_EQ(host::IsHyperVRole(), 0u);
    EXPECT_TRUE(log.Contains(L"end IsHyperVRole, ret=false"));
}

// Many calls of each getter against the real provider leave the process's
// handle count where it was.
TEST_F(RealWmiTest, RepeatedCallsLeaveNoHandleBehind) {
    const host::AdapterList list = host::GetHostAdapterList();
    ASSERT_FALSE(list.empty());
    const std::wstring id = list.rbegin()->first;
    const auto calls = std::vector<std::function<void()>>{
        [&] { bool d; host::GetHostIsDHCPEnabed(id, &d); },
        [&] { Strings a, b; host::GetHostIPSetting(id, &a, &b); },
        [&] { Strings g; host::GetHostGatewaySetting(id, &g); },
        [&] { bool a; Strings s; host::GetHostDNSServerSetting(id, &a, &s); },
        [&] { std::wstring m; host::GetHostMac(id, &m); },
        [&] { DWORD c; host::GetHostProcessorCount(&c); },
        [&] { uint64_t b; host::GetHostPhysicalMemory(&b); },
    };
    for (const auto& call : calls) call();  // first-use allocations
    DWORD before = 0, after = 0;
    GetProcessHandleCount(GetCurrentProcess(), &before);
    for (const auto& call : calls)
        for (int i = 0; i < kRealCalls; ++i) call();
    GetProcessHandleCount(GetCurrentProcess(), &after);
    EXPECT_EQ(after, before);
}

TEST(HostFactsTest, ComputerSystemMissingOrRoleInstalledThroughTheRecordingService) {
    fakewbem::FakeService svc;
    {
        fakewbem::ConnectorScope scope(&svc);
        DWORD count = 77;
        kxtest::LogCursor log;
        EXPECT_EQ(host::GetHostProcessorCount(&count), static_cast<DWORD>(ERROR_NOT_FOUND));
        EXPECT_EQ(count, 77u);
        EXPECT_TRUE(log.Contains(L"fail to get processor count, ec=1168"));
        uint64_t bytes = 5;
        EXPECT_EQ(host::GetHostPhysicalMemory(&bytes), 0u);
        EXPECT_EQ(bytes, 0u);

        svc.Add(fakewbem::MakeInstance(L"Win32_ServerFeature", L"Win32_ServerFeature.ID=20", {{L"ID", 20L}}));
        svc.Add(fakewbem::MakeInstance(L"Win32_ComputerSystem", L"Win32_ComputerSystem.Name=\"H\"",
                                       {{L"NumberOfProcessors", 2L},
                                        {L"NumberOfLogicalProcessors", 16L},
                                        {L"TotalPhysicalMemory", L"68719476736"}}));
        EXPECT_EQ(host::IsHyperVRole(), 1u);
        EXPECT_EQ(svc.queries.back(), L"SELECT * FROM Win32_ServerFeature WHERE ID = '20'");
        EXPECT_EQ(host::GetHostProcessorCount(&count), 0u);
        EXPECT_EQ(count, 16u);
        EXPECT_TRUE(log.Contains(L"finish GetHostProcessorCount, count=2"));
        EXPECT_EQ(host::GetHostPhysicalMemory(&bytes), 0u);
        EXPECT_EQ(bytes, 68719476736ull);
    }
    EXPECT_EQ(svc.refs(), 1u);
}

// The running version from the kernel, not through VerifyVersionInfoW.
RTL_OSVERSIONINFOEXW RunningVersion() {
    RTL_OSVERSIONINFOEXW v{};
    v.dwOSVersionInfoSize = sizeof(v);
    using Fn = LONG(WINAPI*)(RTL_OSVERSIONINFOEXW*);
    auto get = reinterpret_cast<Fn>(reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ntdll.dll"), "RtlGetVersion")));
    get(&v);
    return v;
}

TEST(HostFactsTest, OsVersionComparesMajorMinorAndServicePackInOrder) {
    const RTL_OSVERSIONINFOEXW v = RunningVersion();
    const DWORD M = v.dwMajorVersion, m = v.dwMinorVersion;
    const WORD S = v.wServicePackMajor, s = v.wServicePackMinor;
    struct Case {
        DWORD major, minor;
        WORD spMajor, spMinor;
        bool atLeast;
    } cases[] = {
        {M, m, S, s, true},
        {M, m + 1, 0, 0, false},
        {M + 1, 0, 0, 0, false},
        {M, m, static_cast<WORD>(S + 1), 0, false},
        {M, m, S, static_cast<WORD>(s + 1), false},
        {M - 1, m + 9, 99, 0, true},  // an older major is older, whatever follows
        {5, 2, 0, 0, true},
        {6, 2, 0, 0, M > 6 || (M == 6 && m >= 2)},
    };
    for (const auto& c : cases)
        EXPECT_EQ(host::HA_IsHostOSGreaterEqual(c.major, c.minor, c.spMajor, c.spMinor) != FALSE, c.atLeast)
            << c.major << "." << c.minor << " sp" << c.spMajor << "." << c.spMinor << " on " << M << "." << m << " sp"
            << S << "." << s;
}

class RecordedRestart : public kx::platform::HostSystem {
public:
    std::vector<UINT> flags;
    BOOL answer = TRUE;
    BOOL RequestRestart(UINT f, DWORD reason) override {
        EXPECT_EQ(reason, 0u);
        flags.push_back(f);
        return answer;
    }
};

TEST(HostFactsTest, RestartAsksForRebootAndClosesOnlyHungApplicationsWhenForced) {
    RecordedRestart restart;
    kx::platform::testing::SetHostSystem(&restart);
    kxtest::LogCursor log;
    EXPECT_EQ(host::RebootSystem(true), 0u);
    EXPECT_EQ(host::RebootSystem(false), 0u);
    restart.answer = FALSE;  // refused: logged, not reported
    EXPECT_EQ(host::RebootSystem(true), 0u);
    kx::platform::testing::SetHostSystem(nullptr);
    EXPECT_EQ(restart.flags, (std::vector<UINT>{0x12, 0x02, 0x12}));
    EXPECT_TRUE(log.Contains(L"begin RebootSystem, force=1"));
    EXPECT_TRUE(log.Contains(L"finish RebootSystem, ret=1"));
    EXPECT_TRUE(log.Contains(L"finish RebootSystem, ret=0"));
}

}  // namespace
