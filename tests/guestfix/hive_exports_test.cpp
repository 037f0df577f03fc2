// The exported hive loads and loader class, through the DLL: out-pointers,
// the log lines, the repair of the system hive only, and the unload (or
// release of the file) when the caller deletes the loader.
#include <gtest/gtest.h>

#include "KestrixHA.h"
#include "kx_test.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::wstring Fixture(const std::string& name) {
    const std::string path = std::string("Z:") + KX_GUEST_FIXTURES + "/" + name;
    return std::wstring(path.begin(), path.end());
}

void Put(const std::wstring& to, const std::string& fixture, bool dirty = false) {
    Bytes b = kxtest::ReadBytes(Fixture(fixture));
    if (dirty) b[4] ^= 0x01;
    kxtest::WriteBytes(to, b.data(), b.size());
}

using Load = DWORD (*)(const std::wstring&, RegistryHiveLoader**);

bool Exclusive(const std::wstring& path) {
    kx::unique_hfile h(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING, 0, nullptr));
    return static_cast<bool>(h);
}

}  // namespace

TEST(HiveExports, OutPointersLinesAndRepair) {
    kxtest::ScratchDir d;
    const std::wstring windows = d / L"Windows", config = windows + L"\\system32\\config\\";
    kxtest::MakeDirs(config);
    kxtest::SetRegValue(L"SOFTWARE\\Veltrana\\Quillon\\Engine\\KbBackupDll", L"FixHiveIntegrity", DWORD{1});

    struct Case {
        Load load;
        const wchar_t* file;
        const wchar_t* begin;
        const wchar_t* finish;
        bool repairs;
    };
    for (const Case& c : {Case{GetSystemHiveKeyEx, L"system", L"Begin to get system hive from directory ",
                               L"Finish getting system hive", true},
                          Case{GetSoftwareHiveKeyEx, L"software", L"Begin to get software hive from directory ",
                               L"Finish getting software hive", false}}) {
        SCOPED_TRACE(kxtest::Narrow(c.file));
        const std::wstring hive = config + c.file;
        kxtest::LogCursor log;

        // Missing file: 10, the out-pointer nulled.
        auto* loader = reinterpret_cast<RegistryHiveLoader*>(0x1);
        EXPECT_EQ(c.load(windows, &loader), DWORD{ERROR_BAD_ENVIRONMENT});
        EXPECT_EQ(loader, nullptr);
        EXPECT_TRUE(log.Contains(c.begin + windows + L"."));
        EXPECT_TRUE(log.Contains(c.finish));

        // No out-pointer: checks (and repairs the system hive) but loads nothing.
        Put(hive, "system.hive", true);
        const Bytes dirty = kxtest::ReadBytes(hive);
        EXPECT_EQ(c.load(windows + L"\\", nullptr), 0u);
        EXPECT_EQ(kxtest::ReadBytes(hive) != dirty, c.repairs);
        EXPECT_TRUE(Exclusive(hive));

        // Loaded: the system refuses a real hive file here, so the engine
        // holds it and the key is a token, not a registry handle.
        Put(hive, "system.hive");
        const Bytes before = kxtest::ReadBytes(hive);
        ASSERT_EQ(c.load(windows, &loader), 0u);
        ASSERT_NE(loader, nullptr);
        EXPECT_EQ(loader->GetHiveName().rfind(L"MorvainHA.Temp.", 0), 0u);
        kx::unique_hkey raw;
        EXPECT_EQ(::RegOpenKeyExW(loader->GetHiveKey(), (loader->GetHiveName() + L"\\Select").c_str(), 0, KEY_READ,
                                  raw.put()),
                  ERROR_INVALID_HANDLE);
        EXPECT_FALSE(Exclusive(hive));
        delete loader;
        EXPECT_TRUE(Exclusive(hive));
        EXPECT_EQ(kxtest::ReadBytes(hive), before);
    }
}

// A Wine-format hive is loaded by the system under HKLM; deleting the
// loader unloads it.
TEST(HiveExports, SystemLoadedHiveIsARealKeyUntilDeleted) {
    kxtest::ScratchDir d;
    const std::wstring windows = d / L"Windows";
    kxtest::MakeDirs(windows + L"\\system32\\config");
    Put(windows + L"\\system32\\config\\software", "software.reg");
    RegistryHiveLoader* loader = nullptr;
    ASSERT_EQ(GetSoftwareHiveKeyEx(windows, &loader), 0u);
    ASSERT_NE(loader, nullptr);
    const std::wstring path = loader->GetHiveName() + L"\\Microsoft\\Windows NT\\CurrentVersion";
    wchar_t text[64];
    DWORD bytes = sizeof text;
    EXPECT_EQ(::RegGetValueW(loader->GetHiveKey(), path.c_str(), L"CurrentVersion", RRF_RT_REG_SZ, nullptr, text,
                             &bytes),
              ERROR_SUCCESS);
    EXPECT_STREQ(text, L"6.1");
    delete loader;
    kx::unique_hkey gone;
    EXPECT_EQ(::RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, gone.put()), ERROR_FILE_NOT_FOUND);
}
