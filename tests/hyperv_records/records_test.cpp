// The pending-delete record of a VM: files written by hand (raw UTF-16
// bytes, not through the profile calls) are the oracle for the readers, and
// what the writers leave is read back as bytes too.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hyperv/pending_delete.h"
#include "kx_test.h"

using kxtest::ScratchDir;
namespace h = kx::hyperv;

namespace {

constexpr const wchar_t* kVm = L"{6A1E2F30-1111-4C2B-9E77-0123456789AB}";
const std::wstring kZero = L"00000000-0000-0000-0000-000000000000";

h::PendingDelContext Ctx(const ScratchDir& d) { return {d.path(), kVm}; }

// A record file as an operator's editor leaves it: UTF-16LE with the BOM and
// the mark, then the given lines.
void WriteRecord(const std::wstring& path, const std::wstring& lines) {
    std::wstring text = std::wstring(L"\xFEFF[QZSIG]") + L'\0' + L"\r\n" + lines;
    kxtest::WriteBytes(path, text.data(), text.size() * sizeof(wchar_t));
}

std::wstring FileText(const std::wstring& path) {
    const auto bytes = kxtest::ReadBytes(path);
    return std::wstring(reinterpret_cast<const wchar_t*>(bytes.data()), bytes.size() / 2);
}

}  // namespace

TEST(PendingDelRecord, AMissingRecordIsCreatedWithItsMarkAndReadsEmpty) {
    ScratchDir d;
    const std::wstring path = h::PendingDelRecordPath(Ctx(d));
    EXPECT_EQ(path, d.path() + L"\\" + kVm + L"_vcm_to_del.ini");
    EXPECT_EQ(h::PendingDelRecordPath({d.path() + L"\\", kVm}), path);  // no second separator

    std::vector<std::wstring> folders{L"stale"};
    ASSERT_EQ(h::_ReadPendingDelFolderFromCfgFile(Ctx(d), folders), 0u);
    EXPECT_TRUE(folders.empty());
    const auto bytes = kxtest::ReadBytes(path);
    const std::vector<uint8_t> prefix = {0xFF, 0xFE, '[', 0, 'Q', 0, 'Z', 0, 'S', 0, 'I', 0, 'G', 0, ']', 0, 0, 0};
    ASSERT_EQ(bytes, prefix);

    ::DeleteFileW(path.c_str());
    std::vector<h::DiskPair> pairs{{L"x", L"y"}};
    ASSERT_EQ(h::_ReadPendingDelPair(Ctx(d), pairs), 0u);
    EXPECT_TRUE(pairs.empty());
    EXPECT_TRUE(kxtest::Exists(path));

    // Adding nothing does not even create the file.
    ::DeleteFileW(path.c_str());
    EXPECT_EQ(h::_AddPendingDelFolderToCfgFile(Ctx(d), {}), 0u);
    EXPECT_FALSE(kxtest::Exists(path));
}

