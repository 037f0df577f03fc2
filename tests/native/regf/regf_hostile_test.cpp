// Hand-made and damaged hives, interrupted commits, cell reuse and growth.
#include <gtest/gtest.h>

#include "regf/regf_test_util.h"

using namespace kx::regf;
using namespace regftest;

namespace {

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
        {"root outside the hive", [](HandHive& h) { Put32(h.b, 36, 0x7FFF0000), Reseal(h.b); }},
        {"root not on a cell", [](HandHive& h) { Put32(h.b, 36, h.root + 8), Reseal(h.b); }},
        {"negative huge cell length", [](HandHive& h) { Put32(h.b, kBase + h.root, 0x80000008); }},
        {"zero cell length", [](HandHive& h) { Put32(h.b, kBase + h.root, 0); }},
        {"root cell free", [](HandHive& h) { Put32(h.b, kBase + h.root, -int32_t(Le32(h.b, kBase + h.root))); }},
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
    EXPECT_EQ(kNotFound, hive->DeleteKeyTree(hive->Root(), u"cherry"));
    EXPECT_EQ(kInvalidParameter, hive->DeleteKeyTree(hive->Root(), u"\\"));
    KeyInfo info;
    EXPECT_EQ(kKeyDeleted, hive->GetKeyInfo(Key{c}, &info));
    std::vector<std::string> names;
    std::u16string name;
    for (uint32_t i = 0; hive->EnumSubkey(hive->Root(), i, &name) == kOk; ++i) names.push_back(Utf8(name));
    EXPECT_EQ((std::vector<std::string>{"aaa", "apple", "banana", "Date", "elder", "fig"}), names);
    ASSERT_EQ(kOk, hive->Commit());
    std::string path = Temp("hand-lists.hive"), theirs;
    WriteFile(path, fs.Get(u"h"));
    ASSERT_EQ(0, Tool("dump " + path, &theirs));
    EXPECT_EQ("K\t\nK\tDate\nK\taaa\nK\tapple\nK\tbanana\nK\telder\nK\tfig\n", theirs);
    // The root's descriptor counts the keys that share it.
    EXPECT_EQ(1u + 6u, Le32(fs.Get(u"h"), kBase + h.sk + 4 + 12));
}

TEST(RegfHostile, ByteFlipAndTruncationSweep) {
    Bytes good = ReadFile(SmallFixture(5));
    ASSERT_GT(good.size(), 8192u);
    size_t stride = std::max<size_t>(1, (good.size() - 512) / 600);
    std::vector<size_t> offsets;
    for (size_t i = 0; i < 512; ++i) offsets.push_back(i);
    for (size_t i = 4096; i < good.size(); i += stride) offsets.push_back(i);
    for (size_t off : offsets) {
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
    for (size_t size = 0; size < good.size(); size += 512) {
        kxnative::MemoryFileSystem fs;
        std::unique_ptr<Hive> hive;
        EXPECT_EQ(kBadDb, OpenBytes(fs, Bytes(good.begin(), good.begin() + long(size)), &hive)) << size;
    }
}

// Every prefix of a commit's writes: the hive is either untouched or
// visibly dirty, to the engine and to hivex.
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
        }
        std::string path = Temp("torn.hive"), out;
        WriteFile(path, torn);
        vhdtest::RunCommand("hivexsh -d " + path + " </dev/null", &out);
        unsigned s1 = 0, s2 = 0;
        const size_t at = out.find("sequence nos");
        if (at != std::string::npos) std::sscanf(out.c_str() + at + 12, "%u %u", &s1, &s2);
        EXPECT_NE(s1, s2) << "hivex sees the hive as clean after " << writes << " writes";
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

// Freed cells are reused: the same edits over again do not grow the file.
// A read-only hive refuses edits and its commit writes nothing.
TEST(RegfHostile, FreeCellsReusedAndReadOnlyUntouched) {
    kxnative::MemoryFileSystem fs;
    std::unique_ptr<Hive> hive;
    ASSERT_EQ(kOk, OpenBytes(fs, EmptyHive(5), &hive));
    Bytes big(100000, 0x42);
    Key k;
    size_t grown = 0;
    for (int round = 0; round < 6; ++round) {
        hive->DeleteValue(hive->Root(), u"big");  // none in the first round
        ASSERT_EQ(kOk, hive->SetValue(hive->Root(), u"big", kRegBinary, big.data(), big.size()));
        ASSERT_EQ(kOk, hive->CreateKey(hive->Root(), u"tmp\\a\\b", &k));
        ASSERT_EQ(kOk, hive->DeleteKeyTree(hive->Root(), u"tmp"));
        ASSERT_EQ(kOk, hive->Commit());
        if (round == 0) grown = fs.Get(u"h").size();
    }
    const Bytes now = fs.Get(u"h");
    EXPECT_EQ(grown, now.size()) << "freed cells were not reused";
    ASSERT_EQ(kOk, OpenBytes(fs, now, &hive, OpenOptions{false, false}));
    EXPECT_EQ(kAccessDenied, hive->CreateKey(hive->Root(), u"x", &k));
    EXPECT_EQ(kOk, hive->Commit());
    EXPECT_TRUE(fs.Get(u"h") == now);
}

}  // namespace
