// The WMI client against the recording in-process service: WQL text and
// its escaping (read back by the service's own WQL reader), property
// conversions, the variant types of method arguments, job waits on a clock
// that does not really wait, and the COM references left behind.
#include <gtest/gtest.h>

#include "fake_wbem.h"
#include "platform/wmi/wmi_client.h"

using namespace kx::wmi;
using fakewbem::FakeService;
using fakewbem::MakeInstance;
using fakewbem::Value;

namespace {

class FakeClock : public JobClock {
public:
    uint64_t now = 1000;
    std::vector<DWORD> sleeps;
    uint64_t NowMs() noexcept override { return now; }
    void SleepMs(DWORD ms) noexcept override {
        sleeps.push_back(ms);
        now += ms;
    }
};

class WmiClientTest : public ::testing::Test {
protected:
    void SetUp() override {
        baseline_ = fakewbem::LiveObjects();
        service_ = std::make_unique<FakeService>();
        kx::wmi::testing::SetJobClock(&clock_);
    }
    void TearDown() override {
        kx::wmi::testing::SetJobClock(nullptr);
        // Everything the client took a reference to has been given back.
        EXPECT_EQ(service_->refs(), 1u);
        service_.reset();
        EXPECT_EQ(fakewbem::LiveObjects(), baseline_);
    }
    WmiService Service() {
        service_->AddRef();
        return WmiService(service_.get());
    }
    void AddAdapter(const std::wstring& id, const std::wstring& name, const std::wstring& pnp) {
        service_->Add(MakeInstance(L"Win32_NetworkAdapter", L"Win32_NetworkAdapter.DeviceID=\"" + id + L"\"",
                                   {{L"DeviceID", id}, {L"Name", name}, {L"PNPDeviceID", pnp}}));
    }
    std::vector<std::wstring> Ids(WmiQuery& q) {
        std::vector<std::wstring> ids;
        for (WmiObject o = q.Next(); o; o = q.Next()) ids.push_back(o.GetProperty(L"DeviceID"));
        return ids;
    }

