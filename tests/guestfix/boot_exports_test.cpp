// The boot exports through the DLL: a hive loaded by GetSystemHiveKeyEx /
// GetSoftwareHiveKeyEx handed to GetWin2003BootDevice and ResetPRTag.
#include <gtest/gtest.h>

#include <memory>

#include "KestrixHA.h"
#include "kx_test.h"

namespace {

std::wstring Fixture(const std::string& name) {
    const std::string path = std::string("Z:") + KX_GUEST_FIXTURES + "/" + name;
    return std::wstring(path.begin(), path.end());
}

}  // namespace

TEST(BootExports, LoadedHivesServeTheExports) {
    kxtest::ScratchDir dir;
    const std::wstring windows = dir / L"Windows";
    kxtest::MakeDirs(windows + L"\\system32\\config");
    for (auto [from, to] : {std::pair{"system-w2k3.hive", L"system"}, std::pair{"software-hyperv.hive", L"software"}}) {
        const auto b = kxtest::ReadBytes(Fixture(from));
        kxtest::WriteBytes(windows + L"\\system32\\config\\" + to, b.data(), b.size());
    }
    RegistryHiveLoader* raw = nullptr;
    ASSERT_EQ(GetSystemHiveKeyEx(windows, &raw), 0u);
    std::unique_ptr<RegistryHiveLoader> system(raw);
    ASSERT_EQ(GetSoftwareHiveKeyEx(windows, &raw), 0u);
    std::unique_ptr<RegistryHiveLoader> software(raw);

    std::wstring device;
    EXPECT_EQ(GetWin2003BootDevice(system.get(), device), 0u);
    EXPECT_EQ(device, L"multi(0)disk(0)rdisk(0)partition(2)");
    EXPECT_EQ(GetWin2003BootDevice(nullptr, device), DWORD{ERROR_INVALID_PARAMETER});

    struct Case {
        RegistryHiveLoader* hive;
        DWORD kind, result;
    };
    for (const Case& c :
         {Case{system.get(), 0, 0}, Case{software.get(), 1, 0}, Case{nullptr, 1, ERROR_INVALID_PARAMETER}})
        EXPECT_EQ(ResetPRTag(c.hive, c.kind), c.result) << c.kind;
}
