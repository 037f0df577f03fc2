// MVCM_CreateVssMgr through the DLL, on the system's shadow-copy service.
// Wine has none that makes sets: every attempt must fail cleanly, leave the
// manager usable, and log its start and end lines.
#include <gtest/gtest.h>
#include <windows.h>

#include <objbase.h>
#include <vsserror.h>

#include <string>
#include <vector>

#include "KestrixHA.h"
#include "kx_test.h"

namespace {

struct ComScope {
    ComScope() { hr = ::CoInitializeEx(nullptr, COINIT_MULTITHREADED); }
    ~ComScope() {
        if (SUCCEEDED(hr)) ::CoUninitialize();
    }
    HRESULT hr;
};

TEST(VssExport, ManagerWithoutAShadowCopyServiceFailsCleanly) {
    ComScope com;
    EXPECT_EQ(0x80004003u, MVCM_CreateVssMgr(nullptr));
    kxtest::LogCursor log;
    IVssMgr* mgr = nullptr;
    ASSERT_EQ(0u, MVCM_CreateVssMgr(&mgr));
    ASSERT_NE(nullptr, mgr);
    EXPECT_TRUE(log.Contains(L"MVCM_CreateVssMgr() starts"));
    EXPECT_TRUE(log.Contains(L"MVCM_CreateVssMgr() finished, rc = [0]"));

    struct Case {
        std::vector<std::wstring> volumes;
        bool argumentError;
    } cases[] = {{{}, true}, {{L"C:\\", L""}, true}, {{L"C:\\"}, false}, {{L"C:\\windows", L"C:"}, false}};
    for (const Case& c : cases) {
        const DWORD rc = mgr->CreateSnapshotSet(c.volumes);
        if (c.argumentError) {
            EXPECT_EQ(0x80070057u, rc);
        } else {
            EXPECT_TRUE(FAILED(static_cast<HRESULT>(rc))) << std::hex << rc;
        }
        GUID id;
        EXPECT_EQ(static_cast<DWORD>(VSS_E_BAD_STATE), mgr->GetSnapshotSetId(&id)) << "nothing is left made";
    }
    EXPECT_EQ(static_cast<DWORD>(VSS_E_BAD_STATE), mgr->DeleteSnapshotSet());
    EXPECT_EQ(0u, mgr->KeepSnapshotSet(true));
    EXPECT_EQ(0u, mgr->Release());
    EXPECT_TRUE(log.Contains(L"IVssMgr::CreateSnapshotSet(1 volumes) starts"));
    EXPECT_TRUE(log.Contains(L"IVssMgr::Release(keep = 1) starts"));
}

}  // namespace

namespace {

// kxha vss: its refusals, and on a host without the service the failure
// with the service's code.
TEST(VssTool, SnapshotCommandReportsTheFailureOrItsUsage) {
    const struct {
        const wchar_t* args;
        DWORD code;
        const char* shown;
    } cases[] = {
        {L"vss snapshot C:\\ --keep", 1, "error: making the snapshot set failed, rc = "},
        {L"vss snapshot", 2, "usage: kxha vss snapshot"},
        {L"vss", 2, "usage: kxha vss snapshot"},
    };
    for (const auto& c : cases) {
        std::string out;
        const DWORD code = kxtest::RunCapture(L"\"" + kxtest::BinDir() + L"\\kxha.exe\" " + c.args, &out);
        EXPECT_EQ(c.code, code) << out;
        EXPECT_NE(std::string::npos, out.find(c.shown)) << out;
    }
}

}  // namespace