    std::unique_ptr<FakeService> service_;
    FakeClock clock_;
    long baseline_ = 0;
};

TEST_F(WmiClientTest, FiltersSurviveQuotingAndFindExactlyTheirInstances) {
    AddAdapter(L"1", L"Intel PRO/1000", L"PCI\\VEN_8086&DEV_100E");
    AddAdapter(L"2", L"O'Brien's NIC", L"ROOT\\NET\\0000");
    AddAdapter(L"3", L"back\\slash \"quoted\"", L"PCI\\VEN_10EC");
    AddAdapter(L"4", L"Intel PRO/1000 #2", L"USB\\VID_0B95");
    struct Case {
        bool like;
        std::wstring property, value;
        std::vector<std::wstring> ids;
    } cases[] = {
        {false, L"Name", L"O'Brien's NIC", {L"2"}},
        {false, L"Name", L"back\\slash \"quoted\"", {L"3"}},
        {false, L"Name", L"intel pro/1000", {L"1"}},  // WQL compares without case
        {false, L"Name", L"Intel", {}},
        {true, L"Name", L"Intel PRO/1000", {L"1", L"4"}},  // the start of the name
        {true, L"Name", L"O\\'Brien", {L"2"}},  // already escaped
        {true, L"Name", L"O'Brien", {L"2"}},
        {true, L"Name", L"back\\", {L"3"}},  // a lone trailing backslash stays inside the literal
        {true, L"PNPDeviceID", L"PCI\\\\", {L"1", L"3"}},  // one escaped backslash
        {true, L"PNPDeviceID", L"ROOT\\\\NET", {L"2"}},
        {true, L"Name", L"NIC", {}},
    };
    for (const auto& c : cases) {
        WmiEnumerator e(Service(), L"Win32_NetworkAdapter");
        c.like ? e.SetLikeFilter(c.property, c.value) : e.SetEqualFilter(c.property, c.value);
        ASSERT_EQ(e.Start(), S_OK) << e.Text();
        EXPECT_EQ(Ids(e), c.ids) << e.Text();
    }
    EXPECT_EQ(service_->queries[0], L"SELECT * FROM Win32_NetworkAdapter WHERE Name = 'O\\'Brien\\'s NIC'");
    EXPECT_EQ(service_->queries[8], L"SELECT * FROM Win32_NetworkAdapter WHERE PNPDeviceID LIKE 'PCI\\\\%'");
}

TEST_F(WmiClientTest, NamesThatWouldChangeTheQueryAreRefusedBeforeWmiSeesThem) {
    const size_t before = service_->queries.size();
    {
        WmiEnumerator e(Service(), L"Win32_NetworkAdapter");
        e.SetEqualFilter(L"Name = 'x' OR Name", L"y");
        EXPECT_EQ(e.Start(), HRESULT(WBEM_E_INVALID_PARAMETER));
        EXPECT_FALSE(e.Next());
    }
    {
        WmiEnumerator e(Service(), L"Win32_NetworkAdapter; DROP");
        EXPECT_EQ(e.Start(), HRESULT(WBEM_E_INVALID_PARAMETER));
    }
    {
        WmiAssociator a(Service(), L"Win32_NetworkAdapter.DeviceID='1'} WHERE x");
        EXPECT_EQ(a.Start(), HRESULT(WBEM_E_INVALID_PARAMETER));
    }
    EXPECT_EQ(service_->queries.size(), before);
    // A service the query cannot reach gives the failure, not a crash.
    WmiEnumerator none(WmiService(), L"Win32_NetworkAdapter");
    EXPECT_EQ(none.Start(), HRESULT(WBEM_E_INVALID_PARAMETER));
    EXPECT_FALSE(none.Next());
}

TEST_F(WmiClientTest, AssociatorsAskForTheResultClassOfTheObject) {
    service_->Add(MakeInstance(L"Win32_NetworkAdapterConfiguration", L"Win32_NetworkAdapterConfiguration.Index=7",
                               {{L"Index", 7L}, {L"MACAddress", L"00:15:5D:01:02:03"}}));
    service_->Add(MakeInstance(L"Win32_NetworkAdapterConfiguration", L"Win32_NetworkAdapterConfiguration.Index=8",
                               {{L"Index", 8L}}));
    WmiAssociator a(Service(), L"Win32_NetworkAdapter.DeviceID=" + WqlQuote(L"7"));
    a.SetResultClass(L"Win32_NetworkAdapterConfiguration");
    ASSERT_EQ(a.Start(), S_OK);
    EXPECT_EQ(a.Text(),
              L"ASSOCIATORS OF {Win32_NetworkAdapter.DeviceID='7'} WHERE ResultClass = Win32_NetworkAdapterConfiguration");
    WmiObject config = a.Next();
    EXPECT_EQ(config.GetProperty(L"MACAddress"), L"00:15:5D:01:02:03");
    EXPECT_FALSE(a.Next());
    EXPECT_FALSE(a.Next());  // stays at the end
}

TEST_F(WmiClientTest, PropertiesConvertAndFallBackToTheirDefaults) {
    service_->Add(MakeInstance(L"T", L"T=@", {{L"Text", L"abc"},
                                              {L"Number", 42L},
                                              {L"Negative", -5L},
                                              {L"Flag", true},
                                              {L"Off", false},
                                              {L"Big", L"25276022784"},
                                              {L"Small", L"2147483647"},
                                              {L"Bad", L"12x"},
                                              {L"Null", Value::Null()},
                                              {L"List", std::vector<std::wstring>{L"a", L"", L"c"}},
                                              {L"Empty", std::vector<std::wstring>{}}}));
    WmiEnumerator e(Service(), L"T");
    ASSERT_EQ(e.Start(), S_OK);
    const WmiObject o = e.Next();
    ASSERT_TRUE(o);
    const WmiObject copy = o;  // copies share one object
    EXPECT_EQ(copy.get(), o.get());

    EXPECT_EQ(o.GetProperty(L"Text"), L"abc");
    EXPECT_EQ(o.GetProperty(L"Number"), L"42");
    EXPECT_EQ(o.GetProperty(L"Negative"), L"-5");
    EXPECT_EQ(o.GetProperty(L"Missing"), L"");
    EXPECT_EQ(o.GetProperty(L"Null"), L"");
    EXPECT_EQ(o.GetProperty(L"List"), L"");

    EXPECT_TRUE(o.GetBoolProperty(L"Flag", false));
    EXPECT_FALSE(o.GetBoolProperty(L"Off", true));
    EXPECT_TRUE(o.GetBoolProperty(L"Number", false));
    EXPECT_TRUE(o.GetBoolProperty(L"Missing", true));
    EXPECT_FALSE(o.GetBoolProperty(L"Text", false));

    EXPECT_EQ(o.GetLongProperty(L"Number", -1), 42);
    EXPECT_EQ(o.GetLongProperty(L"Negative", 0), -5);
    EXPECT_EQ(o.GetLongProperty(L"Small", -1), 2147483647);
    EXPECT_EQ(o.GetLongProperty(L"Big", -1), -1);  // beyond 32 bits
    EXPECT_EQ(o.GetLongProperty(L"Bad", -1), -1);
    EXPECT_EQ(o.GetLongProperty(L"Null", -7), -7);
    EXPECT_EQ(o.GetLongProperty(L"Missing", -1), -1);

    EXPECT_EQ(o.GetMultiValueProperty(L"List"), (std::vector<std::wstring>{L"a", L"", L"c"}));
    EXPECT_TRUE(o.GetMultiValueProperty(L"Empty").empty());
    EXPECT_TRUE(o.GetMultiValueProperty(L"Text").empty());
    EXPECT_TRUE(o.GetMultiValueProperty(L"Missing").empty());

    const WmiObject empty;
    EXPECT_EQ(empty.GetProperty(L"Text"), L"");
    EXPECT_TRUE(empty.GetBoolProperty(L"Flag", true));
    EXPECT_EQ(empty.GetLongProperty(L"Number", 3), 3);
}

TEST_F(WmiClientTest, ArgumentsTravelWithTheirVariantTypes) {
    service_->DeclareMethod(L"Win32_NetworkAdapterConfiguration", L"Try", {L"Text", L"Number", L"Texts", L"Metrics"},
                            {});
    service_->Add(MakeInstance(L"Win32_NetworkAdapterConfiguration", L"Cfg.Index=1", {}));
    WmiEnumerator e(Service(), L"Win32_NetworkAdapterConfiguration");
    ASSERT_EQ(e.Start(), S_OK);
    const WmiObject target = e.Next();

    WmiMethod m(Service(), L"Win32_NetWorkAdapterConfiguration", L"Try");
    HRESULT hr = E_FAIL;
    WmiInputParam in = m.GetInputParam(&hr);
    ASSERT_EQ(hr, S_OK);
    ASSERT_TRUE(in);
    EXPECT_EQ(in.PutValue(L"Text", std::wstring(L"x\0y", 3)), S_OK);
    EXPECT_EQ(in.PutValue(L"Number", 1L), S_OK);
    EXPECT_EQ(in.PutValue(L"Texts", std::vector<std::wstring>{L"10.0.0.1", L"10.0.0.2"}), S_OK);
    EXPECT_EQ(in.PutValue(L"Metrics", std::vector<uint16_t>{1, 65535}), S_OK);
    EXPECT_EQ(in.PutValue(L"Undeclared", 1L), HRESULT(WBEM_E_NOT_FOUND));

    const WmiOutputParam out = m.Invoke(&in, target, &hr);
    ASSERT_EQ(hr, S_OK);
    EXPECT_EQ(out.GetReturnCode(), 0u);
    ASSERT_EQ(service_->calls.size(), 1u);
    const auto& call = service_->calls[0];
    EXPECT_EQ(call.path, L"Cfg.Index=1");
    EXPECT_EQ(service_->objectPaths.at(0), L"Win32_NetWorkAdapterConfiguration");

    const VARIANT* text = call.Param(L"Text");
    ASSERT_EQ(text->vt, VT_BSTR);
    EXPECT_EQ(std::wstring(text->bstrVal, SysStringLen(text->bstrVal)), std::wstring(L"x\0y", 3));
    ASSERT_EQ(call.Param(L"Number")->vt, VT_I4);
    EXPECT_EQ(call.Param(L"Number")->lVal, 1);

    // Element values are read back through the setters' tests; here the types.
    EXPECT_EQ(call.Param(L"Texts")->vt, VT_ARRAY | VT_BSTR);
    EXPECT_EQ(call.Param(L"Metrics")->vt, VT_ARRAY | VT_I4);
}

TEST_F(WmiClientTest, MethodFailuresComeBackAsCodes) {
    service_->DeclareMethod(L"C", L"Refuses", {}, {.callResult = HRESULT(WBEM_E_ACCESS_DENIED)});
    service_->DeclareMethod(L"C", L"Restart", {}, {.returnValue = 1});
    service_->Add(MakeInstance(L"C", L"C.Id=1", {}));
    WmiEnumerator e(Service(), L"C");
    ASSERT_EQ(e.Start(), S_OK);
    const WmiObject target = e.Next();
    HRESULT hr = S_OK;

    EXPECT_FALSE(WmiMethod(Service(), L"C", L"Restart").GetInputParam(&hr));  // no inputs
    EXPECT_EQ(hr, S_OK);
    EXPECT_FALSE(WmiMethod(Service(), L"Unknown", L"Restart").GetInputParam(&hr));
    EXPECT_EQ(hr, HRESULT(WBEM_E_NOT_FOUND));

    EXPECT_EQ(WmiMethod(Service(), L"C", L"Restart").Invoke(nullptr, target, &hr).GetReturnCode(), 1u);
    EXPECT_FALSE(service_->calls.back().hasInput);
    EXPECT_EQ(WmiMethod(Service(), L"C", L"Refuses").Invoke(nullptr, target, &hr).GetReturnCode(),
              static_cast<DWORD>(WBEM_E_ACCESS_DENIED));
    EXPECT_EQ(hr, HRESULT(WBEM_E_ACCESS_DENIED));
    // A target without a path reaches no method at all.
    const size_t calls = service_->calls.size();
    EXPECT_EQ(WmiMethod(Service(), L"C", L"Restart").Invoke(nullptr, WmiObject(), &hr).GetReturnCode(),
              static_cast<DWORD>(WBEM_E_INVALID_PARAMETER));
    EXPECT_EQ(service_->calls.size(), calls);
}

TEST_F(WmiClientTest, JobsArePolledUntilTheyEndOrTheLimitPasses) {
    struct Case {
        const wchar_t* name;
        fakewbem::MethodAnswer answer;
        DWORD code;
        int polls;
    } cases[] = {
        {L"Completes", {.jobPolls = 3, .jobState = kJobCompleted}, 0, 4},
        {L"Fails", {.jobPolls = 2, .jobState = kJobException, .jobError = 32779}, 32779, 3},
        {L"Killed", {.jobPolls = 1, .jobState = kJobKilled, .jobError = 0}, kJobKilled, 2},
        // Never ends within ten minutes of 500 ms polls.
        {L"Hangs", {.jobPolls = 1000000}, ERROR_TIMEOUT, 1201},
    };
    service_->Add(MakeInstance(L"C", L"C.Id=1", {}));
    WmiEnumerator e(Service(), L"C");
    ASSERT_EQ(e.Start(), S_OK);
    const WmiObject target = e.Next();
    for (const auto& c : cases) {
        service_->DeclareMethod(L"C", c.name, {}, c.answer);
        service_->jobPollsSeen = 0;
        clock_.sleeps.clear();
        const uint64_t start = clock_.now;
        HRESULT hr = E_FAIL;
        WmiOutputParam out = WmiMethod(Service(), L"C", c.name).Invoke(nullptr, target, &hr);
        ASSERT_TRUE(out.IsRunning()) << c.name;
        out.WaitJobDone(500, 600000);
        EXPECT_FALSE(out.IsRunning());
        EXPECT_EQ(out.GetReturnCode(), c.code) << c.name;
        EXPECT_EQ(service_->jobPollsSeen, c.polls) << c.name;
        EXPECT_EQ(clock_.sleeps.size(), static_cast<size_t>(c.polls - 1)) << c.name;
        for (DWORD s : clock_.sleeps) EXPECT_EQ(s, 500u);
        EXPECT_LE(clock_.now - start, 600000u);
    }
}

}  // namespace
