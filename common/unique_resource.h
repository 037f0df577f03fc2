// Small owning wrappers for Win32 resources. Each owner closes its resource
// exactly once, on every path out of the scope that holds it.
#pragma once

#include <windows.h>
#include <objbase.h>

#include <cstddef>
#include <memory>
#include <utility>

namespace kx {

// A move-only owner of a value of type Traits::type, released with
// Traits::close and empty when it holds Traits::invalid().
template <class Traits>
class unique_any {
    using T = typename Traits::type;
    static T Invalid() noexcept { return Traits::invalid(); }

public:
    unique_any() noexcept = default;
    explicit unique_any(T value) noexcept : value_(value) {}
    ~unique_any() { reset(); }

    unique_any(const unique_any&) = delete;
    unique_any& operator=(const unique_any&) = delete;
    unique_any(unique_any&& other) noexcept : value_(other.release()) {}
    unique_any& operator=(unique_any&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }

    T get() const noexcept { return value_; }
    bool valid() const noexcept { return value_ != Invalid(); }
    explicit operator bool() const noexcept { return valid(); }

    void reset(T value = Invalid()) noexcept {
        if (value_ != Invalid()) Traits::close(value_);
        value_ = value;
    }
    T release() noexcept { return std::exchange(value_, Invalid()); }

    // For out-parameters of the Create/Open calls: frees what is held first.
    T* put() noexcept {
        reset();
        return &value_;
    }

private:
    T value_ = Invalid();
};

namespace detail {
template <class T, auto Close, class Null = std::nullptr_t>
struct traits {
    using type = T;
    static T invalid() noexcept { return nullptr; }
    static void close(T v) noexcept { Close(v); }
};
template <auto Close>
struct file_traits {
    using type = HANDLE;
    static HANDLE invalid() noexcept { return INVALID_HANDLE_VALUE; }
    static void close(HANDLE v) noexcept { Close(v); }
};
inline void close_handle(HANDLE h) noexcept { ::CloseHandle(h); }
inline void find_close(HANDLE h) noexcept { ::FindClose(h); }
inline void reg_close(HKEY k) noexcept { ::RegCloseKey(k); }
inline void unmap_view(void* p) noexcept { ::UnmapViewOfFile(p); }
inline void free_library(HMODULE m) noexcept { ::FreeLibrary(m); }
inline void local_free(void* p) noexcept { ::LocalFree(p); }
inline void heap_free(void* p) noexcept { ::HeapFree(::GetProcessHeap(), 0, p); }
inline void release_mutex(HANDLE h) noexcept { ::ReleaseMutex(h); }
inline void close_service_handle(SC_HANDLE h) noexcept { ::CloseServiceHandle(h); }
}  // namespace detail

// Handles that are empty when null (events, mutexes, mappings, processes).
using unique_handle = unique_any<detail::traits<HANDLE, detail::close_handle>>;
// Handles that are empty when INVALID_HANDLE_VALUE (files).
using unique_hfile = unique_any<detail::file_traits<detail::close_handle>>;
using unique_hfind = unique_any<detail::file_traits<detail::find_close>>;
using unique_hkey = unique_any<detail::traits<HKEY, detail::reg_close>>;
using unique_view = unique_any<detail::traits<void*, detail::unmap_view>>;
using unique_hmodule = unique_any<detail::traits<HMODULE, detail::free_library>>;
using unique_hlocal = unique_any<detail::traits<void*, detail::local_free>>;
using unique_heap_ptr = unique_any<detail::traits<void*, detail::heap_free>>;
// Service control manager and service handles.
using unique_sc_handle = unique_any<detail::traits<SC_HANDLE, detail::close_service_handle>>;
// A mutex that this thread owns: released (not closed) at the end of scope.
using mutex_release = unique_any<detail::traits<HANDLE, detail::release_mutex>>;

// Waits for a mutex; the returned owner releases it. Empty when the wait
// failed or timed out. An abandoned mutex is owned all the same.
inline mutex_release acquire_mutex(HANDLE mutex, DWORD timeout_ms) noexcept {
    if (!mutex) return {};
    DWORD w = ::WaitForSingleObject(mutex, timeout_ms);
    if (w == WAIT_OBJECT_0 || w == WAIT_ABANDONED) return mutex_release(mutex);
    return {};
}

// Entered for the life of the scope.
class critical_section_guard {
public:
    explicit critical_section_guard(CRITICAL_SECTION& cs) noexcept : cs_(cs) { ::EnterCriticalSection(&cs_); }
    ~critical_section_guard() { ::LeaveCriticalSection(&cs_); }
    critical_section_guard(const critical_section_guard&) = delete;
    critical_section_guard& operator=(const critical_section_guard&) = delete;

private:
    CRITICAL_SECTION& cs_;
};

// A COM interface pointer that is Release()d at the end of its life.
template <class I>
class com_ptr {
public:
    com_ptr() noexcept = default;
    ~com_ptr() { reset(); }
    com_ptr(const com_ptr&) = delete;
    com_ptr& operator=(const com_ptr&) = delete;
    com_ptr(com_ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
    com_ptr& operator=(com_ptr&& o) noexcept {
        if (this != &o) {
            reset();
            p_ = std::exchange(o.p_, nullptr);
        }
        return *this;
    }
    I* get() const noexcept { return p_; }
    I* operator->() const noexcept { return p_; }
    explicit operator bool() const noexcept { return p_ != nullptr; }
    I** put() noexcept {
        reset();
        return &p_;
    }
    void reset() noexcept {
        if (p_) std::exchange(p_, nullptr)->Release();
    }

private:
    I* p_ = nullptr;
};

// An object whose Release() ends it (the bitmap readers and lock objects of
// this library are of that kind).
template <class T>
struct release_deleter {
    void operator()(T* p) const noexcept {
        if (p) p->Release();
    }
};

// The one owner of such objects.
template <class T>
using unique_released = std::unique_ptr<T, release_deleter<T>>;

}  // namespace kx
