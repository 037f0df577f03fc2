// The VDDK library's version from real PE files built with a version
// resource, and the order of the places it is looked for in.
#include <gtest/gtest.h>

#include <algorithm>

#include "host/vmware_support.h"
#include "kx_test.h"

namespace h = kx::host;

namespace {

std::wstring Wide(std::string s) {
    std::replace(s.begin(), s.end(), '/', '\\');
    return std::wstring(s.begin(), s.end());
}
std::wstring Built(const std::string& rel) { return Wide(std::string("Z:") + KX_VMWARE_BIN + "/" + rel); }
const std::wstring kExpected = Wide(KX_VDDK_VERSION);

void CopyTo(const std::wstring& from, const std::wstring& folder) {
    kxtest::MakeDirs(folder);
    const auto bytes = kxtest::ReadBytes(from);
    kxtest::WriteBytes(folder + L"\\vixDiskLib.dll", bytes.data(), bytes.size());
}

const wchar_t* const kEngine = L"SOFTWARE\\Veltrana\\Quillon\\Engine";
constexpr DWORD kRefused = 0xFFFFFFFF;
const wchar_t* const kWindows = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion";

}  // namespace

TEST(Vddk, VersionResourceOfRealFiles) {
    std::wstring version;
    EXPECT_EQ(h::ReadFileVersion(Built("vddk/vixDiskLib.dll"), &version), 0u);
    EXPECT_EQ(version, kExpected);
    // A DLL without a version resource, a file that is not a PE, no file.
    kxtest::ScratchDir dir;
    kxtest::WriteText(dir / L"text.dll", std::string(4096, 'M'));
    for (const std::wstring& file : {Built("vddk-noversion/vixDiskLib.dll"), dir / L"text.dll", dir / L"none.dll"}) {
        version = L"stale";
        EXPECT_NE(h::ReadFileVersion(file, &version), 0u) << kxtest::Narrow(file);
        EXPECT_EQ(version, L"");
    }
}

TEST(Vddk, PlacesInOrder) {
    kxtest::ScratchDir dir;
    const std::wstring good = Built("vddk/vixDiskLib.dll");
    const std::wstring install = kxtest::CurrentRun().install() + L"\\VDDK\\bin";
    CopyTo(good, dir / L"configured\\bin");
    CopyTo(good, dir / L"x86\\VMware\\VMware Virtual Disk Development Kit\\bin");
    CopyTo(Built("vddk-noversion/vixDiskLib.dll"), install);
    kxtest::SetRegValue(kWindows, L"ProgramFilesDir", dir / L"x64");  // holds no kit
    kxtest::SetRegValue(kWindows, L"ProgramFilesDir (x86)", dir / L"x86");

    const struct {
        const char* what;
        std::wstring configured;  // "" leaves the value out
        bool installCopy;
        DWORD rc;  // kRefused: the system's code for a file without a version resource
        std::wstring found;
    } cases[] = {
        {"configured file", good, true, 0, good},
        {"configured folder, library in bin", dir / L"configured", true, 0, dir / L"configured\\bin\\vixDiskLib.dll"},
        {"configured path naming nothing", dir / L"gone", true, kRefused,
         install + L"\\vixDiskLib.dll"},
        {"install folder before Program Files", L"", true, kRefused,
         install + L"\\vixDiskLib.dll"},
        {"Program Files (x86)", L"", false, 0,
         dir / L"x86\\VMware\\VMware Virtual Disk Development Kit\\bin\\vixDiskLib.dll"},
    };
    for (const auto& c : cases) {
        ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kEngine, h::kVddkPathValue);
        if (!c.configured.empty()) kxtest::SetRegValue(kEngine, h::kVddkPathValue, c.configured);
        if (!c.installCopy) ::DeleteFileW((install + L"\\vixDiskLib.dll").c_str());
        std::wstring version, found;
        const DWORD rc = h::GetVddkVersion(&version, &found);
        if (c.rc == kRefused)
            EXPECT_TRUE(rc != 0 && rc != ERROR_PRODUCT_UNINSTALLED) << c.what << " " << rc;
        else
            EXPECT_EQ(rc, c.rc) << c.what;
        EXPECT_EQ(found, c.found) << c.what;
        EXPECT_EQ(version, c.rc ? L"" : kExpected) << c.what;
    }
    // Nowhere at all: "not installed", and the places looked at are logged.
    ::DeleteFileW((dir / L"x86\\VMware\\VMware Virtual Disk Development Kit\\bin\\vixDiskLib.dll").c_str());
    kxtest::LogCursor log;
    std::wstring version = L"stale", found = L"stale";
    EXPECT_EQ(h::GetVddkVersion(&version, &found), DWORD{ERROR_PRODUCT_UNINSTALLED});
    EXPECT_EQ(version + found, L"");
    EXPECT_TRUE(log.Contains(L"No vixDiskLib.dll in " + install));
    EXPECT_TRUE(log.Contains(L"GetVddkVersion() finished, rc = [1614]"));
    ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kWindows, L"ProgramFilesDir");
    ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kWindows, L"ProgramFilesDir (x86)");
}
