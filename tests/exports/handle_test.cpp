// A host process calls the library for months: no family of exports may
// leave a handle behind, on its success or its failure paths.
#include <gtest/gtest.h>

#include <functional>

#include "../bitmap/bitmap_test_util.h"
#include "KestrixHA.h"

using kxtest::ScratchDir;

namespace {

// Enough that a handle lost per call, or per few calls, stands far above the
// slack below (about 35 s under Wine for all families).
constexpr int kCalls = 2000;

DWORD Handles() {
    DWORD n = 0;
    ::GetProcessHandleCount(::GetCurrentProcess(), &n);
    return n;
}

}  // namespace

TEST(Handles, NoFamilyOfExportsLeavesHandlesBehind) {
    ScratchDir d;
    const std::wstring root = d / L"dest";
    const std::wstring session = root + L"\\VStore\\S0000000002";
    kxtest::WriteBackupInfo(root + L"\\VStore\\S0000000001", 1, "Full");
    kxtest::WriteBackupInfo(session, 2, "Incremental");
    const std::wstring bitmaps = root + L"\\VCM-bitmap\\S0000000002";
    kxtest::WriteBackupInfo(bitmaps, 2, "Incremental");
    kxtest::WriteBitmapFile(bitmaps + L"\\disk0000000001.Bitmap", 4096, std::vector<uint8_t>(512, 0x5A));
    kxtest::WriteText(session + L"\\disk0000000001.zek", "not a disk");
    const std::wstring bitmapFile = bitmaps + L"\\disk0000000001.Bitmap";

    const struct {
        const char* family;
        std::function<void()> call;
    } families[] = {
        {"bitmap file", [&] {
             IDiskBmpReader* r = nullptr;
             if (ReadDiskBitmap(bitmapFile.c_str(), &r) == 0) r->Release();
             (void)ReadDiskBitmap((d / L"none.Bitmap").c_str(), &r);
         }},
        {"union reader", [&] {
             IDiskBmpReader* r = nullptr;
             if (GetBitmapReader_IncsFromFull((session + L"\\disk0000000001.zek").c_str(), 2, nullptr, &r) == 0)
                 r->Release();
         }},
        {"bitmap writer (failing disk)", [&] {
             (void)CreateBitmap4ZekFile(session.c_str(), d.path().c_str(), L"disk0000000001.zek", 0);
         }},
        {"catalogue", [&] {
             SessionBitmapCheck check{};
             std::vector<std::wstring> list;
             (void)CheckSessionBitmap(root.c_str(), L"S0000000002", &check);
             (void)GetBitmapDiskList(root.c_str(), L"S0000000002", list);
             (void)GetSessionBitmapList(root.c_str(), list);
         }},
        {"session lock", [&] {
             SessionLockHandle* h = nullptr;
             if (HA_LockZekSessions(root.c_str(), 1, 2, &h, 0) == 0) HA_UnlockZekSessions(h);
         }},
        {"intact sessions and configuration", [&] {
             IntactSessionListHandle* h = nullptr;
             unsigned sessions[4], count = 0;
             if (MVCM_OpenIntactSessionListHandle(root.c_str(), &h) == 0) {
                 (void)MVCM_QueryIntactSessionList(h, sessions, 4, &count);
                 MVCM_CloseIntactSessionListHandle(h);
             }
             VCMConfigure config{};
             (void)ReadVCMConfigure(&config);
         }},
        {"folders", [&] {
             std::vector<std::wstring> files;
             (void)GetFileListByPattern((root + L"\\VStore\\*").c_str(), files);
             (void)DestroyDirectory((d / L"missing").c_str());
         }},
    };
    for (const auto& f : families) {
        for (int i = 0; i < 50; ++i) f.call();  // first-use objects: the log, loaded DLLs, caches
        const DWORD before = Handles();
        for (int i = 0; i < kCalls; ++i) f.call();
        EXPECT_LE(Handles(), before + 4) << f.family << ": " << before << " handles before";
    }
}