TEST(PendingDelRecord, HandEditedFolderListsGiveTheEntriesBeforeEachBarOrTheSizeCode) {
    const struct {
        const char* what;
        std::wstring lines;
        DWORD rc;
        std::vector<std::wstring> folders;
    } cases[] = {
        {"cut-off tail", L"[INC_SESS_FOLDER]\r\nIncFolder=C:\\a|C:\\b\r\n[INC_SESS_SIZE]\r\nIncSize=9\r\n", 0, {L"C:\\a"}},
        {"negative size", L"[INC_SESS_FOLDER]\r\nIncFolder=C:\\a|\r\n[INC_SESS_SIZE]\r\nIncSize=-5\r\n", 0xFFFFFFFF, {}},
        {"size key missing", L"[INC_SESS_FOLDER]\r\nIncFolder=C:\\a|\r\n", 0, {}},
        {"size not a number", L"[INC_SESS_FOLDER]\r\nIncFolder=C:\\a|\r\n[INC_SESS_SIZE]\r\nIncSize=lots\r\n", 0, {}},
        {"size too small cuts the first entry",
         L"[INC_SESS_FOLDER]\r\nIncFolder=C:\\a|C:\\b|\r\n[INC_SESS_SIZE]\r\nIncSize=3\r\n", 0, {}},
        {"size too large is harmless",
         L"[INC_SESS_SIZE]\r\nIncSize=100000\r\n[INC_SESS_FOLDER]\r\nIncFolder=C:\\a|D:\\b c|\r\n", 0,
         {L"C:\\a", L"D:\\b c"}},
        {"empty runs stay", L"[INC_SESS_FOLDER]\r\nIncFolder=a||b|\r\n[INC_SESS_SIZE]\r\nIncSize=5\r\n", 0,
         {L"a", L"", L"b"}},
        {"blanks and case", L"\r\n[inc_sess_folder]\r\n  incfolder = E:\\x|  \r\n[INC_SESS_SIZE]\r\nINCSIZE = 4\r\n", 0,
         {L"E:\\x"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ScratchDir d;
        WriteRecord(h::PendingDelRecordPath(Ctx(d)), c.lines);
        std::vector<std::wstring> folders{L"stale"};
        EXPECT_EQ(h::_ReadPendingDelFolderFromCfgFile(Ctx(d), folders), c.rc);
        EXPECT_EQ(folders, c.folders);
    }
}

TEST(PendingDelRecord, OnlyTheTwoPairShapesAreKept) {
    const std::wstring vhd = L"D:\\x\\disk.vhd", avhd = L"D:\\x\\disk_" + kZero + L".avhd";
    const std::wstring vhdx = L"D:\\y\\Disk.VHDX", avhdx = L"D:\\y\\Disk_" + kZero + L".AVHDX";
    const struct {
        const char* what;
        std::wstring list;
        std::vector<h::DiskPair> pairs;
    } cases[] = {
        {"vhd pair", L"<" + vhd + L"|" + avhd + L">", {{vhd, avhd}}},
        {"vhdx pair, any case", L"<" + vhdx + L"|" + avhdx + L">", {{vhdx, avhdx}}},
        {"other differencing name", L"<" + vhd + L"|D:\\x\\other.avhd>", {}},
        {"mixed generations", L"<" + vhdx + L"|" + avhd + L"><" + vhd + L"|" + avhdx + L">", {}},
        {"no bar", L"<" + vhd + L">", {}},
        {"without brackets, between others", L"<" + vhd + L"|" + avhd + L">" + vhdx + L"|" + avhdx + L"<>>",
         {{vhd, avhd}, {vhdx, avhdx}}},
        {"cut-off last pair", L"<" + vhd + L"|" + avhd + L"><" + vhdx + L"|D:\\y\\Disk_00000000-00", {{vhd, avhd}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        ScratchDir d;
        WriteRecord(h::PendingDelRecordPath(Ctx(d)), L"[VHD_AVHD_LIST]\r\nlist=" + c.list + L"\r\n[VHD_AVHD_SIZE]\r\nsize=" +
                                                         std::to_wstring(c.list.size()) + L"\r\n");
        std::vector<h::DiskPair> pairs;
        EXPECT_EQ(h::_ReadPendingDelPair(Ctx(d), pairs), 0u);
        EXPECT_EQ(pairs, c.pairs);
    }
    ScratchDir d;
    WriteRecord(h::PendingDelRecordPath(Ctx(d)), L"[VHD_AVHD_SIZE]\r\nsize=-1\r\n");
    std::vector<h::DiskPair> pairs;
    EXPECT_EQ(h::_ReadPendingDelPair(Ctx(d), pairs), 0xFFFFFFFFu);
}

TEST(PendingDelRecord, WritersLeaveValuesAndSizesThatTheReadersAndTheBytesAgreeOn) {
    ScratchDir d;
    const std::wstring path = h::PendingDelRecordPath(Ctx(d));
    ASSERT_EQ(h::_WritePendingDelFolderToCfgFile(Ctx(d), {L"E:\\d\\VStore\\S0000000003", L"F:\\ü"}), 0u);
    ASSERT_EQ(h::_AddPendingDelFolderToCfgFile(Ctx(d), {L"G:\\new"}), 0u);
    const std::wstring text = FileText(path);
    EXPECT_EQ(text.substr(0, 8), L"\xFEFF[QZSIG]");  // the mark stays first
    EXPECT_NE(text.find(L"IncFolder=E:\\d\\VStore\\S0000000003|F:\\ü|G:\\new|"), std::wstring::npos) << kxtest::Narrow(text);
    EXPECT_NE(text.find(L"IncSize=36"), std::wstring::npos);
    std::vector<std::wstring> folders;
    ASSERT_EQ(h::_ReadPendingDelFolderFromCfgFile(Ctx(d), folders), 0u);
    EXPECT_EQ(folders, (std::vector<std::wstring>{L"E:\\d\\VStore\\S0000000003", L"F:\\ü", L"G:\\new"}));

    // Replacing with nothing empties the list.
    ASSERT_EQ(h::_WritePendingDelFolderToCfgFile(Ctx(d), {}), 0u);
    ASSERT_EQ(h::_ReadPendingDelFolderFromCfgFile(Ctx(d), folders), 0u);
    EXPECT_TRUE(folders.empty());

    const std::vector<h::DiskPair> pairs = {{L"C:\\v\\a.vhd", L"C:\\v\\a_" + kZero + L".avhd"},
                                            {L"C:\\v\\b.vhdx", L"C:\\v\\b_" + kZero + L".avhdx"}};
    ASSERT_EQ(h::_WritePendingDelPair(Ctx(d), pairs), 0u);
    std::vector<h::DiskPair> back;
    ASSERT_EQ(h::_ReadPendingDelPair(Ctx(d), back), 0u);
    EXPECT_EQ(back, pairs);
    const std::wstring list = L"<C:\\v\\a.vhd|C:\\v\\a_" + kZero + L".avhd><C:\\v\\b.vhdx|C:\\v\\b_" + kZero + L".avhdx>";
    EXPECT_NE(FileText(path).find(L"size=" + std::to_wstring(list.size())), std::wstring::npos);

    std::vector<h::DiskPair> memory;
    h::_AppendToPendingDelVhdList(L"a.vhd", L"b.avhd", memory);
    EXPECT_EQ(memory.size(), 1u);
}

TEST(PendingDelRecord, AddingBehindASizeThatLiesKeepsWholeEntriesOnly) {
    ScratchDir d;
    // IncSize says 6: the reader takes "C:\a|C:" and the add must not glue
    // the cut-off "C:" onto its first new entry.
    WriteRecord(h::PendingDelRecordPath(Ctx(d)),
                L"[INC_SESS_FOLDER]\r\nIncFolder=C:\\a|C:\\b|\r\n[INC_SESS_SIZE]\r\nIncSize=6\r\n");
    ASSERT_EQ(h::_AddPendingDelFolderToCfgFile(Ctx(d), {L"C:\\n"}), 0u);
    std::vector<std::wstring> folders;
    ASSERT_EQ(h::_ReadPendingDelFolderFromCfgFile(Ctx(d), folders), 0u);
    EXPECT_EQ(folders, (std::vector<std::wstring>{L"C:\\a", L"C:\\n"}));

    WriteRecord(h::PendingDelRecordPath(Ctx(d)), L"[INC_SESS_SIZE]\r\nIncSize=-2\r\n");
    EXPECT_EQ(h::_AddPendingDelFolderToCfgFile(Ctx(d), {L"C:\\n"}), 0xFFFFFFFFu);
}

TEST(PendingDelRecord, FailuresToWriteReturnTheSystemCode) {
    ScratchDir d;
    const h::PendingDelContext gone{d / L"no-such-folder", kVm};
    std::vector<std::wstring> folders;
    EXPECT_EQ(h::_ReadPendingDelFolderFromCfgFile(gone, folders), 0u);  // nothing to read: empty
    EXPECT_NE(h::_WritePendingDelFolderToCfgFile(gone, {L"C:\\a"}), 0u);
    EXPECT_NE(h::_AddPendingDelFolderToCfgFile(gone, {L"C:\\a"}), 0u);
    EXPECT_NE(h::_WritePendingDelPair(gone, {{L"a.vhd", L"a_" + kZero + L".avhd"}}), 0u);
    EXPECT_FALSE(kxtest::Exists(gone.dataFolder));
}

TEST(PendingDelRecord, ARecordBeyondTheCapIsCutAtItsLastWholeEntry) {
    ScratchDir d;
    // 2,900 folders of 1,500 characters (with the bar): 4,350,000 characters.
    std::vector<std::wstring> folders;
    for (int i = 0; i < 2900; ++i) {
        std::wstring f = L"E:\\dest\\VStore\\S" + std::to_wstring(1000000000 + i) + L"\\";
        f.resize(1499, L'x');
        folders.push_back(f);
    }
    ASSERT_EQ(h::_WritePendingDelFolderToCfgFile(Ctx(d), folders), 0u);
    EXPECT_NE(FileText(h::PendingDelRecordPath(Ctx(d))).find(L"IncSize=4350000"), std::wstring::npos);
    std::vector<std::wstring> back;
    ASSERT_EQ(h::_ReadPendingDelFolderFromCfgFile(Ctx(d), back), 0u);
    // The reader sees 0x400001 characters: entries whose bar lies inside.
    const size_t whole = (h::kPendingDelCap + 1) / 1500;
    ASSERT_EQ(back.size(), whole);
    EXPECT_EQ(back.back(), folders[whole - 1]);
}
