// Volume names of real paths: every name of one volume (drive, root, folder,
// file, a path that does not exist yet, the volume name itself) reduces to
// the same "\\?\Volume{GUID}\", compared with what the system says of the
// drive's root directly.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "kx_test.h"
#include "platform/vss.h"

namespace {

using kx::platform::SystemVolumeNameOf;

TEST(VssVolumeNames, EveryNameOfTheSystemVolumeGivesItsVolumeName) {
    wchar_t expected[MAX_PATH] = {};
    ASSERT_TRUE(::GetVolumeNameForVolumeMountPointW(L"C:\\", expected, MAX_PATH));
    const std::wstring volume = expected;
    ASSERT_EQ(0u, volume.rfind(L"\\\\?\\Volume{", 0));
    ASSERT_EQ(L"}\\", volume.substr(volume.size() - 2));

    kxtest::ScratchDir scratch;
    kxtest::WriteText(scratch.path() + L"\\file.txt", "x");
    const std::wstring names[] = {
        L"C:", L"C:\\", L"c:\\", L"C:\\windows", L"C:\\Windows\\System32\\", L"C:\\windows\\..\\windows\\system32",
        scratch.path(), scratch.path() + L"\\file.txt", scratch.path() + L"\\not\\made\\yet.vhdx", volume,
        volume.substr(0, volume.size() - 1), volume + L"windows\\system32",
    };
    for (const auto& name : names) {
        SCOPED_TRACE(kxtest::Narrow(name));
        std::wstring got = L"stale";
        ASSERT_EQ(0u, SystemVolumeNameOf(name, got));
        EXPECT_EQ(volume, got);
    }
}

TEST(VssVolumeNames, NamesOfNoVolumeAreRefused) {
    struct Case {
        std::wstring name;
        DWORD want;  // 0: any failure
    } cases[] = {
        {L"", ERROR_INVALID_PARAMETER},
        {L"Q:\\", 0},
        {L"Q:\\data", 0},
        {L"\\\\?\\Volume{01234567-89ab-cdef-0123-456789abcdef}\\", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(kxtest::Narrow(c.name));
        std::wstring got = L"stale";
        const DWORD rc = SystemVolumeNameOf(c.name, got);
        if (c.want) {
            EXPECT_EQ(c.want, rc);
        } else {
            EXPECT_NE(0u, rc);
        }
        EXPECT_TRUE(got.empty());
    }
}

}  // namespace
