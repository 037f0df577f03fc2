// kxha disks on a host without a disk service (Wine has none): the tool
// must say that the service could not be started, refuse bad arguments,
// and treat a check it could not make as a conflict.
#include <gtest/gtest.h>
#include <windows.h>

#include <string>
#include <vector>

#include "kx_test.h"

namespace {

struct ToolRun {
    DWORD code;
    std::string out;
};

ToolRun Kxha(const std::wstring& args) {
    ToolRun r;
    r.code = kxtest::RunCapture(L"\"" + kxtest::BinDir() + L"\\kxha.exe\" " + args, &r.out);
    return r;
}

TEST(KxhaDisks, WithoutADiskService) {
    struct Case {
        const wchar_t* args;
        DWORD code;
        const char* says;
    };
    const std::vector<Case> cases = {
        {L"disks", 1, "GetOnlineDisksAndVolumes failed, rc = 4294967295"},
        {L"disks list --json", 1, "the disk service could not be started"},
        {L"disks check-signature 0439041101 {7C2D4E6F-1111-2222-3333-444455556666}", 3, "conflict"},
        {L"disks check-signature 0439041101 --json", 3, "\"free\": false"},
        {L"disks check-signature", 2, "usage: kxha disks"},
        {L"disks frobnicate", 2, "usage: kxha disks"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(kxtest::Narrow(c.args));
        const ToolRun r = Kxha(c.args);
        EXPECT_EQ(r.code, c.code) << r.out;
        EXPECT_NE(r.out.find(c.says), std::string::npos) << r.out;
    }
}

}  // namespace
