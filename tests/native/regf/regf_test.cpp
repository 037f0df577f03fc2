// The hive engine against independent readers (hivex, regfexport,
// reglookup, through hive_tool.py and its cached fixtures), its
// case-insensitive names, hand-made and damaged hives, interrupted commits
// and cell reuse.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>

#include "platform/regf/regf_hive.h"
#include "platform/regf/regf_names.h"
#include "platform/regf/regf_values.h"
#include "vhd_test_util.h"

using namespace kx::regf;
using namespace vhdtest;

namespace {

// Runs hive_tool.py with the arguments; its exit code.
int Tool(const std::string& args, std::string* out = nullptr) {
    return vhdtest::RunCommand("/usr/bin/python3 " KX_NATIVE_DIR "/regf/hive_tool.py " + args, out);
}

std::string Temp(const std::string& name) {  // a path in the build tree's scratch folder
    std::filesystem::create_directories(KX_REGF_CACHE "/scratch");
    return KX_REGF_CACHE "/scratch/" + name;
}

// A hive written empty by hive_tool.py from the format's description and,
// given `fill` ("keys seed"), filled by hivex; made once per build tree.
std::string Fixture(const std::string& name, int minor, const std::string& fill = {}) {
    const std::string path = KX_REGF_CACHE "/" + name, tmp = path + ".part";
    if (std::filesystem::exists(path)) return path;
    std::filesystem::create_directories(KX_REGF_CACHE);
    if (Tool("empty " + tmp + " " + std::to_string(minor)) != 0 || (!fill.empty() && Tool("fill " + tmp + " " + fill)))
        return "";
    std::filesystem::rename(tmp, path);
    return path;
}
std::string SoftwareFixture() { return Fixture("software-like-30000.hive", 3, "30000 1"); }
std::string SmallFixture(int minor) { return Fixture("small-1." + std::to_string(minor) + ".hive", minor, "120 7"); }
Bytes EmptyHive(int minor) { return ReadFile(Fixture("empty-1." + std::to_string(minor) + ".hive", minor)); }

// Opens bytes held by `fs` at path u"h".
Result OpenBytes(kxnative::MemoryFileSystem& fs, const Bytes& bytes, std::unique_ptr<Hive>* hive, OpenOptions options = {}) {
    fs.Put(u"h", bytes);
    std::unique_ptr<kx::vhd::PositionedFile> file;
    fs.Open(u"h", true, &file);
    return Hive::Open(std::move(file), options, hive);
}

std::string Utf8(const std::u16string& s) { return kxnative::ToUtf8(s); }  // a damaged name is empty

std::string Hex(const void* data, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (auto* p = static_cast<const uint8_t*>(data); n--; ++p) out += {digits[*p >> 4], digits[*p & 15]};
    return out;
}

template <class Lines>
std::string Join(const Lines& lines) {
    std::string out;
    for (const auto& line : lines) out += line + "\n";
    return out;
}

// Calls fn(key, path) for every key, the root's path empty.
template <class Fn>
void Walk(const Hive& hive, Fn&& fn) {
    std::vector<std::pair<Key, std::string>> stack{{hive.Root(), ""}};
    while (!stack.empty()) {
        const auto [key, path] = stack.back();
        stack.pop_back();
        fn(key, path);
        std::u16string name;
        Key child;
        for (uint32_t i = 0; hive.EnumSubkey(key, i, &name, &child) == kx::regf::kOk; ++i)
            stack.emplace_back(child, path.empty() ? Utf8(name) : path + "\\" + Utf8(name));
    }
}

// Every key and value in the dump format of hive_tool.py, sorted.
std::vector<std::string> Dump(const Hive& hive) {
    std::vector<std::string> lines;
    Walk(hive, [&](Key key, const std::string& path) {
        lines.push_back("K\t" + path);
        std::u16string name;
        kx::regf::Value v;
        for (uint32_t i = 0; hive.EnumValue(key, i, &name, &v) == kx::regf::kOk; ++i)
            lines.push_back("V\t" + path + "\t" + Utf8(name) + "\t" + std::to_string(v.type) + "\t" +
                            Hex(v.data.data(), v.data.size()));
    });
    std::sort(lines.begin(), lines.end());
    return lines;
}

uint32_t Le32(const Bytes& b, size_t off) {
    return b[off] | b[off + 1] << 8 | b[off + 2] << 16 | uint32_t(b[off + 3]) << 24;
}
void Put32(Bytes& b, size_t off, uint32_t v) { std::memcpy(&b[off], &v, 4); }
// The base block's checksum over its first 508 bytes.
uint32_t Checksum(const Bytes& b) {
    uint32_t x = 0;
    for (int i = 0; i < 127; ++i) x ^= Le32(b, 4 * i);
    return x == 0 ? 1 : x == 0xFFFFFFFFu ? 0xFFFFFFFEu : x;
}

Bytes Utf16z(const std::u16string& s) {
    Bytes out;
    for (char16_t c : s) out.insert(out.end(), {uint8_t(c), uint8_t(c >> 8)});
    out.insert(out.end(), {0, 0});
    return out;
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
        const Bytes sz = Utf16z(u"C:\\Program Files\\Kestrix"), dw = {0xEF, 0xBE, 0xAD, 0xDE}, big(50000, 0x5A);
        EXPECT_TRUE(sz == EncodeString(u"C:\\Program Files\\Kestrix"));
        struct Set { std::u16string name; uint32_t type; Bytes data; };
        for (const Set& s : std::vector<Set>{
                 {u"Dword", kRegDword, dw},
                 {u"Qword", kRegQword, {0xEF, 0xCD, 0xAB, 0x89, 0x67, 0x45, 0x23, 0x01}},
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
        // Freed cells are reused: the same big value set again and again does not grow the file.
        const size_t committed = fs.Get(u"h").size();
        for (int round = 0; round < 5; ++round) {
            ASSERT_EQ(kOk, hive->DeleteValue(soft, u"Dword"));
            ASSERT_EQ(kOk, hive->SetValue(soft, u"Dword", kRegBinary, big.data(), big.size()));
        }
        ASSERT_EQ(kOk, hive->Commit());
        EXPECT_EQ(committed, fs.Get(u"h").size()) << "freed cells were not reused";
    }
}

// Hives hivex wrote read here as in hivex. Edited here, they read in hivex
// as the original dump plus the edits (keys and values the edits did not
// touch are unchanged), and the same in the other readers; the header's
// sequence numbers, checksum and length are right.
TEST(RegfOracle, HivexHivesReadAndEditedIdentically) {
    // regfexport is slow on large hives and rejects hivex's single-cell big values in 1.4+ hives.
    for (const auto& [path, readers] : std::vector<std::pair<std::string, const char*>>{
             {SmallFixture(3), "reglookup regfexport"}, {SmallFixture(5), "reglookup"}, {SoftwareFixture(), "reglookup"}}) {
        ASSERT_FALSE(path.empty());
        const Bytes original = ReadFile(path);
        kxnative::MemoryFileSystem fs;
        std::unique_ptr<Hive> hive;
        ASSERT_EQ(kOk, OpenBytes(fs, original, &hive));
        const std::vector<std::string> before = Dump(*hive);
        std::string theirs;
        ASSERT_EQ(0, Tool("dump " + path, &theirs));
        EXPECT_TRUE(Join(before) == theirs) << path;

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
        const std::string edited = CommitToFile(*hive, fs, "edited-" + Name(path));
        const Bytes after = fs.Get(u"h");
        EXPECT_EQ(Le32(after, 4), Le32(after, 8));
        EXPECT_EQ(Le32(after, 4), Le32(original, 4) + 1);
        EXPECT_EQ(Le32(after, 508), Checksum(after));
        EXPECT_EQ(after.size() - 4096, Le32(after, 40));
        theirs.clear();
        ASSERT_EQ(0, Tool("dump " + edited, &theirs));
        EXPECT_TRUE(theirs == Join(expected)) << edited;
        EXPECT_LT(hive->Stats().bytesWritten, after.size());
        CheckWithReaders(*hive, edited, readers);
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
    }
    // The index stays sorted by the upper-cased names.
    std::u16string prev, name;
    for (uint32_t i = 0; hive->EnumSubkey(hive->Root(), i, &name) == kOk; ++i, prev = name)
        if (i > 0) EXPECT_LT(CompareNames(prev, name), 0);
}

constexpr uint32_t kBase = 4096;

void Put16(Bytes& b, size_t off, uint16_t v) { std::memcpy(&b[off], &v, 2); }
void Reseal(Bytes& b) { Put32(b, 508, Checksum(b)); }

// The empty hive of hive_tool.py with cells appended by hand in its one bin.
struct HandHive {
    Bytes b = EmptyHive(5);
    uint32_t root = Le32(b, 36), sk = Le32(b, kBase + root + 4 + 44), next = 32;

    HandHive() {
        while (int32_t(Le32(b, kBase + next)) < 0) next += uint32_t(-int32_t(Le32(b, kBase + next)));
    }
    uint32_t Add(const Bytes& payload) {
        uint32_t at = next, size = uint32_t(payload.size() + 4 + 7) / 8 * 8;
        Put32(b, kBase + at, uint32_t(-int32_t(size)));
        std::memcpy(&b[kBase + at + 4], payload.data(), payload.size());
        next += size;
        Put32(b, kBase + next, 4096 - next);
        return at;
    }
    uint32_t Key(const std::string& name, uint32_t parent) {
        Bytes p(76 + name.size());
        std::memcpy(&p[0], "nk", 2);
        Put16(p, 2, 0x20);
        Put32(p, 16, parent);
        for (uint32_t f : {28u, 32u, 40u, 48u}) Put32(p, f, 0xFFFFFFFF);
        Put32(p, 44, sk);
        Put16(p, 72, uint16_t(name.size()));
        std::memcpy(&p[76], name.data(), name.size());
        Put32(b, kBase + sk + 4 + 12, Le32(b, kBase + sk + 4 + 12) + 1);
        return Add(p);
    }
    uint32_t List(const char* sig, const std::vector<uint32_t>& cells, const std::vector<std::string>& names = {}) {
        bool wide = sig[1] == 'f' || sig[1] == 'h';
        Bytes p(4 + cells.size() * (wide ? 8 : 4));
        std::memcpy(&p[0], sig, 2);
        Put16(p, 2, uint16_t(cells.size()));
        for (size_t i = 0; i < cells.size(); ++i) {
            Put32(p, 4 + i * (wide ? 8 : 4), cells[i]);
            if (sig[1] == 'f') std::memcpy(&p[8 + i * 8], names[i].data(), std::min<size_t>(4, names[i].size()));
        }
        return Add(p);
    }
    // A value cell: data length (top bit: resident), data offset, type, ASCII name.
    uint32_t Value(uint32_t length, uint32_t offset, uint32_t type, const std::string& name) {
        Bytes vk(20 + name.size());
        std::memcpy(&vk[0], "vk", 2);
        Put16(vk, 2, uint16_t(name.size()));
        Put32(vk, 4, length);
        Put32(vk, 8, offset);
        Put32(vk, 12, type);
        Put16(vk, 16, name.empty() ? 0 : 1);
        std::memcpy(&vk[20], name.data(), name.size());
        return Add(vk);
    }
    void Field(uint32_t nk, uint32_t field, uint32_t v) { Put32(b, kBase + nk + 4 + field, v); }
    void Subkeys(uint32_t nk, uint32_t list, uint32_t count) { Field(nk, 28, list), Field(nk, 20, count); }
    void Values(uint32_t nk, const std::vector<uint32_t>& cells, uint32_t count) {
        Bytes list(4 * cells.size());
        for (size_t i = 0; i < cells.size(); ++i) Put32(list, 4 * i, cells[i]);
        Field(nk, 40, Add(list)), Field(nk, 36, count);
    }
};

TEST(RegfHostile, BadInputRefusedAndNothingWritten) {
    struct Row {
        const char* what;
        void (*damage)(HandHive&);
    } rows[] = {
        {"truncated inside the bin", [](HandHive& h) { h.b.resize(6000); }},
        {"wrong checksum", [](HandHive& h) { h.b[508] ^= 1; }},
        {"not regf", [](HandHive& h) { h.b[0] = 'x', Reseal(h.b); }},
        {"bins past the file", [](HandHive& h) { Put32(h.b, 40, 8192), Reseal(h.b); }},
        {"bin size past the data", [](HandHive& h) { Put32(h.b, kBase + 8, 8192); }},
        {"bin offset field wrong", [](HandHive& h) { Put32(h.b, kBase + 4, 4096); }},
        {"root not on a cell", [](HandHive& h) { Put32(h.b, 36, h.root + 8), Reseal(h.b); }},
        {"negative huge cell length", [](HandHive& h) { Put32(h.b, kBase + h.root, 0x80000008); }},
        {"zero cell length", [](HandHive& h) { Put32(h.b, kBase + h.root, 0); }},
        {"name longer than the cell", [](HandHive& h) { h.Field(h.root, 72, 3000); }},
        {"subkey list loops to the root", [](HandHive& h) { h.Subkeys(h.root, h.List("lh", {h.root}), 1); }},
        {"ri inside ri", [](HandHive& h) {
             uint32_t a = h.Key("A", h.root);
             h.Subkeys(h.root, h.List("ri", {h.List("ri", {h.List("li", {a})})}), 1);
         }},
        {"subkey count above the list", [](HandHive& h) { h.Subkeys(h.root, h.List("lh", {h.Key("A", h.root)}), 2); }},
        {"value data overlaps the key cell", [](HandHive& h) { h.Values(h.root, {h.Value(40, h.root, 3, "v")}, 1); }},
        {"value count beyond its list", [](HandHive& h) { h.Values(h.root, {0, 0}, 100000); }},
        {"resident data longer than 4", [](HandHive& h) { h.Values(h.root, {h.Value(0x80000010, 0, 0, "")}, 1); }},
        {"security cell not sk", [](HandHive& h) { h.Field(h.root, 44, h.root); }},
        {"version 2", [](HandHive& h) { Put32(h.b, 20, 2), Reseal(h.b); }},
    };
    for (const Row& row : rows) {
        HandHive h;
        row.damage(h);
        kxnative::MemoryFileSystem fs;
        std::unique_ptr<Hive> hive;
        Result r = OpenBytes(fs, h.b, &hive);
        EXPECT_TRUE(r == kBadDb || r == kInvalidData) << row.what << ": " << r;
        EXPECT_FALSE(hive) << row.what;
        EXPECT_TRUE(fs.Get(u"h") == h.b) << row.what;
    }
}

// Lists other tools do not write (li, lf, ri) are read and edited in place
// of their kind; hivex reads the result.
TEST(RegfHostile, HandMadeIndexKindsEditedAndReadBack) {
    HandHive h;
    uint32_t a = h.Key("apple", h.root), c = h.Key("Cherry", h.root), e = h.Key("elder", h.root);
    h.Subkeys(h.root, h.List("ri", {h.List("li", {a, c}), h.List("lf", {e}, {"elder"})}), 3);
    kxnative::MemoryFileSystem fs;
    std::unique_ptr<Hive> hive;
    ASSERT_EQ(kOk, OpenBytes(fs, h.b, &hive));
    Key k;
    for (auto name : {u"banana", u"Date", u"fig", u"aaa"}) ASSERT_EQ(kOk, hive->CreateKey(hive->Root(), name, &k));
    EXPECT_EQ(kOk, hive->DeleteKeyTree(hive->Root(), u"CHERRY"));
    EXPECT_EQ(kInvalidParameter, hive->DeleteKeyTree(hive->Root(), u"\\"));
    KeyInfo info;
    EXPECT_EQ(kKeyDeleted, hive->GetKeyInfo(Key{c}, &info));
    std::vector<std::string> names;
    std::u16string name;
    for (uint32_t i = 0; hive->EnumSubkey(hive->Root(), i, &name) == kOk; ++i) names.push_back(Utf8(name));
    EXPECT_EQ((std::vector<std::string>{"aaa", "apple", "banana", "Date", "elder", "fig"}), names);
    const std::string path = CommitToFile(*hive, fs, "hand-lists.hive");
    std::string theirs;
    ASSERT_EQ(0, Tool("dump " + path, &theirs));
    EXPECT_EQ("K\t\nK\tDate\nK\taaa\nK\tapple\nK\tbanana\nK\telder\nK\tfig\n", theirs);
    // The root's descriptor counts the keys that share it.
    EXPECT_EQ(1u + 6u, Le32(fs.Get(u"h"), kBase + h.sk + 4 + 12));
}

TEST(RegfHostile, ByteFlipSweep) {
    Bytes good = ReadFile(SmallFixture(5));
    ASSERT_GT(good.size(), 8192u);
    size_t stride = std::max<size_t>(1, (good.size() - 512) / 600);
    // The base block's first 512 bytes one by one, then the bins at a stride.
    for (size_t off = 0; off < good.size(); off = off + 1 == 512 ? 4096 : off < 512 ? off + 1 : off + stride) {
        Bytes bad = good;
        bad[off] ^= uint8_t(0x80 >> (off % 8)) | 0x01;
        kxnative::MemoryFileSystem fs;
        std::unique_ptr<Hive> hive;
        Result r = OpenBytes(fs, bad, &hive, OpenOptions{true, true});
        if (r != kOk) {
            ASSERT_TRUE(r == kBadDb || r == kInvalidData) << off;
            ASSERT_TRUE(fs.Get(u"h") == bad);
            continue;
        }
        Dump(*hive);
        Key k;
        uint32_t v = 7;
        if (hive->CreateKey(hive->Root(), u"Flip\\Sub", &k) == kOk) hive->SetValue(k, u"v", kRegDword, &v, 4);
        ASSERT_EQ(kOk, hive->Commit()) << off;
        std::unique_ptr<Hive> again;
        ASSERT_EQ(kOk, OpenBytes(fs, fs.Get(u"h"), &again)) << "engine's own output refused after flip at " << off;
    }
}

// Every prefix of a commit's writes: the hive is either untouched or
// visibly dirty, in its header as any reader sees it and to the engine.
TEST(RegfHostile, InterruptedCommitLeavesDirtyHive) {
    Bytes original = ReadFile(SmallFixture(5));
    int interrupted = 0, openedDirty = 0;
    for (long writes = 0;; ++writes) {
        kxnative::MemoryFileSystem fs;
        std::unique_ptr<Hive> hive;
        ASSERT_EQ(kOk, OpenBytes(fs, original, &hive));
        Key k;
        ASSERT_EQ(kOk, hive->CreateKey(hive->Root(), u"Crash\\Test", &k));
        Bytes big(30000, 0x11);
        ASSERT_EQ(kOk, hive->SetValue(k, u"big", kRegBinary, big.data(), big.size()));
        std::u16string first;
        ASSERT_EQ(kOk, hive->EnumSubkey(hive->Root(), 0, &first));
        ASSERT_EQ(kOk, hive->DeleteKeyTree(hive->Root(), first));
        fs.writesLeft = writes;
        if (hive->Commit() == kOk) {
            Bytes done = fs.Get(u"h");
            EXPECT_EQ(Le32(done, 4), Le32(done, 8));
            break;
        }
        ++interrupted;
        Bytes torn = fs.Get(u"h");
        if (writes == 0) {
            EXPECT_TRUE(torn == original);
            continue;
        }
        EXPECT_NE(Le32(torn, 4), Le32(torn, 8)) << writes;
        // The header alone tells that the hive is dirty, also when the pages
        // written so far leave its structure torn.
        fs.writesLeft = -1;
        std::unique_ptr<kx::vhd::PositionedFile> file;
        fs.Open(u"h", false, &file);
        HeaderInfo header;
        ASSERT_EQ(kOk, Hive::ReadHeader(*file, &header));
        EXPECT_TRUE(header.dirty);
        std::unique_ptr<Hive> again;
        Result r = OpenBytes(fs, torn, &again);
        ASSERT_TRUE(r == kOk || r == kBadDb) << r;
        uint32_t v = 1;
        if (r == kOk) {
            ++openedDirty;
            EXPECT_TRUE(again->WasDirty());
            EXPECT_TRUE(again->ReadOnly());
            EXPECT_EQ(kAccessDenied, again->SetValue(again->Root(), u"x", kRegDword, &v, 4));
            EXPECT_EQ(kOk, again->Commit());  // read-only: writes nothing
            EXPECT_TRUE(fs.Get(u"h") == torn);
        }
        // Accepted as dirty, the next commit makes it consistent.
        if (r == kOk) {
            ASSERT_EQ(kOk, OpenBytes(fs, torn, &again, OpenOptions{true, true}));
            ASSERT_EQ(kOk, again->SetValue(again->Root(), u"x", kRegDword, &v, 4));
            ASSERT_EQ(kOk, again->Commit());
            Bytes fixed = fs.Get(u"h");
            EXPECT_EQ(Le32(fixed, 4), Le32(fixed, 8));
        }
    }
    EXPECT_GE(interrupted, 3);
    EXPECT_GE(openedDirty, 1);  // the header written, no page yet: the old content, marked dirty
}

}  // namespace
