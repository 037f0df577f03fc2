// The library's WMI client: a thin value-type layer over IWbemLocator,
// IWbemServices, IEnumWbemClassObject and IWbemClassObject. Every class owns
// the COM references it holds (copies share them through AddRef); nothing
// throws; failures are HRESULTs or empty objects.
//
// COM must already be usable on the calling thread: nothing here calls
// CoInitializeEx or CoInitializeSecurity (that is the process's business).
//
// Two seams sit underneath, each with a real default:
// - the connection to a namespace (WmiConnector): the locator's
//   ConnectServer plus the proxy blanket; a test puts an in-process service
//   of its own there;
// - the clock of job waits (JobClock): GetTickCount64 and Sleep; a test puts
//   a clock there that advances without waiting.
#pragma once

#include <windows.h>
#include <wbemidl.h>

#include <cstdint>
#include <string>
#include <vector>

#include "common/com_owners.h"

namespace kx::wmi {

// ---- seams --------------------------------------------------------------------

class WmiConnector {
public:
    virtual ~WmiConnector() = default;
    // A service connected to `ns` (e.g. "root\cimv2"), AddRef'd into *out.
    virtual HRESULT Connect(const std::wstring& ns, IWbemServices** out) noexcept;
};

class JobClock {
public:
    virtual ~JobClock() = default;
    virtual uint64_t NowMs() noexcept;
    virtual void SleepMs(DWORD ms) noexcept;
};

WmiConnector& CurrentConnector() noexcept;
JobClock& CurrentJobClock() noexcept;

namespace testing {
// Put `c` in place of the real one (nullptr restores the real one); the
// caller keeps it alive while it is in place.
void SetConnector(WmiConnector* c) noexcept;
void SetJobClock(JobClock* c) noexcept;
}  // namespace testing

// ---- WQL text -------------------------------------------------------------------

// A WQL string literal: `value` in single quotes, with backslash and quote
// escaped by a backslash.
std::wstring WqlQuote(const std::wstring& value);
// True for a class or property name WQL accepts unquoted (letters, digits,
// underscore; not starting with a digit).
bool IsWqlIdentifier(const std::wstring& name) noexcept;

// ---- classes --------------------------------------------------------------------

class WmiService {
public:
    WmiService() noexcept = default;
    explicit WmiService(IWbemServices* adopt) noexcept : svc_(com_adopt(adopt)) {}
    WmiService(const WmiService& o) noexcept : svc_(com_share(o.svc_.get())), ns_(o.ns_) {}
    WmiService& operator=(const WmiService& o) {
        if (this != &o) {
            svc_ = com_share(o.svc_.get());
            ns_ = o.ns_;
        }
        return *this;
    }
    WmiService(WmiService&&) noexcept = default;
    WmiService& operator=(WmiService&&) noexcept = default;

    void SetNameSpace(const std::wstring& ns) { ns_ = ns; }
    const std::wstring& NameSpace() const noexcept { return ns_; }
    IWbemServices* get() const noexcept { return svc_.get(); }
    IWbemServices* operator->() const noexcept { return svc_.get(); }
    operator IWbemServices*() const noexcept { return svc_.get(); }
    explicit operator bool() const noexcept { return static_cast<bool>(svc_); }

private:
    com_ptr<IWbemServices> svc_;
    std::wstring ns_;
};

class WmiLocator {
public:
    // 0 and *service connected to `ns`, or the connection's HRESULT.
    HRESULT CreateWbemService(const std::wstring& ns, WmiService* service) const noexcept;
};

class WmiObject {
public:
    WmiObject() noexcept = default;
    // Takes over the caller's reference (null allowed: an empty object).
    explicit WmiObject(IWbemClassObject* adopt) noexcept : obj_(com_adopt(adopt)) {}
    WmiObject(const WmiObject& o) noexcept : obj_(com_share(o.obj_.get())) {}
    WmiObject& operator=(const WmiObject& o) noexcept {
        if (this != &o) obj_ = com_share(o.obj_.get());
        return *this;
    }
    WmiObject(WmiObject&&) noexcept = default;
    WmiObject& operator=(WmiObject&&) noexcept = default;

    explicit operator bool() const noexcept { return static_cast<bool>(obj_); }
    IWbemClassObject* get() const noexcept { return obj_.get(); }

