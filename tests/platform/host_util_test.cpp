// The host helpers against the real token, registry and service manager of
// the test run's own prefix.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "kx_test.h"
#include "platform/host_util.h"

using namespace kx::hostutil;

namespace {

// The privilege's attributes in the process token; 0xFFFFFFFF when absent.
DWORD PrivilegeAttributes(const wchar_t* name) {
    LUID luid{};
    if (!::LookupPrivilegeValueW(nullptr, name, &luid)) return 0xFFFFFFFF;
    kx::unique_handle token;
    if (!::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, token.put())) return 0xFFFFFFFF;
    DWORD size = 0;
    ::GetTokenInformation(token.get(), TokenPrivileges, nullptr, 0, &size);
    std::vector<uint8_t> buffer(size);
    if (!::GetTokenInformation(token.get(), TokenPrivileges, buffer.data(), size, &size)) return 0xFFFFFFFF;
    auto* tp = reinterpret_cast<TOKEN_PRIVILEGES*>(buffer.data());
    for (DWORD i = 0; i < tp->PrivilegeCount; ++i)
        if (tp->Privileges[i].Luid.LowPart == luid.LowPart && tp->Privileges[i].Luid.HighPart == luid.HighPart)
            return tp->Privileges[i].Attributes;
    return 0xFFFFFFFF;
}

TEST(HostUtil, PrivilegeEnabledThenPutBack) {
    const DWORD before = PrivilegeAttributes(L"SeBackupPrivilege");
    ASSERT_NE(before, 0xFFFFFFFFu);
    {
        TokenPrivilege privilege;
        EXPECT_EQ(privilege.EnablePrivilege(L"SeBackupPrivilege"), 0u);
        EXPECT_TRUE(PrivilegeAttributes(L"SeBackupPrivilege") & SE_PRIVILEGE_ENABLED);
        EXPECT_EQ(privilege.EnablePrivilege(L"SeNoSuchMadeUpPrivilege"), static_cast<DWORD>(ERROR_NO_SUCH_PRIVILEGE));
        EXPECT_EQ(privilege.EnablePrivilege(nullptr), static_cast<DWORD>(ERROR_INVALID_PARAMETER));
    }
    EXPECT_EQ(PrivilegeAttributes(L"SeBackupPrivilege") & SE_PRIVILEGE_ENABLED, before & SE_PRIVILEGE_ENABLED);
}

TEST(HostUtil, GuidTextRoundTripAndRefusals) {
    GUID a{}, b{}, parsed{};
    ASSERT_TRUE(CreateGuid(&a));
    ASSERT_TRUE(CreateGuid(&b));
    EXPECT_NE(GuidToString(a), GuidToString(b));
    // The system's own formatter is the oracle for the text form.
    wchar_t system[40];
    ASSERT_EQ(::StringFromGUID2(a, system, 40), 39);
    EXPECT_EQ(GuidToString(a), system);
    ASSERT_TRUE(StringToGuid(system, &parsed));
    EXPECT_TRUE(IsEqualGUID(a, parsed));

    const GUID known = {0x0D3F8E2A, 0x6B1C, 0x4C55, {0x9A, 0x43, 0x2F, 0x7A, 0x1C, 0x9E, 0x5B, 0x10}};
    EXPECT_EQ(GuidToString(known), L"{0D3F8E2A-6B1C-4C55-9A43-2F7A1C9E5B10}");
    struct Case {
        const wchar_t* text;
        bool accepted;
    } cases[] = {
        {L"{0D3F8E2A-6B1C-4C55-9A43-2F7A1C9E5B10}", true},
        {L"0d3f8e2a-6b1c-4c55-9a43-2f7a1c9e5b10", true},
        {L"{0D3F8E2A-6B1C-4C55-9A43-2F7A1C9E5B10", false},
        {L"0D3F8E2A6B1C-4C55-9A43-2F7A1C9E5B10-", false},
        {L"0D3F8E2A-6B1C-4C55-9A43-2F7A1C9E5B1G", false},
        {L"0D3F8E2A-6B1C-4C55-9A43-2F7A1C9E5B100", false},
    };
    for (const Case& c : cases) {
        GUID g = a;
        EXPECT_EQ(StringToGuid(c.text, &g), c.accepted) << kxtest::Narrow(c.text);
        if (c.accepted) EXPECT_TRUE(IsEqualGUID(g, known)) << kxtest::Narrow(c.text);
        else EXPECT_TRUE(IsEqualGUID(g, a)) << "changed on refusal: " << kxtest::Narrow(c.text);
    }
}

