#include <gtest/gtest.h>

#include <cstring>

#include "platform/unicode_ini.h"
#include "kx_test.h"

using kxtest::ScratchDir;

TEST(UnicodeIni, StartsWithMarkAndIsReadAsUtf16) {
    ScratchDir d;
    const std::wstring ini = d / L"rec.ini";
    ASSERT_EQ(kx::_CreateIniWithUnicodePrefix(ini.c_str()), 0u);
    const auto bytes = kxtest::ReadBytes(ini);
    ASSERT_EQ(bytes.size(), 18u);
    EXPECT_EQ(bytes[0], 0xFF);
    EXPECT_EQ(bytes[1], 0xFE);
    EXPECT_EQ(0, memcmp(bytes.data() + 2, L"[QZSIG]", 16));

    // The profile calls keep the file UTF-16: a value outside the ANSI code page survives.
    const std::wstring value = L"\u4e2d\u6587-\u00e9";
    ASSERT_TRUE(::WritePrivateProfileStringW(L"S", L"K", value.c_str(), ini.c_str()));
    wchar_t back[64] = {};
    ::GetPrivateProfileStringW(L"S", L"K", L"", back, 64, ini.c_str());
    EXPECT_EQ(value, back);
}
