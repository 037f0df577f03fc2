// What the guest fix-up tests share: fixture paths, a scratch guest with the
// fixture hives of one backend, hive header edits, and dumps of a loaded
// hive in hive_tool.py's line form (for comparison with hivex).
#pragma once

#include <windows.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <memory>

#include "guestfix/hive_access.h"
#include "kx_test.h"
#include "platform/registry.h"

namespace kxguest {

using Bytes = std::vector<uint8_t>;

// A fixture of the build's guest hive folder, as a Windows path.
inline std::wstring Fixture(const std::string& name) {
    std::string path = std::string("Z:") + KX_GUEST_FIXTURES + "/" + name;
    std::replace(path.begin(), path.end(), '/', '\\');
    return std::wstring(path.begin(), path.end());
}

inline void Copy(const std::wstring& from, const std::wstring& to) {
    const Bytes b = kxtest::ReadBytes(from);
    kxtest::WriteBytes(to, b.data(), b.size());
}

// A guest's Windows folder (its path holds blanks and non-ASCII letters)
// with the system and software fixtures of one backend: ".reg" for the
// system's load, ".hive" for the engine. An empty name leaves the hive out.
struct Guest {
    kxtest::ScratchDir dir;
    std::wstring volume = dir / L"Gast Volume \u00c4\u6771";
    std::wstring windows = volume + L"\\Windows";
    Guest(const std::string& system, const std::string& software, const char* ext) {
        kxtest::MakeDirs(windows + L"\\system32\\config");
        if (!system.empty()) Copy(Fixture(system + ext), Hive(L"system"));
        if (!software.empty()) Copy(Fixture(software + ext), Hive(L"software"));
    }
    std::wstring Hive(const wchar_t* name) const { return windows + L"\\system32\\config\\" + name; }
};

inline uint32_t Le32(const Bytes& b, size_t at) {
    uint32_t v;
    std::memcpy(&v, &b[at], 4);
    return v;
}

// The XOR of a base block's first 508 bytes as 32-bit words.
inline uint32_t XorSum(const Bytes& b) {
    uint32_t sum = 0;
    for (size_t i = 0; i < 508; i += 4) sum ^= Le32(b, i);
    return sum;
}

// As a write cut off after its first step leaves a hive: the primary
// sequence number ahead, the checksum matching the header as it stands.
inline Bytes Dirty(Bytes b) {
    const uint32_t primary = Le32(b, 4) + 1;
    std::memcpy(&b[4], &primary, 4);
    const uint32_t sum = XorSum(b);
    std::memcpy(&b[508], &sum, 4);
    return b;
}

inline kx::hostutil::RegistryKey Open(const kx::hostutil::HiveLoader& hive, const std::wstring& path,
                                      REGSAM access = KEY_ALL_ACCESS) {
    return kx::hostutil::RegistryKey(hive.GetHiveKey(), hive.GetHiveName() + path, access);
}

inline std::string Hex(const void* p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (size_t i = 0; i < n; ++i) {
        const uint8_t b = static_cast<const uint8_t*>(p)[i];
        s += {digits[b >> 4], digits[b & 15]};
    }
    return s;
}

inline std::string Utf8(const std::wstring& s) {
    if (s.empty()) return {};
    const int n = ::WideCharToMultiByte(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), nullptr, 0, nullptr, nullptr);
    std::string out(static_cast<size_t>(n), '\0');
    ::WideCharToMultiByte(CP_UTF8, 0, s.data(), static_cast<int>(s.size()), out.data(), n, nullptr, nullptr);
    return out;
}

// Every key and value of a loaded hive, read through RegistryKey (so
// through the system's registry or the engine), in the dump's line form.
inline void DumpKey(const kx::hostutil::RegistryKey& key, const std::wstring& path, std::set<std::string>* out) {
    out->insert("K\t" + Utf8(path));
    std::wstring name;
    DWORD type = 0;
    std::vector<BYTE> data;
    for (DWORD i = 0; key.EnumRawValue(i, &name, &type, &data) == ERROR_SUCCESS; ++i)
        out->insert("V\t" + Utf8(path) + "\t" + Utf8(name) + "\t" + std::to_string(type) + "\t" +
                    Hex(data.data(), data.size()));
    for (DWORD i = 0; key.EnumSubKey(i, &name) == ERROR_SUCCESS; ++i)
        DumpKey(key.GetSubItem(name, KEY_READ), path.empty() ? name : path + L"\\" + name, out);
}

inline std::set<std::string> DumpHive(const kx::hostutil::HiveLoader& hive) {
    std::set<std::string> lines;
    DumpKey(Open(hive, L"", KEY_READ), L"", &lines);
    return lines;
}

#ifdef KX_GUEST_OUT
// Writes `lines` (one per line) and a copy of a hive file to the build's
// output folder for the hivex check that runs after the test program.
inline void LeaveForHivex(const std::wstring& hiveFile, const std::string& name, const std::set<std::string>& lines) {
    std::string out = std::string("Z:") + KX_GUEST_OUT;
    std::replace(out.begin(), out.end(), '/', '\\');
    const std::wstring dir(out.begin(), out.end());
    kxtest::MakeDirs(dir);
    const std::wstring base = dir + L"\\" + std::wstring(name.begin(), name.end());
    Copy(hiveFile, base + L".hive");
    std::string text;
    for (const auto& l : lines) text += l + "\n";
    kxtest::WriteText(base + L".expect", text);
}
#endif

// The base of the tests that run once per hive backend: false the system's
// load of a Wine-format hive, true the engine on a real hive file.
class TwoBackends : public ::testing::TestWithParam<bool> {
protected:
    bool Engine() const { return GetParam(); }
    const char* Ext() const { return Engine() ? ".hive" : ".reg"; }
    // Loads a hive of a guest (anything with a `windows` folder) and checks
    // that the backend of this run holds it.
    template <class G>
    std::unique_ptr<kx::hostutil::HiveLoader> Load(const G& guest, kx::guestfix::GuestHive which) {
        using kx::hostutil::HiveLoader;
        std::unique_ptr<HiveLoader> loader;
        EXPECT_EQ(kx::guestfix::LoadGuestHive(which, guest.windows, &loader), 0u);
        EXPECT_TRUE(loader);
        if (loader) {
            EXPECT_EQ(loader->GetBackend(), Engine() ? HiveLoader::Backend::kEngine : HiveLoader::Backend::kSystem)
                << "system " << loader->SystemResult() << ", engine " << loader->EngineResult();
        }
        return loader;
    }
};

inline std::string BackendName(const ::testing::TestParamInfo<bool>& info) { return info.param ? "Engine" : "System"; }

}  // namespace kxguest