template <class T>
void CheckConversions(const std::vector<std::pair<std::wstring, bool>>& cases, const std::vector<T>& values) {
    for (size_t i = 0; i < cases.size(); ++i) {
        T v = 7;
        EXPECT_EQ(StringConverter<T>::FromString(cases[i].first, &v), cases[i].second) << kxtest::Narrow(cases[i].first);
        if (cases[i].second) {
            EXPECT_EQ(v, values[i]) << kxtest::Narrow(cases[i].first);
            EXPECT_EQ(StringConverter<T>::ToString(v), cases[i].first);
        } else {
            EXPECT_EQ(v, T(7)) << "changed on refusal: " << kxtest::Narrow(cases[i].first);
        }
    }
}

TEST(HostUtil, DecimalConversionEdges) {
    CheckConversions<DWORD>({{L"4294967295", true}, {L"4294967296", false}, {L"-1", false}, {L"", false},
                             {L"12a", false}, {L"+5", false}},
                            {4294967295u, 0, 0, 0, 0, 0});
    CheckConversions<unsigned short>({{L"65535", true}, {L"65536", false}}, {65535, 0});
    CheckConversions<int64_t>({{L"-9223372036854775808", true}, {L"9223372036854775808", false},
                               {L"-9223372036854775809", false}, {L"-", false}},
                              {INT64_MIN, 0, 0, 0});
}

const wchar_t kKey[] = L"SOFTWARE\\KestrixTest\\HostUtil";

void SetRaw(const wchar_t* name, DWORD type, const std::wstring& data) {
    ASSERT_EQ(::RegSetKeyValueW(HKEY_LOCAL_MACHINE, kKey, name, type, data.data(),
                                static_cast<DWORD>(data.size() * sizeof(wchar_t))),
              ERROR_SUCCESS);
}

TEST(HostUtil, RegistryStringsReadAsStored) {
    SetRaw(L"Plain", REG_SZ, std::wstring(L"C:\\Kestrix\0", 11));
    SetRaw(L"Expand", REG_EXPAND_SZ, std::wstring(L"%SystemRoot%\\x\0", 15));
    SetRaw(L"Multi", REG_MULTI_SZ, std::wstring(L"one\0two\0\0", 9));
    SetRaw(L"EmptyMulti", REG_MULTI_SZ, std::wstring(L"\0", 1));
    kxtest::SetRegValue(kKey, L"Number", 5);

    struct Case {
        const wchar_t* name;
        DWORD rc;
        std::wstring text;
    } strings[] = {
        {L"Plain", 0, L"C:\\Kestrix"},
        {L"Expand", 0, L"%SystemRoot%\\x"},
        {L"Missing", ERROR_FILE_NOT_FOUND, L"keep"},
        {L"Number", ERROR_UNSUPPORTED_TYPE, L"keep"},
    };
    for (const Case& c : strings) {
        std::wstring out = L"keep";
        EXPECT_EQ(GetRegistryString(HKEY_LOCAL_MACHINE, kKey, c.name, &out), c.rc) << kxtest::Narrow(c.name);
        EXPECT_EQ(out, c.text) << kxtest::Narrow(c.name);
    }

    struct MultiCase {
        const wchar_t* name;
        DWORD rc;
        std::vector<std::wstring> list;
    } multis[] = {
        {L"Multi", 0, {L"one", L"two"}},
        {L"EmptyMulti", 0, {}},
        {L"Missing", ERROR_FILE_NOT_FOUND, {L"keep"}},
        {L"Plain", ERROR_UNSUPPORTED_TYPE, {L"keep"}},
    };
    for (const MultiCase& c : multis) {
        std::vector<std::wstring> out{L"keep"};
        EXPECT_EQ(GetRegistryMultiString(HKEY_LOCAL_MACHINE, kKey, c.name, &out), c.rc) << kxtest::Narrow(c.name);
        EXPECT_EQ(out, c.list) << kxtest::Narrow(c.name);
    }
}

TEST(HostUtil, ServicePresence) {
    struct Case {
        const wchar_t* name;
        bool exists;
    } cases[] = {{L"RpcSs", true}, {L"KestrixNoSuchService42", false}};
    for (const Case& c : cases) {
        bool exists = !c.exists;
        EXPECT_EQ(WindowsServiceMgr::IfServiceExists(c.name, &exists), 0u) << kxtest::Narrow(c.name);
        EXPECT_EQ(exists, c.exists) << kxtest::Narrow(c.name);
    }
}

}  // namespace
