// An in-process WMI service for tests: instances to query, methods that
// record every call with its input parameters and answer with chosen codes
// (or a job that runs for a number of polls), and reference counts a test
// can check. It reads WQL itself (SELECT with one = or LIKE condition, and
// ASSOCIATORS OF an adapter, answered with the configuration whose Index is
// the adapter's DeviceID, or of any instance named Class.Key="value" and
// linked with Associate()), so quoting and escaping mistakes of the client
// show as wrong answers.
#pragma once

#include <windows.h>
#include <wbemidl.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "common/com_owners.h"

namespace fakewbem {

// Fake objects alive in this process (objects, enumerators, services).
long LiveObjects();

struct NoCase {
    bool operator()(const std::wstring& a, const std::wstring& b) const { return _wcsicmp(a.c_str(), b.c_str()) < 0; }
};

// A value to put into a fake object.
struct Value {
    Value(const wchar_t* s);
    Value(const std::wstring& s);
    Value(long n);
    Value(bool b);
    Value(std::vector<std::wstring> list);
    Value(const Value& o) { ::VariantCopy(v.get(), const_cast<VARIANT*>(o.v.get())); }
    Value(Value&&) noexcept = default;
    static Value Null();
    kx::unique_variant v;
};

using Props = std::vector<std::pair<std::wstring, Value>>;

// A new instance (one reference, the caller's) with "__CLASS", "__PATH" and
// the given properties.
IWbemClassObject* MakeInstance(const std::wstring& className, const std::wstring& path, Props props);

// One recorded ExecMethod.
struct MethodCall {
    std::wstring path;
    std::wstring method;
    bool hasInput = false;
    // Parameters in the order they were put, with the names as given.
    std::vector<std::pair<std::wstring, std::shared_ptr<kx::unique_variant>>> params;
    const VARIANT* Param(const std::wstring& name) const;  // exact name
};

// What a method answers.
struct MethodAnswer {
    long returnValue = 0;
    // >0: the method starts a job that is running for this many polls, then
    // ends with `jobState` (7 completed) and `jobError`.
    int jobPolls = 0;
    long jobState = 7;
    long jobError = 0;
    HRESULT callResult = S_OK;  // a failing ExecMethod itself
};

class FakeService : public IWbemServices {
public:
    FakeService();
    ~FakeService();

    // Instances to query; they keep their order.
    void Add(IWbemClassObject* adopt);
    // Declares `method` of the class (matched case-insensitively) with its
    // input parameter names (empty: no input object) and its answer.
    void DeclareMethod(const std::wstring& className, const std::wstring& method, std::vector<std::wstring> inputs,
                       MethodAnswer answer);
    void SetAnswer(const std::wstring& method, MethodAnswer answer);
    // ASSOCIATORS OF the instance whose "__PATH" is `fromPath` answers
    // `adopt` (in the order linked, filtered by the asked ResultClass).
    void Associate(const std::wstring& fromPath, IWbemClassObject* adopt);
    // A failing ExecQuery for every query from now on (S_OK: none).
    HRESULT failQueries = S_OK;

    std::vector<std::wstring> queries;      // WQL text of every ExecQuery
    std::vector<std::wstring> objectPaths;  // every GetObject path
    std::vector<MethodCall> calls;
    int jobPollsSeen = 0;
    ULONG refs() const { return refs_.load(); }

