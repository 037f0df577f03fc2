#include "fake_wbem.h"

#include <cwctype>

#include "platform/wmi/wmi_client.h"

namespace fakewbem {

namespace {

std::atomic<long> g_live{0};

bool SameText(const std::wstring& a, const std::wstring& b) { return _wcsicmp(a.c_str(), b.c_str()) == 0; }

kx::unique_variant Copy(const VARIANT* from) {
    kx::unique_variant v;
    if (from) ::VariantCopy(v.get(), const_cast<VARIANT*>(from));
    return v;
}

// IUnknown of a fake that lives on the heap: counted in LiveObjects(),
// deleted with its last reference.
template <class I, const IID& Iid>
class Counted : public I {
public:
    Counted() { ++g_live; }
    virtual ~Counted() { --g_live; }
    HRESULT STDMETHODCALLTYPE QueryInterface(REFIID riid, void** out) override {
        if (riid == IID_IUnknown || riid == Iid) {
            *out = static_cast<I*>(this);
            AddRef();
            return S_OK;
        }
        *out = nullptr;
        return E_NOINTERFACE;
    }
    ULONG STDMETHODCALLTYPE AddRef() override { return ++refs_; }
    ULONG STDMETHODCALLTYPE Release() override {
        const ULONG n = --refs_;
        if (n == 0) delete this;
        return n;
    }

private:
    std::atomic<ULONG> refs_{1};
};

// An instance, a class (with methods) or a method's parameter object.
class FakeObject : public Counted<IWbemClassObject, IID_IWbemClassObject> {
public:

    // Parameter objects accept only their declared names.
    bool closed = false;
    std::vector<std::pair<std::wstring, kx::unique_variant>> props;
    std::map<std::wstring, std::vector<std::wstring>, NoCase> methods;  // class objects

    kx::unique_variant* Find(const std::wstring& name) {
        for (auto& [n, v] : props)
            if (SameText(n, name)) return &v;
        return nullptr;
    }
    void Set(const std::wstring& name, const VARIANT* value) {
        if (auto* v = Find(name)) {
            ::VariantCopy(v->put(), const_cast<VARIANT*>(value));
            return;
        }
        props.emplace_back(name, Copy(value));
    }

