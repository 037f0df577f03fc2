// The log's own fault reports (a mutex or file that cannot be made, a write
// that fails). They go to a trace hook, never to the caller; without a sink
// installed (see testing::SetTraceSink in debug_log.h) they are discarded
// unformatted.
#pragma once

namespace kx::log {

// Formats one report, prefixed with "[process id:thread id] ".
void Trace(const wchar_t* format, ...) noexcept;

}  // namespace kx::log
