#include <gtest/gtest.h>

#include <stdexcept>

#include "kx_test.h"
#include "log/call_frame.h"

namespace {
constexpr kx::ExportLines kProbe{L"FrameProbe", 1, L"%s(%s, %d) starts", 1, kx::kFinished, kx::EndKind::Result};
constexpr kx::ExportLines kCounted{L"FrameCount", 1, L"%s() starts", 1, L"%s() finished, rc = [%d], n = [%d]",
                                   kx::EndKind::Values};
}  // namespace

// Every path out of a frame writes one end line with the code it returns,
// a stray exception included.
TEST(CallFrame, EveryPathEndsWithOneLineAndItsCode) {
    kxtest::LogCursor log;
    EXPECT_EQ(kx::RunExport<kProbe>([](auto&) -> DWORD { throw std::runtime_error("boom"); }, L"a", 1), 0xFFFFFFFFu);
    EXPECT_EQ(kx::RunExport<kProbe>([](auto&) -> DWORD { throw std::bad_alloc(); }, L"b", 2),
              static_cast<DWORD>(ERROR_OUTOFMEMORY));
    EXPECT_EQ(kx::RunExport<kProbe>([](auto& f) -> DWORD { return f.InvalidParameter(); }, L"c", 3), 87u);
    EXPECT_EQ(kx::RunExport<kProbe>([](auto& f) -> DWORD { return f.WithoutEndLine(7); }, L"d", 4), 7u);
    EXPECT_EQ(kx::RunExport<kCounted>([](auto& f) -> DWORD { return f.End(5, 5, 12); }), 5u);
    EXPECT_EQ(kx::RunExport<kCounted>([](auto&) -> DWORD { return 6; }), 6u);

    EXPECT_TRUE(log.Contains(L"FrameProbe(a, 1) starts"));
    EXPECT_TRUE(log.Contains(L"FrameProbe() failed: unexpected exception"));
    EXPECT_TRUE(log.Contains(L"FrameProbe() failed: out of memory"));
    EXPECT_TRUE(log.Contains(L"FrameProbe() failed due to invalid parameter"));
    EXPECT_EQ(log.Matching(L"FrameProbe() finished, rc = [").size(), 3u);  // not after WithoutEndLine
    EXPECT_TRUE(log.Contains(L"FrameProbe() finished, rc = [87]"));
    EXPECT_TRUE(log.Contains(L"FrameCount() finished, rc = [5], n = [12]"));
    EXPECT_TRUE(log.Contains(L"FrameCount() finished, rc = [6]"));
}
