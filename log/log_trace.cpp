#include "log/log_trace.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>

#include "log/debug_log.h"

namespace kx::log {

namespace {
std::atomic<testing::TraceSink> g_sink{nullptr};
}  // namespace

void Trace(const wchar_t* format, ...) noexcept {
    const testing::TraceSink sink = g_sink.load();
    if (!sink) return;
    wchar_t text[1024];
    const int prefix = _snwprintf(text, 1023, L"[%lu:%lu] ", ::GetCurrentProcessId(), ::GetCurrentThreadId());
    va_list args;
    va_start(args, format);
    _vsnwprintf(text + prefix, 1023 - prefix, format, args);
    va_end(args);
    text[1023] = 0;
    sink(text);
}

namespace testing {
void SetTraceSink(TraceSink sink) noexcept { g_sink.store(sink); }
}  // namespace testing

}  // namespace kx::log
