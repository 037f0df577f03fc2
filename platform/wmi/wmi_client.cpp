#include "platform/wmi/wmi_client.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cwchar>

namespace kx::wmi {

// ---- seams --------------------------------------------------------------------

HRESULT WmiConnector::Connect(const std::wstring& ns, IWbemServices** out) noexcept {
    *out = nullptr;
    com_ptr<IWbemLocator> locator;
    HRESULT hr = ::CoCreateInstance(CLSID_WbemLocator, nullptr, CLSCTX_INPROC_SERVER, IID_IWbemLocator,
                                    reinterpret_cast<void**>(locator.put()));
    if (FAILED(hr)) return hr;
    unique_bstr path = MakeBstr(ns);
    if (!path) return E_OUTOFMEMORY;
    com_ptr<IWbemServices> svc;
    hr = locator->ConnectServer(path.get(), nullptr, nullptr, nullptr, 0, nullptr, nullptr, svc.put());
    if (FAILED(hr)) return hr;
    // The service's proxy acts as the caller. A service that is not a proxy
    // (in-process) refuses with E_NOINTERFACE, which is no failure.
    hr = ::CoSetProxyBlanket(svc.get(), RPC_C_AUTHN_WINNT, RPC_C_AUTHZ_NONE, nullptr, RPC_C_AUTHN_LEVEL_CALL,
                             RPC_C_IMP_LEVEL_IMPERSONATE, nullptr, EOAC_NONE);
    if (FAILED(hr) && hr != E_NOINTERFACE) return hr;
    *out = svc.get();
    (*out)->AddRef();
    return S_OK;
}

uint64_t JobClock::NowMs() noexcept { return ::GetTickCount64(); }
void JobClock::SleepMs(DWORD ms) noexcept { ::Sleep(ms); }

namespace {
WmiConnector g_realConnector;
JobClock g_realClock;
std::atomic<WmiConnector*> g_connector{nullptr};
std::atomic<JobClock*> g_clock{nullptr};
}  // namespace

WmiConnector& CurrentConnector() noexcept {
    WmiConnector* c = g_connector.load();
    return c ? *c : g_realConnector;
}
JobClock& CurrentJobClock() noexcept {
    JobClock* c = g_clock.load();
    return c ? *c : g_realClock;
}

namespace testing {
void SetConnector(WmiConnector* c) noexcept { g_connector.store(c); }
void SetJobClock(JobClock* c) noexcept { g_clock.store(c); }
}  // namespace testing

// ---- WQL text -------------------------------------------------------------------

std::wstring WqlQuote(const std::wstring& value) {
    std::wstring q = L"'";
    for (wchar_t c : value) {
        if (c == L'\\' || c == L'\'') q += L'\\';
        q += c;
    }
    return q + L"'";
}

bool IsWqlIdentifier(const std::wstring& name) noexcept {
    if (name.empty() || (name[0] >= L'0' && name[0] <= L'9')) return false;
    for (wchar_t c : name)
        if (!((c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z') || (c >= L'0' && c <= L'9') || c == L'_'))
            return false;
    return true;
}

namespace {
// LIKE text as a WQL literal: an escape pair (backslash and the character
// after it) is kept as it is; a bare quote, or a backslash at the very end,
// is escaped so that the literal cannot end early.
std::wstring LikeLiteral(const std::wstring& pattern) {
    std::wstring q = L"'";
    for (size_t i = 0; i < pattern.size(); ++i) {
        const wchar_t c = pattern[i];
        if (c == L'\\' && i + 1 < pattern.size()) {
            q += c;
            q += pattern[++i];
            continue;
        }
        if (c == L'\'' || c == L'\\') q += L'\\';
        q += c;
    }
    return q + L"%'";
}
}  // namespace

// ---- locator --------------------------------------------------------------------

HRESULT WmiLocator::CreateWbemService(const std::wstring& ns, WmiService* service) const noexcept {
    IWbemServices* raw = nullptr;
    const HRESULT hr = CurrentConnector().Connect(ns, &raw);
    if (FAILED(hr)) {
        if (raw) raw->Release();
        return hr;
    }
    if (!raw) return WBEM_E_FAILED;
    *service = WmiService(raw);
    return S_OK;
}

// ---- objects --------------------------------------------------------------------

bool WmiObject::Read(const std::wstring& name, unique_variant* value) const {
    if (!obj_) return false;
    if (FAILED(obj_->Get(name.c_str(), 0, value->put(), nullptr, nullptr))) return false;
    return value->type() != VT_NULL && value->type() != VT_EMPTY;
}

namespace {
// One scalar VARIANT as text; false when it has no text form.
bool VariantText(const VARIANT& v, std::wstring* text) {
    if (v.vt == VT_BSTR) {
        text->assign(v.bstrVal ? v.bstrVal : L"", v.bstrVal ? ::SysStringLen(v.bstrVal) : 0);
        return true;
    }
    if (v.vt == VT_BOOL) {
        *text = v.boolVal ? L"TRUE" : L"FALSE";
        return true;
    }
    unique_variant s;
    // Locale-independent: numbers keep their plain decimal form.
    if (FAILED(::VariantChangeTypeEx(s.put(), const_cast<VARIANT*>(&v), LOCALE_INVARIANT, 0, VT_BSTR))) return false;
    return VariantText(*s.get(), text);
}
}  // namespace

std::wstring WmiObject::GetProperty(const std::wstring& name) const {
    unique_variant v;
    std::wstring text;
    if (!Read(name, &v) || (v.type() & VT_ARRAY) || !VariantText(*v.get(), &text)) return {};
    return text;
}

bool WmiObject::GetBoolProperty(const std::wstring& name, bool fallback) const {
    unique_variant v;
    if (!Read(name, &v)) return fallback;
    switch (v.type()) {
        case VT_BOOL: return v->boolVal != VARIANT_FALSE;
        case VT_I1: case VT_UI1: case VT_I2: case VT_UI2: case VT_I4: case VT_UI4: case VT_INT: case VT_UINT: {
            unique_variant n;
            if (FAILED(::VariantChangeType(n.put(), v.get(), 0, VT_I4))) return fallback;
            return n->lVal != 0;
        }
        default: return fallback;
    }
}

long WmiObject::GetLongProperty(const std::wstring& name, long fallback) const {
    unique_variant v;
    if (!Read(name, &v)) return fallback;
    switch (v.type()) {
        case VT_I1: case VT_UI1: case VT_I2: case VT_UI2: case VT_I4: case VT_INT: case VT_BOOL:
            break;
        case VT_UI4: case VT_UINT:
            if (v->ulVal > static_cast<ULONG>(LONG_MAX)) return fallback;
            break;
        case VT_BSTR: {
            // Decimal text only (WMI's 64-bit numbers), within 32 bits.
            const wchar_t* s = v->bstrVal;
            if (!s || !*s) return fallback;
            wchar_t* end = nullptr;
            errno = 0;
            const long long n = std::wcstoll(s, &end, 10);
            if (*end || errno || n < LONG_MIN || n > LONG_MAX) return fallback;
            return static_cast<long>(n);
        }
        default: return fallback;
    }
    unique_variant n;
    if (FAILED(::VariantChangeType(n.put(), v.get(), 0, VT_I4))) return fallback;
    return n->lVal;
}

std::vector<std::wstring> WmiObject::GetMultiValueProperty(const std::wstring& name) const {
    std::vector<std::wstring> items;
    unique_variant v;
    if (!Read(name, &v) || !(v.type() & VT_ARRAY) || !v->parray) return items;
    SAFEARRAY* a = v->parray;
    if (::SafeArrayGetDim(a) != 1) return items;
    LONG lo = 0, hi = -1;
    if (FAILED(::SafeArrayGetLBound(a, 1, &lo)) || FAILED(::SafeArrayGetUBound(a, 1, &hi))) return items;
    const VARTYPE element = static_cast<VARTYPE>(v.type() & ~VT_ARRAY);
    for (LONG i = lo; i <= hi; ++i) {
        unique_variant item;
        if (element == VT_VARIANT) {
            if (FAILED(::SafeArrayGetElement(a, &i, item.put()))) return {};
        } else {
            // Element types of at most 8 bytes, or a BSTR (copied by the call).
            VARIANT* slot = item.put();
            if (FAILED(::SafeArrayGetElement(a, &i, &slot->llVal))) return {};
            slot->vt = element;
        }
        std::wstring text;
        if (!VariantText(*item.get(), &text)) return {};
        items.push_back(std::move(text));
    }
    return items;
}

// ---- queries --------------------------------------------------------------------

HRESULT WmiQuery::Run(std::wstring text) {
    text_ = std::move(text);
    enum_.reset();
    if (!service_) return error_ = WBEM_E_INVALID_PARAMETER;
    unique_bstr lang = MakeBstr(L"WQL");
    unique_bstr query = MakeBstr(text_);
    if (!lang || !query) return error_ = E_OUTOFMEMORY;
    error_ = service_->ExecQuery(lang.get(), query.get(), WBEM_FLAG_FORWARD_ONLY | WBEM_FLAG_RETURN_IMMEDIATELY,
                                 nullptr, enum_.put());
    if (FAILED(error_)) enum_.reset();
    return error_;
}

WmiObject WmiQuery::Next() {
    if (!enum_) return {};
    IWbemClassObject* obj = nullptr;
    ULONG got = 0;
    const HRESULT hr = enum_->Next(WBEM_INFINITE, 1, &obj, &got);
    if (got == 1 && obj) return WmiObject(obj);
    if (obj) obj->Release();
    if (FAILED(hr)) error_ = hr;
    enum_.reset();  // the end, or a failure: nothing more comes
    return {};
}

void WmiEnumerator::SetLikeFilter(const std::wstring& property, const std::wstring& pattern) {
    badName_ = !IsWqlIdentifier(property);
    where_ = L" WHERE " + property + L" LIKE " + LikeLiteral(pattern);
}

void WmiEnumerator::SetEqualFilter(const std::wstring& property, const std::wstring& value) {
    badName_ = !IsWqlIdentifier(property);
    where_ = L" WHERE " + property + L" = " + WqlQuote(value);
}

void WmiEnumerator::SetEqualFilter(const std::wstring& property, long value) {
    badName_ = !IsWqlIdentifier(property);
    where_ = L" WHERE " + property + L" = " + std::to_wstring(value);
}

HRESULT WmiEnumerator::Start() {
    if (badName_ || !IsWqlIdentifier(class_)) return Refuse(WBEM_E_INVALID_PARAMETER);
    return Run(L"SELECT * FROM " + class_ + where_);
}

HRESULT WmiAssociator::Start() {
    // An object path carries its own quoting; braces would end it early.
    if (path_.find_first_of(L"{}") != std::wstring::npos || (!result_.empty() && !IsWqlIdentifier(result_)))
        return Refuse(WBEM_E_INVALID_PARAMETER);
    std::wstring text = L"ASSOCIATORS OF {" + path_ + L"}";
    if (!result_.empty()) text += L" WHERE ResultClass = " + result_;
    return Run(std::move(text));
}

// ---- methods --------------------------------------------------------------------

HRESULT WmiInputParam::Put(const std::wstring& name, VARIANT* value) {
    if (!obj_) return WBEM_E_INVALID_PARAMETER;
    return obj_->Put(name.c_str(), 0, value, 0);
}

HRESULT WmiInputParam::PutValue(const std::wstring& name, const std::wstring& value) {
    unique_variant v;
    unique_bstr text = MakeBstr(value);
    if (!text) return E_OUTOFMEMORY;
    v->vt = VT_BSTR;
    v->bstrVal = text.release();
    return Put(name, v.get());
}

HRESULT WmiInputParam::PutValue(const std::wstring& name, long value) {
    unique_variant v;
    v->vt = VT_I4;
    v->lVal = value;
    return Put(name, v.get());
}

HRESULT WmiInputParam::PutValue(const std::wstring& name, const std::vector<std::wstring>& values) {
    unique_safearray array(::SafeArrayCreateVector(VT_BSTR, 0, static_cast<ULONG>(values.size())));
    if (!array) return E_OUTOFMEMORY;
    for (LONG i = 0; i < static_cast<LONG>(values.size()); ++i) {
        unique_bstr text = MakeBstr(values[i]);
        if (!text) return E_OUTOFMEMORY;
        // SafeArrayPutElement copies the string.
        if (HRESULT hr = ::SafeArrayPutElement(array.get(), &i, text.get()); FAILED(hr)) return hr;
    }
    unique_variant v;
    v.reset_array(VT_BSTR, std::move(array));
    return Put(name, v.get());
}

HRESULT WmiInputParam::PutValue(const std::wstring& name, const std::vector<uint16_t>& values) {
    unique_safearray array(::SafeArrayCreateVector(VT_I4, 0, static_cast<ULONG>(values.size())));
    if (!array) return E_OUTOFMEMORY;
    for (LONG i = 0; i < static_cast<LONG>(values.size()); ++i) {
        LONG n = values[i];
        if (HRESULT hr = ::SafeArrayPutElement(array.get(), &i, &n); FAILED(hr)) return hr;
    }
    unique_variant v;
    v.reset_array(VT_I4, std::move(array));
    return Put(name, v.get());
}

WmiInputParam WmiMethod::GetInputParam(HRESULT* status) const {
    HRESULT ignored;
    HRESULT& hr = status ? *status : ignored;
    hr = WBEM_E_INVALID_PARAMETER;
    if (!service_) return {};
    unique_bstr cls = MakeBstr(class_);
    if (!cls) return hr = E_OUTOFMEMORY, WmiInputParam{};
    com_ptr<IWbemClassObject> classObject;
    hr = service_->GetObject(cls.get(), 0, nullptr, classObject.put(), nullptr);
    if (FAILED(hr)) return {};
    com_ptr<IWbemClassObject> signature;
    hr = classObject->GetMethod(method_.c_str(), 0, signature.put(), nullptr);
    if (FAILED(hr) || !signature) return {};
    IWbemClassObject* instance = nullptr;
    hr = signature->SpawnInstance(0, &instance);
    return WmiInputParam(SUCCEEDED(hr) ? instance : nullptr);
}

WmiOutputParam WmiMethod::Invoke(const WmiInputParam* in, const WmiObject& target, HRESULT* status) const {
    HRESULT hr = WBEM_E_INVALID_PARAMETER;
    IWbemClassObject* out = nullptr;
    const std::wstring path = target.GetProperty(L"__PATH");
    if (service_ && !path.empty()) {
        unique_bstr objectPath = MakeBstr(path);
        unique_bstr method = MakeBstr(method_);
        hr = objectPath && method ? service_->ExecMethod(objectPath.get(), method.get(), 0, nullptr,
                                                         in ? in->get() : nullptr, &out, nullptr)
                                  : E_OUTOFMEMORY;
        if (FAILED(hr) && out) {
            out->Release();
            out = nullptr;
        }
    }
    if (status) *status = hr;
    return WmiOutputParam(service_, out, hr);
}

bool WmiOutputParam::IsRunning() const {
    if (jobDone_ || FAILED(status_)) return false;
    return out_.GetLongProperty(L"ReturnValue", -1) == kMethodJobStarted && !out_.GetProperty(L"Job").empty();
}

void WmiOutputParam::WaitJobDone(DWORD intervalMs, DWORD limitMs) {
    if (!IsRunning()) return;
    JobClock& clock = CurrentJobClock();
    const std::wstring jobPath = out_.GetProperty(L"Job");
    const uint64_t start = clock.NowMs();
    for (;;) {
        unique_bstr path = MakeBstr(jobPath);
        IWbemClassObject* raw = nullptr;
        const HRESULT hr = path ? service_->GetObject(path.get(), 0, nullptr, &raw, nullptr) : E_OUTOFMEMORY;
        const WmiObject job(raw);
        if (FAILED(hr) || !job) {
            jobDone_ = true;
            jobCode_ = static_cast<DWORD>(FAILED(hr) ? hr : static_cast<HRESULT>(WBEM_E_NOT_FOUND));
            return;
        }
        const long state = job.GetLongProperty(L"JobState", kJobException);
        if (state == kJobCompleted) {
            jobDone_ = true;
            jobCode_ = 0;
            return;
        }
        if (state > kJobShuttingDown || state < kJobNew) {
            const long error = job.GetLongProperty(L"ErrorCode", 0);
            jobDone_ = true;
            jobCode_ = static_cast<DWORD>(error != 0 ? error : state);
            return;
        }
        if (clock.NowMs() - start >= limitMs) {
            jobDone_ = true;
            jobCode_ = ERROR_TIMEOUT;
            return;
        }
        clock.SleepMs(intervalMs);
    }
}

DWORD WmiOutputParam::GetReturnCode() const {
    if (jobDone_) return jobCode_;
    if (FAILED(status_)) return static_cast<DWORD>(status_);
    return static_cast<DWORD>(out_.GetLongProperty(L"ReturnValue", -1));
}

}  // namespace kx::wmi