    // IUnknown
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override;
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
    ULONG STDMETHODCALLTYPE Release() override;
    // IWbemServices: what the client uses.
    HRESULT STDMETHODCALLTYPE GetObject(const BSTR path, LONG flags, IWbemContext* ctx, IWbemClassObject** obj,
                                        IWbemCallResult** result) override;
    HRESULT STDMETHODCALLTYPE ExecQuery(const BSTR lang, const BSTR query, LONG flags, IWbemContext* ctx,
                                        IEnumWbemClassObject** out) override;
    HRESULT STDMETHODCALLTYPE ExecMethod(const BSTR path, const BSTR method, LONG flags, IWbemContext* ctx,
                                         IWbemClassObject* in, IWbemClassObject** out,
                                         IWbemCallResult** result) override;
    // The rest: not implemented.
#define KX_FAKE_NOTIMPL(name, ...) \
    HRESULT STDMETHODCALLTYPE name(__VA_ARGS__) override { return E_NOTIMPL; }
    KX_FAKE_NOTIMPL(OpenNamespace, const BSTR, LONG, IWbemContext*, IWbemServices**, IWbemCallResult**)
    KX_FAKE_NOTIMPL(CancelAsyncCall, IWbemObjectSink*)
    KX_FAKE_NOTIMPL(QueryObjectSink, LONG, IWbemObjectSink**)
    KX_FAKE_NOTIMPL(GetObjectAsync, const BSTR, LONG, IWbemContext*, IWbemObjectSink*)
    KX_FAKE_NOTIMPL(PutClass, IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**)
    KX_FAKE_NOTIMPL(PutClassAsync, IWbemClassObject*, LONG, IWbemContext*, IWbemObjectSink*)
    KX_FAKE_NOTIMPL(DeleteClass, const BSTR, LONG, IWbemContext*, IWbemCallResult**)
    KX_FAKE_NOTIMPL(DeleteClassAsync, const BSTR, LONG, IWbemContext*, IWbemObjectSink*)
    KX_FAKE_NOTIMPL(CreateClassEnum, const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**)
    KX_FAKE_NOTIMPL(CreateClassEnumAsync, const BSTR, LONG, IWbemContext*, IWbemObjectSink*)
    KX_FAKE_NOTIMPL(PutInstance, IWbemClassObject*, LONG, IWbemContext*, IWbemCallResult**)
    KX_FAKE_NOTIMPL(PutInstanceAsync, IWbemClassObject*, LONG, IWbemContext*, IWbemObjectSink*)
    KX_FAKE_NOTIMPL(DeleteInstance, const BSTR, LONG, IWbemContext*, IWbemCallResult**)
    KX_FAKE_NOTIMPL(DeleteInstanceAsync, const BSTR, LONG, IWbemContext*, IWbemObjectSink*)
    KX_FAKE_NOTIMPL(CreateInstanceEnum, const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**)
    KX_FAKE_NOTIMPL(CreateInstanceEnumAsync, const BSTR, LONG, IWbemContext*, IWbemObjectSink*)
    KX_FAKE_NOTIMPL(ExecQueryAsync, const BSTR, const BSTR, LONG, IWbemContext*, IWbemObjectSink*)
    KX_FAKE_NOTIMPL(ExecNotificationQuery, const BSTR, const BSTR, LONG, IWbemContext*, IEnumWbemClassObject**)
    KX_FAKE_NOTIMPL(ExecNotificationQueryAsync, const BSTR, const BSTR, LONG, IWbemContext*, IWbemObjectSink*)
    KX_FAKE_NOTIMPL(ExecMethodAsync, const BSTR, const BSTR, LONG, IWbemContext*, IWbemClassObject*, IWbemObjectSink*)
#undef KX_FAKE_NOTIMPL

private:
    struct Method {
        std::wstring className;
        std::vector<std::wstring> inputs;
        MethodAnswer answer;
    };
    struct Job {
        std::wstring path;
        int pollsLeft;
        long state;
        long error;
    };
    HRESULT Select(const std::wstring& query, std::vector<kx::com_ptr<IWbemClassObject>>* out);
    std::atomic<ULONG> refs_{1};
    std::vector<kx::com_ptr<IWbemClassObject>> instances_;
    std::vector<std::pair<std::wstring, kx::com_ptr<IWbemClassObject>>> links_;
    std::map<std::wstring, Method, NoCase> methods_;
    std::vector<Job> jobs_;
};

// Puts a service in front of the client's connector for the life of the
// scope: every connection gets a new reference to `service`.
class ConnectorScope {
public:
    explicit ConnectorScope(IWbemServices* service);
    ~ConnectorScope();
    int connections() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace fakewbem
