// kxha hyperv through the DLL: mark files and sizes on real destination
// folders, the pending-delete record added to, shown and replayed (with a
// file held open), and the VM-based commands on a host without Hyper-V.
#include <gtest/gtest.h>

#include "common/unique_resource.h"
#include "kx_test.h"
#include "kxha_run.h"

using kxhatest::Has;
using kxhatest::Kxha;
using kxhatest::Q;
using kxtest::ScratchDir;

namespace {
constexpr const wchar_t* kVm = L"{11111111-2222-3333-4444-555555555555}";
const std::wstring kZero = L"_00000000-0000-0000-0000-000000000000";
}  // namespace

TEST(KxhaHyperV, MarkFileAndSizeOnADestination) {
    ScratchDir d;
    const std::wstring root = d / L"dest";
    kxtest::MakeDirs(root + L"\\VStore\\S0000000001");
    kxtest::WriteText(root + L"\\BackupDev.sig", "sig");
    kxtest::WriteText(root + L"\\VStore\\S0000000001\\disk.bin", std::string(4093, 'x'));
    kxtest::WriteText(root + L"\\tag.mark", "m");
    auto r = Kxha(L"hyperv mark " + Q(root) + L" tag.mark --json");
    EXPECT_EQ(r.code, 0u) << r.out;
    EXPECT_EQ(r.out, "{\"markFile\": \"tag.mark\", \"root\": " + kxtest::Narrow(L"\"" + [&] {
                         std::wstring s;
                         for (wchar_t c : root) s += c == L'\\' ? std::wstring(L"\\\\") : std::wstring(1, c);
                         return s;
                     }() + L"\"") + "}\n");
    r = Kxha(L"hyperv mark " + Q(root) + L" other.mark");
    EXPECT_EQ(r.code, 1u);
    EXPECT_TRUE(Has(r, "rc = 2 (0x00000002): no destination holds the mark file")) << r.out;
    r = Kxha(L"hyperv offcopy-size " + Q(root) + L" --json");
    EXPECT_EQ(r.code, 0u) << r.out;
    EXPECT_TRUE(Has(r, "\"bytes\": 4097}")) << r.out;  // 4093 + "sig" + "m"
}

TEST(KxhaHyperV, RecordAddShowReplayWithoutHyperV) {
    ScratchDir d;
    const std::wstring data = d / L"data", s5 = d / L"dest\\VStore\\S0000000005";
    kxtest::MakeDirs(data);
    kxtest::MakeDirs(s5);
    const std::wstring base = s5 + L"\\disk.vhdx", diff = s5 + L"\\disk" + kZero + L".avhdx";
    kxtest::WriteText(base, "b");
    kxtest::WriteText(diff, "d");
    const std::wstring opts = std::wstring(L" ") + kVm + L" --data-folder " + Q(data);
    auto r = Kxha(L"hyperv record add" + opts + L" --folder " + Q(s5) + L" --pair " + Q(base + L"|" + diff));
    ASSERT_EQ(r.code, 0u) << r.out;
    r = Kxha(L"hyperv record add" + opts + L" --pair " + Q(base + L"|" + s5 + L"\\other.avhdx"));
    EXPECT_EQ(r.code, 1u);
    EXPECT_TRUE(Has(r, "rc = 87")) << r.out;
    r = Kxha(L"hyperv record show" + opts);
    EXPECT_EQ(r.out, "folder " + kxtest::Narrow(s5) + "\npair   " + kxtest::Narrow(base) + " | " + kxtest::Narrow(diff) + "\n");
    r = Kxha(L"hyperv record replay" + opts);  // Hyper-V is needed unless told otherwise
    EXPECT_EQ(r.code, 1u);
    EXPECT_TRUE(Has(r, "can't be opened on this host")) << r.out;
    {
        kx::unique_hfile held(::CreateFileW(diff.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr));
        ASSERT_TRUE(held);
        r = Kxha(L"hyperv record replay" + opts + L" --without-hyperv --json");
        EXPECT_EQ(r.out, "{\"removed\": 0, \"pending\": 2}\n");
    }
    r = Kxha(L"hyperv record replay" + opts + L" --without-hyperv --json");
    EXPECT_EQ(r.out, "{\"removed\": 2, \"pending\": 0}\n");
    EXPECT_FALSE(kxtest::Exists(s5));
    r = Kxha(L"hyperv record show" + opts + L" --json");
    EXPECT_EQ(r.out, "{\"folders\": [], \"pairs\": []}\n");
}

TEST(KxhaHyperV, VmCommandsSayThatThisHostHasNoHyperV) {
    for (const std::wstring& args : {L"paths " + std::wstring(kVm), L"mark-vm " + std::wstring(kVm) + L" tag.mark",
                                    L"record show " + std::wstring(kVm)}) {
        const auto r = Kxha(L"hyperv " + args);
        EXPECT_EQ(r.code, 1u) << r.out;
        EXPECT_TRUE(Has(r, "rc = 4294967295 (0xFFFFFFFF): the Hyper-V operations can't be opened on this host")) << r.out;
    }
    EXPECT_EQ(Kxha(L"hyperv").code, 2u);
}