    // The value as text: strings as they are, numbers and booleans in
    // their usual text form (uint64 values travel as text in WMI anyway).
    // Empty for an empty object, a missing property or a null value.
    std::wstring GetProperty(const std::wstring& name) const;
    // VT_BOOL, or a number (non-zero true); `fallback` otherwise.
    bool GetBoolProperty(const std::wstring& name, bool fallback) const;
    // A 32-bit integer value or text that is a decimal number in range;
    // `fallback` otherwise.
    long GetLongProperty(const std::wstring& name, long fallback) const;
    // An array's elements as text, in order; empty for anything else.
    std::vector<std::wstring> GetMultiValueProperty(const std::wstring& name) const;

private:
    bool Read(const std::wstring& name, unique_variant* value) const;
    com_ptr<IWbemClassObject> obj_;
};

// Shared by the enumerator and the associator: a running WQL query.
class WmiQuery {
public:
    // The next instance, or an empty object at the end (or on failure: see
    // LastError()).
    WmiObject Next();
    HRESULT LastError() const noexcept { return error_; }
    // The WQL text the query runs (built by Start()).
    const std::wstring& Text() const noexcept { return text_; }

protected:
    explicit WmiQuery(const WmiService& service) : service_(service) {}
    HRESULT Run(std::wstring text);
    // Refuses to start: no query runs, Next() answers nothing.
    HRESULT Refuse(HRESULT hr) noexcept {
        enum_.reset();
        return error_ = hr;
    }

private:
    WmiService service_;
    com_ptr<IEnumWbemClassObject> enum_;
    std::wstring text_;
    HRESULT error_ = S_OK;
};

class WmiEnumerator : public WmiQuery {
public:
    WmiEnumerator(const WmiService& service, const std::wstring& className)
        : WmiQuery(service), class_(className) {}
    // `pattern` is WQL LIKE text (its backslashes are WQL escapes, '%' and
    // '_' wildcards); instances whose property starts with it match. A quote
    // in it is escaped.
    void SetLikeFilter(const std::wstring& property, const std::wstring& pattern);
    // `value` is plain text, escaped here.
    void SetEqualFilter(const std::wstring& property, const std::wstring& value);
    // A number, for numeric properties.
    void SetEqualFilter(const std::wstring& property, long value);
    HRESULT Start();

private:
    std::wstring class_;
    std::wstring where_;
    bool badName_ = false;
};

class WmiAssociator : public WmiQuery {
public:
    // `objectPath`: e.g. Win32_NetworkAdapter.DeviceID='7'.
    WmiAssociator(const WmiService& service, const std::wstring& objectPath)
        : WmiQuery(service), path_(objectPath) {}
    void SetResultClass(const std::wstring& className) { result_ = className; }
    HRESULT Start();

private:
    std::wstring path_;
    std::wstring result_;
};

class WmiInputParam {
public:
    WmiInputParam() noexcept = default;
    // Takes over the caller's reference (null: a method without inputs).
    explicit WmiInputParam(IWbemClassObject* adopt) noexcept : obj_(com_adopt(adopt)) {}

    HRESULT PutValue(const std::wstring& name, const std::wstring& value);
    HRESULT PutValue(const std::wstring& name, long value);
    // A SAFEARRAY of BSTR.
    HRESULT PutValue(const std::wstring& name, const std::vector<std::wstring>& values);
    // A SAFEARRAY of VT_I4: WMI carries uint16 (and uint32) values as 32-bit
    // integers in VARIANTs.
    HRESULT PutValue(const std::wstring& name, const std::vector<uint16_t>& values);

    explicit operator bool() const noexcept { return static_cast<bool>(obj_); }
    IWbemClassObject* get() const noexcept { return obj_.get(); }
    operator IWbemClassObject*() const noexcept { return obj_.get(); }

private:
    HRESULT Put(const std::wstring& name, VARIANT* value);
    com_ptr<IWbemClassObject> obj_;
};

// Job states of CIM_ConcreteJob.
enum JobState : long {
    kJobNew = 2,
    kJobStarting = 3,
    kJobRunning = 4,
    kJobSuspended = 5,
    kJobShuttingDown = 6,
    kJobCompleted = 7,
    kJobTerminated = 8,
    kJobKilled = 9,
    kJobException = 10,
};
// "ReturnValue" of a method that started a job (the job is in "Job").
inline constexpr long kMethodJobStarted = 4096;

class WmiOutputParam {
public:
    WmiOutputParam() = default;
    WmiOutputParam(const WmiService& service, IWbemClassObject* adopt, HRESULT status)
        : service_(service), out_(adopt), status_(status) {}

    // The method started a job that has not ended yet.
    bool IsRunning() const;
    // Polls the job every `intervalMs` until it ends or `limitMs` has
    // passed. Afterwards GetReturnCode() is the job's: 0 when it completed,
    // else its "ErrorCode" (or its state when that is 0); ERROR_TIMEOUT when
    // the limit passed first; the HRESULT when the job could not be read.
    void WaitJobDone(DWORD intervalMs, DWORD limitMs);
    // "ReturnValue" of the method (or of its job after WaitJobDone); the
    // call's HRESULT when the call itself failed; 0xFFFFFFFF when the output
    // carries no return value.
    DWORD GetReturnCode() const;
    HRESULT Status() const noexcept { return status_; }
    const WmiObject& Output() const noexcept { return out_; }

private:
    WmiService service_;
    WmiObject out_;
    HRESULT status_ = S_OK;
    bool jobDone_ = false;
    DWORD jobCode_ = 0;
};

class WmiMethod {
public:
    WmiMethod(const WmiService& service, const std::wstring& className, const std::wstring& methodName)
        : service_(service), class_(className), method_(methodName) {}
    // A fresh instance of the method's input parameters; an empty one when
    // the method has none or the class or method is unknown (*status then
    // tells which, when given).
    WmiInputParam GetInputParam(HRESULT* status = nullptr) const;
    // Runs the method on `target` (its "__PATH"). `in` may be null. *status
    // (optional) gets the call's HRESULT.
    WmiOutputParam Invoke(const WmiInputParam* in, const WmiObject& target, HRESULT* status) const;

private:
    WmiService service_;
    std::wstring class_;
    std::wstring method_;
};

}  // namespace kx::wmi
