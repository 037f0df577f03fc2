// Owners of the COM automation types the WMI code passes around: interface
// pointers shared by several owners, BSTRs, VARIANTs and SAFEARRAYs. Each
// frees its resource exactly once, on every path out of its scope.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <string>
#include <utility>

#include "common/unique_resource.h"

namespace kx {

// Takes over a reference the caller already holds (an out-parameter filled
// by a COM call, a pointer returned AddRef'd).
template <class I>
com_ptr<I> com_adopt(I* p) noexcept {
    com_ptr<I> owner;
    *owner.put() = p;
    return owner;
}

// A reference of its own to `p` (AddRef'd here), for a second owner.
template <class I>
com_ptr<I> com_share(I* p) noexcept {
    if (p) p->AddRef();
    return com_adopt(p);
}

namespace detail {
inline void free_bstr(BSTR b) noexcept { ::SysFreeString(b); }
inline void destroy_safearray(SAFEARRAY* a) noexcept { ::SafeArrayDestroy(a); }
}  // namespace detail

using unique_bstr = unique_any<detail::traits<BSTR, detail::free_bstr>>;
using unique_safearray = unique_any<detail::traits<SAFEARRAY*, detail::destroy_safearray>>;

// A BSTR copy of `text` (embedded nulls kept); empty only when out of memory.
inline unique_bstr MakeBstr(const std::wstring& text) noexcept {
    return unique_bstr(::SysAllocStringLen(text.data(), static_cast<UINT>(text.size())));
}

// A VARIANT cleared (VariantClear) when replaced and at the end of scope.
class unique_variant {
public:
    unique_variant() noexcept { ::VariantInit(&v_); }
    ~unique_variant() { ::VariantClear(&v_); }
    unique_variant(const unique_variant&) = delete;
    unique_variant& operator=(const unique_variant&) = delete;
    unique_variant(unique_variant&& o) noexcept : v_(o.v_) { ::VariantInit(&o.v_); }
    unique_variant& operator=(unique_variant&& o) noexcept {
        if (this != &o) {
            ::VariantClear(&v_);
            v_ = o.v_;
            ::VariantInit(&o.v_);
        }
        return *this;
    }

    VARIANT* get() noexcept { return &v_; }
    const VARIANT* get() const noexcept { return &v_; }
    VARIANT* operator->() noexcept { return &v_; }
    const VARIANT* operator->() const noexcept { return &v_; }
    VARTYPE type() const noexcept { return v_.vt; }
    // For out-parameters: what is held is cleared first.
    VARIANT* put() noexcept {
        ::VariantClear(&v_);
        return &v_;
    }
    // Holds `array` from now on (a VT_ARRAY | `elementType` variant).
    void reset_array(VARTYPE elementType, unique_safearray array) noexcept {
        ::VariantClear(&v_);
        v_.vt = static_cast<VARTYPE>(VT_ARRAY | elementType);
        v_.parray = array.release();
    }

private:
    VARIANT v_;
};

}  // namespace kx
