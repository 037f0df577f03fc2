#include <gtest/gtest.h>

#include <stdexcept>

#include "common/call_frame.h"
#include "kx_test.h"

TEST(CallFrame, StrayExceptionsBecomeLoggedCodes) {
    kxtest::LogCursor log;
    EXPECT_EQ(kx::RunExport(L"FrameProbe", []() -> DWORD { throw std::runtime_error("boom"); }), 0xFFFFFFFFu);
    EXPECT_EQ(kx::RunExport(L"FrameProbe", []() -> DWORD { throw std::bad_alloc(); }),
              static_cast<DWORD>(ERROR_OUTOFMEMORY));
    EXPECT_EQ(kx::RunExport(L"FrameProbe", []() -> DWORD { return 42; }), 42u);
    EXPECT_TRUE(log.Contains(L"FrameProbe() failed: unexpected exception"));
    EXPECT_TRUE(log.Contains(L"FrameProbe() failed: out of memory"));
    EXPECT_EQ(log.Matching(L"FrameProbe() finished, rc = [").size(), 2u);
}