    HRESULT STDMETHODCALLTYPE Get(LPCWSTR name, LONG, VARIANT* value, CIMTYPE* type, LONG* flavor) override {
        if (type) *type = 0;
        if (flavor) *flavor = 0;
        kx::unique_variant* v = Find(name);
        if (!v) return WBEM_E_NOT_FOUND;
        if (value) {
            ::VariantInit(value);
            return ::VariantCopy(value, v->get());
        }
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Put(LPCWSTR name, LONG, VARIANT* value, CIMTYPE) override {
        kx::unique_variant* v = Find(name);
        if (closed && !v) return WBEM_E_NOT_FOUND;
        // The order and spelling of puts is what the test reads.
        putOrder.emplace_back(name);
        Set(name, value);
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE SpawnInstance(LONG, IWbemClassObject** out) override {
        auto* o = new FakeObject;
        o->closed = closed;
        for (auto& [n, v] : props) o->props.emplace_back(n, kx::unique_variant());
        *out = o;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE GetMethod(LPCWSTR name, LONG, IWbemClassObject** in, IWbemClassObject** out) override {
        if (out) *out = nullptr;
        if (in) *in = nullptr;
        auto it = methods.find(name);
        if (it == methods.end()) return WBEM_E_NOT_FOUND;
        if (in && !it->second.empty()) {
            auto* sig = new FakeObject;
            sig->closed = true;
            for (const auto& p : it->second) sig->props.emplace_back(p, kx::unique_variant());
            *in = sig;
        }
        return S_OK;
    }
    std::vector<std::wstring> putOrder;

    // Not used by the client.
#define KX_FAKE_NOTIMPL(name, ...) \
    HRESULT STDMETHODCALLTYPE name(__VA_ARGS__) override { return E_NOTIMPL; }
    KX_FAKE_NOTIMPL(GetQualifierSet, IWbemQualifierSet**)
    KX_FAKE_NOTIMPL(Delete, LPCWSTR)
    KX_FAKE_NOTIMPL(GetNames, LPCWSTR, LONG, VARIANT*, SAFEARRAY**)
    KX_FAKE_NOTIMPL(BeginEnumeration, LONG)
    KX_FAKE_NOTIMPL(Next, LONG, BSTR*, VARIANT*, CIMTYPE*, LONG*)
    KX_FAKE_NOTIMPL(EndEnumeration, )
    KX_FAKE_NOTIMPL(GetPropertyQualifierSet, LPCWSTR, IWbemQualifierSet**)
    KX_FAKE_NOTIMPL(Clone, IWbemClassObject**)
    KX_FAKE_NOTIMPL(GetObjectText, LONG, BSTR*)
    KX_FAKE_NOTIMPL(SpawnDerivedClass, LONG, IWbemClassObject**)
    KX_FAKE_NOTIMPL(CompareTo, LONG, IWbemClassObject*)
    KX_FAKE_NOTIMPL(GetPropertyOrigin, LPCWSTR, BSTR*)
    KX_FAKE_NOTIMPL(InheritsFrom, LPCWSTR)
    KX_FAKE_NOTIMPL(PutMethod, LPCWSTR, LONG, IWbemClassObject*, IWbemClassObject*)
    KX_FAKE_NOTIMPL(DeleteMethod, LPCWSTR)
    KX_FAKE_NOTIMPL(BeginMethodEnumeration, LONG)
    KX_FAKE_NOTIMPL(NextMethod, LONG, BSTR*, IWbemClassObject**, IWbemClassObject**)
    KX_FAKE_NOTIMPL(EndMethodEnumeration, )
    KX_FAKE_NOTIMPL(GetMethodQualifierSet, LPCWSTR, IWbemQualifierSet**)
    KX_FAKE_NOTIMPL(GetMethodOrigin, LPCWSTR, BSTR*)
#undef KX_FAKE_NOTIMPL
};

class FakeEnum : public Counted<IEnumWbemClassObject, IID_IEnumWbemClassObject> {
public:
    explicit FakeEnum(std::vector<kx::com_ptr<IWbemClassObject>> items) : items_(std::move(items)) {}
    HRESULT STDMETHODCALLTYPE Reset() override {
        next_ = 0;
        return S_OK;
    }
    HRESULT STDMETHODCALLTYPE Next(LONG, ULONG count, IWbemClassObject** objs, ULONG* returned) override {
        ULONG n = 0;
        while (n < count && next_ < items_.size()) {
            objs[n] = items_[next_++].get();
            objs[n++]->AddRef();
        }
        *returned = n;
        return n == count ? WBEM_S_NO_ERROR : WBEM_S_FALSE;
    }
    HRESULT STDMETHODCALLTYPE NextAsync(ULONG, IWbemObjectSink*) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Clone(IEnumWbemClassObject**) override { return E_NOTIMPL; }
    HRESULT STDMETHODCALLTYPE Skip(LONG, ULONG) override { return E_NOTIMPL; }

private:
    std::vector<kx::com_ptr<IWbemClassObject>> items_;
    size_t next_ = 0;
};

// ---- a small WQL reader ------------------------------------------------------------

struct Reader {
    const std::wstring& s;
    size_t i = 0;
    void Space() {
        while (i < s.size() && s[i] == L' ') ++i;
    }
    bool Word(const wchar_t* w) {
        Space();
        const size_t n = wcslen(w);
        if (_wcsnicmp(s.c_str() + i, w, n) != 0) return false;
        i += n;
        return true;
    }
    std::wstring Name() {
        Space();
        const size_t b = i;
        while (i < s.size() && (iswalnum(s[i]) || s[i] == L'_')) ++i;
        return s.substr(b, i - b);
    }
    // A quoted literal with backslash escapes; false when malformed.
    bool Literal(std::wstring* out) {
        Space();
        if (i < s.size() && iswdigit(s[i])) {  // a number
            const size_t b = i;
            while (i < s.size() && iswdigit(s[i])) ++i;
            *out = s.substr(b, i - b);
            return true;
        }
        if (i >= s.size() || (s[i] != L'\'' && s[i] != L'"')) return false;
        const wchar_t q = s[i++];
        out->clear();
        while (i < s.size() && s[i] != q) {
            if (s[i] == L'\\') {
                if (++i >= s.size()) return false;
            }
            *out += s[i++];
        }
        if (i >= s.size()) return false;
        ++i;
        return true;
    }
    bool End() {
        Space();
        return i == s.size();
    }
};

// LIKE: '%' any run, '_' one character; case-insensitive.
bool Like(const wchar_t* text, const wchar_t* pat) {
    if (!*pat) return !*text;
    if (*pat == L'%') return Like(text, pat + 1) || (*text && Like(text + 1, pat));
    if (!*text) return false;
    if (*pat == L'_' || towupper(*pat) == towupper(*text)) return Like(text + 1, pat + 1);
    return false;
}

std::wstring Text(IWbemClassObject* o, const std::wstring& name) {
    kx::unique_variant v;
    if (FAILED(o->Get(name.c_str(), 0, v.put(), nullptr, nullptr))) return L"\x1";  // absent
    if (v.type() == VT_NULL) return L"\x1";
    kx::unique_variant s;
    if (FAILED(::VariantChangeType(s.put(), v.get(), 0, VT_BSTR))) return L"\x1";
    return s->bstrVal;
}

}  // namespace

long LiveObjects() { return g_live.load(); }

// ---- values ----------------------------------------------------------------------------

Value::Value(const wchar_t* s) : Value(std::wstring(s)) {}
Value::Value(const std::wstring& s) {
    v->vt = VT_BSTR;
    v->bstrVal = kx::MakeBstr(s).release();
}
Value::Value(long n) {
    v->vt = VT_I4;
    v->lVal = n;
}
Value::Value(bool b) {
    v->vt = VT_BOOL;
    v->boolVal = b ? VARIANT_TRUE : VARIANT_FALSE;
}
Value::Value(std::vector<std::wstring> list) {
    kx::unique_safearray a(::SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(list.size())));
    for (LONG i = 0; i < static_cast<LONG>(list.size()); ++i) {
        kx::unique_bstr b = kx::MakeBstr(list[i]);
        ::SafeArrayPutElement(a.get(), &i, b.get());
    }
    v.reset_array(VT_BSTR, std::move(a));
}
Value Value::Null() {
    Value n(0L);
    n.v->vt = VT_NULL;
    return n;
}

IWbemClassObject* MakeInstance(const std::wstring& className, const std::wstring& path, Props props) {
    auto* o = new FakeObject;
    Value cls(className), p(path);
    o->Set(L"__CLASS", cls.v.get());
    o->Set(L"__PATH", p.v.get());
    for (auto& [name, value] : props) o->Set(name, value.v.get());
    return o;
}

const VARIANT* MethodCall::Param(const std::wstring& name) const {
    for (const auto& [n, v] : params)
        if (n == name) return v->get();
    return nullptr;
}

// ---- the service -------------------------------------------------------------------------

FakeService::FakeService() { ++g_live; }
FakeService::~FakeService() { --g_live; }

HRESULT FakeService::QueryInterface(REFIID riid, void** out) {
    if (riid == IID_IUnknown || riid == IID_IWbemServices) {
        *out = static_cast<IWbemServices*>(this);
        AddRef();
        return S_OK;
    }
    *out = nullptr;
    return E_NOINTERFACE;
}

ULONG FakeService::Release() {
    // Owned by the test (on its stack): the count is only watched.
    return --refs_;
}

void FakeService::Add(IWbemClassObject* adopt) { instances_.push_back(kx::com_adopt(adopt)); }

void FakeService::DeclareMethod(const std::wstring& className, const std::wstring& method,
                                std::vector<std::wstring> inputs, MethodAnswer answer) {
    methods_[method] = Method{className, std::move(inputs), answer};
}

void FakeService::Associate(const std::wstring& fromPath, IWbemClassObject* adopt) {
    links_.emplace_back(fromPath, kx::com_adopt(adopt));
}

void FakeService::SetAnswer(const std::wstring& method, MethodAnswer answer) { methods_.at(method).answer = answer; }

HRESULT FakeService::Select(const std::wstring& query, std::vector<kx::com_ptr<IWbemClassObject>>* out) {
    Reader r{query};
    std::wstring cls, prop, value;
    bool like = false;
    if (r.Word(L"ASSOCIATORS OF {")) {
        if (!r.Word(L"Win32_NetworkAdapter.DeviceID=")) {
            // {Class.Key="value"} WHERE ResultClass = C: the links of that instance.
            const std::wstring from = r.Name();
            std::wstring key;
            if (from.empty() || !r.Word(L".") || (key = r.Name()).empty() || !r.Word(L"=") || !r.Literal(&value) ||
                !r.Word(L"}") || !r.Word(L"WHERE") || !r.Word(L"ResultClass") || !r.Word(L"="))
                return WBEM_E_INVALID_QUERY;
            cls = r.Name();
            if (!r.End()) return WBEM_E_INVALID_QUERY;
            for (const auto& inst : instances_) {
                if (!SameText(Text(inst.get(), L"__CLASS"), from) || Text(inst.get(), key) != value) continue;
                for (const auto& [path, linked] : links_)
                    if (path == Text(inst.get(), L"__PATH") && SameText(Text(linked.get(), L"__CLASS"), cls))
                        out->push_back(kx::com_share(linked.get()));
            }
            return S_OK;
        }
        // {Win32_NetworkAdapter.DeviceID='n'} WHERE ResultClass = C
        if (!r.Literal(&value) || !r.Word(L"}") || !r.Word(L"WHERE") ||
            !r.Word(L"ResultClass") || !r.Word(L"="))
            return WBEM_E_INVALID_QUERY;
        cls = r.Name();
        if (!r.End() || !SameText(cls, L"Win32_NetworkAdapterConfiguration")) return WBEM_E_INVALID_QUERY;
        prop = L"Index";
    } else {
        if (!r.Word(L"SELECT") || !r.Word(L"*") || !r.Word(L"FROM")) return WBEM_E_INVALID_QUERY;
        cls = r.Name();
        if (cls.empty()) return WBEM_E_INVALID_QUERY;
        if (r.Word(L"WHERE")) {
            prop = r.Name();
            if (r.Word(L"LIKE"))
                like = true;
            else if (!r.Word(L"="))
                return WBEM_E_INVALID_QUERY;
            if (prop.empty() || !r.Literal(&value)) return WBEM_E_INVALID_QUERY;
        }
        if (!r.End()) return WBEM_E_INVALID_QUERY;
    }
    for (const auto& inst : instances_) {
        if (!SameText(Text(inst.get(), L"__CLASS"), cls)) continue;
        if (!prop.empty()) {
            const std::wstring have = Text(inst.get(), prop);
            if (like ? !Like(have.c_str(), value.c_str()) : !SameText(have, value)) continue;
        }
        out->push_back(kx::com_share(inst.get()));
    }
    return S_OK;
}

HRESULT FakeService::ExecQuery(const BSTR lang, const BSTR query, LONG, IWbemContext*, IEnumWbemClassObject** out) {
    *out = nullptr;
    queries.emplace_back(query ? query : L"");
    if (!lang || _wcsicmp(lang, L"WQL") != 0) return WBEM_E_INVALID_QUERY_TYPE;
    if (FAILED(failQueries)) return failQueries;
    std::vector<kx::com_ptr<IWbemClassObject>> found;
    if (HRESULT hr = Select(queries.back(), &found); FAILED(hr)) return hr;
    *out = new FakeEnum(std::move(found));
    return S_OK;
}

HRESULT FakeService::GetObject(const BSTR path, LONG, IWbemContext*, IWbemClassObject** obj, IWbemCallResult**) {
    *obj = nullptr;
    const std::wstring p = path ? path : L"";
    objectPaths.push_back(p);
    for (auto& job : jobs_) {
        if (job.path != p) continue;
        ++jobPollsSeen;
        const bool running = job.pollsLeft > 0;
        if (running) --job.pollsLeft;
        *obj = MakeInstance(L"FakeJob", p,
                            {{L"JobState", running ? kx::wmi::kJobRunning : job.state},
                             {L"ErrorCode", running ? 0L : job.error}});
        return S_OK;
    }
    auto* cls = new FakeObject;
    for (const auto& [name, m] : methods_)
        if (SameText(m.className, p)) cls->methods[name] = m.inputs;
    if (!cls->methods.empty()) {
        *obj = cls;
        return S_OK;
    }
    cls->Release();
    return WBEM_E_NOT_FOUND;
}

HRESULT FakeService::ExecMethod(const BSTR path, const BSTR method, LONG, IWbemContext*, IWbemClassObject* in,
                                IWbemClassObject** out, IWbemCallResult**) {
    if (out) *out = nullptr;
    MethodCall call;
    call.path = path ? path : L"";
    call.method = method ? method : L"";
    call.hasInput = in != nullptr;
    if (auto* params = dynamic_cast<FakeObject*>(in)) {
        for (const auto& name : params->putOrder) {
            kx::unique_variant* v = params->Find(name);
            call.params.emplace_back(name, std::make_shared<kx::unique_variant>(Copy(v->get())));
        }
    }
    calls.push_back(std::move(call));
    auto it = methods_.find(calls.back().method);
    if (it == methods_.end()) return WBEM_E_INVALID_METHOD;
    const MethodAnswer& a = it->second.answer;
    if (FAILED(a.callResult)) return a.callResult;
    Props props;
    if (a.jobPolls > 0) {
        const std::wstring job = L"FakeJob.InstanceID='" + std::to_wstring(jobs_.size() + 1) + L"'";
        jobs_.push_back(Job{job, a.jobPolls, a.jobState, a.jobError});
        props.emplace_back(L"ReturnValue", Value(kx::wmi::kMethodJobStarted));
        props.emplace_back(L"Job", Value(job));
    } else {
        props.emplace_back(L"ReturnValue", Value(a.returnValue));
    }
    if (out) *out = MakeInstance(L"__PARAMETERS", L"", std::move(props));
    return S_OK;
}

// ---- the connector ------------------------------------------------------------------------

struct ConnectorScope::Impl : kx::wmi::WmiConnector {
    IWbemServices* service;
    std::atomic<int> count{0};
    HRESULT Connect(const std::wstring&, IWbemServices** out) noexcept override {
        ++count;
        service->AddRef();
        *out = service;
        return S_OK;
    }
};

ConnectorScope::ConnectorScope(IWbemServices* service) : impl_(std::make_unique<Impl>()) {
    impl_->service = service;
    kx::wmi::testing::SetConnector(impl_.get());
}
ConnectorScope::~ConnectorScope() { kx::wmi::testing::SetConnector(nullptr); }
int ConnectorScope::connections() const { return impl_->count.load(); }

}  // namespace fakewbem
