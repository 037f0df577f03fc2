// The hive engine against independent readers (hivex, regfexport,
// reglookup), and its case-insensitive names.
#include <gtest/gtest.h>

#include <set>

#include "platform/regf/regf_names.h"
#include "platform/regf/regf_values.h"
#include "regf/regf_test_util.h"

using namespace kx::regf;
using namespace regftest;

namespace {

Bytes Utf16z(const std::u16string& s) {
    Bytes out;
    for (char16_t c : s) out.insert(out.end(), {uint8_t(c), uint8_t(c >> 8)});
    out.insert(out.end(), {0, 0});
    return out;
}
template <class T>
Bytes Raw(T v) {
    return Bytes(reinterpret_cast<const uint8_t*>(&v), reinterpret_cast<const uint8_t*>(&v + 1));
}
std::string Name(const std::string& path) { return std::filesystem::path(path).filename().string(); }

// Has hivex and the named readers compare the hive the engine wrote to
// `file` with the engine's own dump of it.
void CheckWithReaders(const Hive& hive, const std::string& file, const std::string& readers) {
    const std::string dump = Join(Dump(hive));
    WriteFile(file + ".dump", Bytes(dump.begin(), dump.end()));
    std::string out;
    EXPECT_EQ(0, Tool("check " + file + " " + file + ".dump " + readers, &out)) << out;
    std::printf("  %s: %s", Name(file).c_str(), out.c_str());
}

// Commits `hive` (opened over fs file "h") and saves the bytes to a file.
std::string CommitToFile(Hive& hive, kxnative::MemoryFileSystem& fs, const std::string& name) {
    EXPECT_EQ(kOk, hive.Commit());
    std::string path = Temp(name);
    WriteFile(path, fs.Get(u"h"));
    return path;
}

// A hive the engine fills from an empty one: every value type and form
// (resident, in a cell, big data), names outside ASCII, overwrites, deletions.
TEST(RegfOracle, EngineWrittenHivesReadByAllReaders) {
    for (int minor : {3, 5}) {
        kxnative::MemoryFileSystem fs;
        std::unique_ptr<Hive> hive;
        ASSERT_EQ(kOk, OpenBytes(fs, EmptyHive(minor), &hive));
        Key soft, k;
        ASSERT_EQ(kOk, hive->CreateKey(hive->Root(), u"Software\\Vendor\\Product", &soft));
        for (const char16_t* name : {u"Gr\u00fc\u00dfe", u"\u4e2d\u6587", u"\u041f\u0440\u0438", u"zeta", u"Alpha", u"_under"})
            ASSERT_EQ(kOk, hive->CreateKey(soft, name, &k));
        for (size_t n : {0, 1, 3, 4, 5, 100, 16344, 16345, 40000, 100000}) {
            Bytes data(n);
            for (size_t i = 0; i < n; ++i) data[i] = uint8_t(i * 7 + n);
            std::u16string name = u"bin" + std::u16string(1, char16_t(u'a' + n % 26)) + char16_t(u'0' + n % 10);
            ASSERT_EQ(kOk, hive->SetValue(soft, name + char16_t(u'0' + n % 7), kRegBinary, data.data(), n));
        }
        const Bytes sz = Utf16z(u"C:\\Program Files\\Kestrix"), dw = Raw(0xDEADBEEFu), big(50000, 0x5A);
        EXPECT_TRUE(sz == EncodeString(u"C:\\Program Files\\Kestrix"));
        struct Set { std::u16string name; uint32_t type; Bytes data; };
        for (const Set& s : std::vector<Set>{
                 {u"Dword", kRegDword, dw},
                 {u"Qword", kRegQword, Raw(0x0123456789ABCDEFull)},
                 {u"Path", kRegSz, sz},
                 {u"Expand", kRegExpandSz, Utf16z(u"%SystemRoot%\\system32")},
                 {u"Multi", kRegMultiSz, EncodeMultiString({u"one", u"two", u"three"})},
                 {u"", kRegSz, sz},
                 {u"None", kRegNone, {}},
                 {u"Odd", 0x20001, {'x', 'y', 'z'}},
                 {u"Wert\u00e4", kRegDword, dw},
                 {u"Dword", kRegBinary, big},  // small to big
                 {u"BINE05", kRegDword, dw},   // big to small
             })
            EXPECT_EQ(kOk, hive->SetValue(soft, s.name, s.type, s.data.data(), s.data.size())) << Utf8(s.name);
        EXPECT_EQ(kOk, hive->DeleteValue(soft, u"Qword"));
        ASSERT_EQ(kOk, hive->CreateKey(soft, u"Doomed\\A\\B", &k));
        EXPECT_EQ(kOk, hive->SetValue(k, u"x", kRegBinary, big.data(), big.size()));
        EXPECT_EQ(kOk, hive->DeleteKeyTree(soft, u"DOOMED"));
        Value read;
        ASSERT_EQ(kOk, hive->GetValue(soft, u"multi", &read));
        EXPECT_EQ((std::vector<std::u16string>{u"one", u"two", u"three"}), DecodeMultiString(read.data));
        const std::string file = CommitToFile(*hive, fs, "engine-1." + std::to_string(minor) + ".hive");
        CheckWithReaders(*hive, file, "reglookup regfexport");
    }
}

// Hives hivex wrote read here as in hivex. Edited here, they read in hivex
// as the original dump plus the edits (keys and values the edits did not
// touch are unchanged), and the same in the other readers; the header's
// sequence numbers, checksum and length are right.
TEST(RegfOracle, HivexHivesReadAndEditedIdentically) {
    struct Case {
        std::string path;
        const char* readers;  // regfexport is slow on large hives and rejects
                              // hivex's single-cell big values in 1.4+ hives
    };
    for (const Case& c : {Case{SmallFixture(3), "reglookup regfexport"}, Case{SmallFixture(5), "reglookup"},
                          Case{SoftwareFixture(), "reglookup"}}) {
        ASSERT_FALSE(c.path.empty());
        const Bytes original = ReadFile(c.path);
        kxnative::MemoryFileSystem fs;
        std::unique_ptr<Hive> hive;
        ASSERT_EQ(kOk, OpenBytes(fs, original, &hive));
        const std::vector<std::string> before = Dump(*hive);
        std::string theirs;
        ASSERT_EQ(0, Tool("dump " + c.path, &theirs));
        EXPECT_TRUE(Join(before) == theirs) << c.path;

        // Every 7th key gets a value, the first keys a new subkey.
        std::set<std::string> expected(before.begin(), before.end());
        std::vector<std::pair<Key, std::string>> keys;
        Walk(*hive, [&](Key key, const std::string& path) { keys.emplace_back(key, path); });
        for (size_t i = 0; i < keys.size(); i += 7) {
            const uint32_t v = uint32_t(i);
            ASSERT_EQ(kOk, hive->SetValue(keys[i].first, u"KxEdit", kRegDword, &v, 4));
            expected.insert("V\t" + keys[i].second + "\tKxEdit\t4\t" + Hex(&v, 4));
        }
        for (size_t i = 1; i < keys.size() && i < 100; i += 3) {
            Key k;
            ASSERT_EQ(kOk, hive->CreateKey(keys[i].first, u"KxNew", &k));
            expected.insert("K\t" + keys[i].second + "\\KxNew");
        }
        const std::string path = CommitToFile(*hive, fs, "edited-" + Name(c.path));
        const Bytes after = fs.Get(u"h");
        EXPECT_EQ(Le32(after, 4), Le32(after, 8));
        EXPECT_EQ(Le32(after, 4), Le32(original, 4) + 1);
        EXPECT_EQ(Le32(after, 508), Checksum(after));
        EXPECT_EQ(after.size() - 4096, Le32(after, 40));
        theirs.clear();
        ASSERT_EQ(0, Tool("dump " + path, &theirs));
        EXPECT_TRUE(theirs == Join(expected)) << path;
        EXPECT_LT(hive->Stats().bytesWritten, after.size());
        CheckWithReaders(*hive, path, c.readers);
    }
}

TEST(Regf, NamesCompareWithoutCase) {
    struct Row {
        std::u16string stored, asked;
        bool same;
    } rows[] = {
        {u"Software", u"SOFTWARE", true},      {u"abc", u"abd", false},
        {u"xy", u"xyz", false},                {u"\u03b1\u03b2", u"\u0391\u0392", true},
        {u"Gr\u00fc\u00dfe", u"GR\u00dc\u00dfE", true},  {u"\u00ff", u"\u0178", true},
        {u"\u043f\u0440\u0438", u"\u041f\u0420\u0418", true}, {u"\u0101", u"\u0100", true},
    };
    kxnative::MemoryFileSystem fs;
    std::unique_ptr<Hive> hive;
    ASSERT_EQ(kOk, OpenBytes(fs, EmptyHive(5), &hive));
    for (const Row& r : rows) {
        Key made, found;
        ASSERT_EQ(kOk, hive->CreateKey(hive->Root(), r.stored, &made));
        EXPECT_EQ(r.same ? kOk : kNotFound, hive->OpenKey(hive->Root(), r.asked, &found)) << Utf8(r.stored);
        if (r.same) EXPECT_EQ(made, found);
        uint32_t one = 1;
        ASSERT_EQ(kOk, hive->SetValue(made, r.stored, kRegDword, &one, 4));
        Value v;
        EXPECT_EQ(r.same ? kOk : kNotFound, hive->GetValue(made, r.asked, &v));
        bool created = true;
        EXPECT_EQ(kOk, hive->CreateKey(hive->Root(), r.stored, &found, &created));
        EXPECT_FALSE(created);
    }
    // The index stays sorted by the upper-cased names.
    std::u16string prev, name;
    for (uint32_t i = 0; hive->EnumSubkey(hive->Root(), i, &name) == kOk; ++i, prev = name)
        if (i > 0) EXPECT_LT(CompareNames(prev, name), 0);
}

}  // namespace
