// kxha iscsi through the DLL: refusals of bad names and addresses, and what
// a host without an iSCSI initiator library (Wine) gets: the library loads
// it on first use and answers with the loader's code.
#include <gtest/gtest.h>

#include "kx_test.h"

namespace {

struct Run {
    DWORD code;
    std::string out;  // stdout and stderr
};

Run Kxha(const std::wstring& args) {
    Run r;
    r.code = kxtest::RunCapture(L"\"" + kxtest::BinDir() + L"\\kxha.exe\" " + args, &r.out);
    return r;
}

bool Has(const Run& r, const std::string& text) { return r.out.find(text) != std::string::npos; }

}  // namespace

TEST(KxhaIscsi, RefusalsAndAHostWithoutInitiator) {
    wchar_t system[MAX_PATH];
    ASSERT_GT(::GetSystemDirectoryW(system, MAX_PATH), 0u);
    const bool noInitiator =
        ::GetFileAttributesW((std::wstring(system) + L"\\iscsidsc.dll").c_str()) == INVALID_FILE_ATTRIBUTES;
    const struct {
        const wchar_t* args;
        DWORD code;
        const char* shown;
        bool needsNoInitiator;
    } cases[] = {
        {L"iscsi discover 10.20.0.300", 1, "DiscoverTarget failed, rc = 87 (0x00000057): not a portal address", false},
        {L"iscsi attach iqn.2010-13.com.nutanix:x", 1, "not an iSCSI name or portal address", false},
        {L"iscsi logout some-target", 1, "neither a session id nor an iSCSI name", false},
        {L"iscsi", 2, "usage: kxha iscsi iqn", false},
        {L"iscsi discover", 2, "usage: kxha iscsi iqn", false},
        {L"iscsi iqn", 1, "GetIqnNumber failed, rc = 126 (0x0000007E): this host has no iSCSI initiator", true},
        {L"iscsi logout iqn.2010-06.com.nutanix:vg-1-tgt0", 1, "LogoutIscsiSession failed, rc = 126", true},
        {L"iscsi discover 127.0.0.1", 1, "DiscoverTarget failed, rc = 126", true},
    };
    for (const auto& c : cases) {
        if (c.needsNoInitiator && !noInitiator) continue;
        const auto r = Kxha(c.args);
        EXPECT_EQ(r.code, c.code) << kxtest::Narrow(c.args) << "\n" << r.out;
        EXPECT_TRUE(Has(r, c.shown)) << kxtest::Narrow(c.args) << "\n" << r.out;
    }
}
