// The image layout, judged by outside readers: xorriso (tree, sections,
// extraction), isoinfo (volume descriptors, Joliet names) and isovfy
// (structure of the ISO 9660 tree and its path tables).
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>

#include "iso/iso9660_layout.h"

namespace kx::iso {
namespace {

// Every file's bytes are a function of its key and offset; key 0 files
// are all zeros except a marker every 256 MiB, so that huge files stay
// sparse on disk.
uint8_t ByteAt(uint64_t key, uint64_t offset) {
    if (key >= 1000) return (offset % (256ull << 20)) < 16 ? static_cast<uint8_t>(0xA0 + offset % 16) : 0;
    return static_cast<uint8_t>((offset * 131 + key * 7 + (offset >> 11)) & 0xFF);
}

class PatternSource : public FileDataSource {
public:
    uint32_t ReadFile(uint64_t key, uint64_t size, uint64_t offset, void* data, size_t bytes) override {
        EXPECT_LE(offset + bytes, size);
        if (key == failingKey) return 0x80070017;
        auto* p = static_cast<uint8_t*>(data);
        if (key >= 1000) {
            memset(p, 0, bytes);
            for (uint64_t at = offset - offset % (256ull << 20); at < offset + bytes; at += 256ull << 20)
                for (uint64_t i = 0; i < 16; ++i)
                    if (at + i >= offset && at + i < offset + bytes) p[at + i - offset] = ByteAt(key, at + i);
            return 0;
        }
        for (size_t i = 0; i < bytes; ++i) p[i] = ByteAt(key, offset + i);
        return 0;
    }
    uint64_t failingKey = ~0ull;
};

std::string Shell(const std::string& command) {
    std::string out;
    FILE* f = popen((command + " 2>&1").c_str(), "r");
    if (!f) return out;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.append(buf, n);
    pclose(f);
    return out;
}

std::string Utf8(const std::u16string& s) { return std::filesystem::path(s).string(); }

struct Scratch {
    Scratch() {
        char tmpl[] = "/tmp/kx-iso-XXXXXX";
        dir = mkdtemp(tmpl);
    }
    ~Scratch() { if (!getenv("KX_KEEP")) Shell("rm -rf '" + dir + "'"); }
    std::string dir;
};

// Writes the whole image; runs of zero blocks become holes.
// `metadataOnly` leaves the file data as holes (readers of the tree do not look there).
uint32_t WriteImage(const ImageLayout& layout, FileDataSource& source, const std::string& path, size_t chunk,
                    bool metadataOnly = false) {
    FILE* f = fopen(path.c_str(), "wb");
    std::vector<uint8_t> buf(chunk);
    const uint64_t end = metadataOnly ? layout.MetadataSize() : layout.Size();
    for (uint64_t at = 0; at < end; at += chunk) {
        const size_t n = static_cast<size_t>(std::min<uint64_t>(chunk, end - at));
        if (uint32_t rc = layout.Read(at, buf.data(), n, source)) {
            fclose(f);
            return rc;
        }
        static const std::vector<uint8_t> zeros(16 << 20);
        if (n <= zeros.size() && memcmp(buf.data(), zeros.data(), n) == 0) {
            fseeko(f, static_cast<off_t>(at + n), SEEK_SET);
            continue;
        }
        fseeko(f, static_cast<off_t>(at), SEEK_SET);
        fwrite(buf.data(), 1, n, f);
    }
    fflush(f);
    EXPECT_EQ(ftruncate(fileno(f), static_cast<off_t>(layout.Size())), 0);
    fclose(f);
    return 0;
}

TreeNode File(std::u16string name, uint64_t size, uint64_t key) {
    TreeNode n;
    n.name = std::move(name);
    n.size = size;
    n.source = key;
    n.modified = {2021, 7, 14, 9, 30, 5};
    return n;
}

TreeNode Folder(std::u16string name) {
    TreeNode n;
    n.name = std::move(name);
    n.directory = true;
    n.modified = {2020, 2, 29, 23, 59, 58};
    return n;
}

// The tree of names and sizes a reader should see, path -> size (-1 folders).
void Expect(const TreeNode& n, const std::string& path, std::map<std::string, int64_t>& out) {
    for (const TreeNode& c : n.children) {
        const std::string p = path + "/" + Utf8(c.name.size() > 64 ? c.name.substr(0, 64) : c.name);
        out[p] = c.directory ? -1 : static_cast<int64_t>(c.size);
        if (c.directory) Expect(c, p, out);
    }
}

TEST(IsoLayout, ReadersSeeTheTreeNamesAndBytes) {
    TreeNode root = Folder(u"");
    uint64_t key = 1;
    TreeNode* deep = &root;
    for (int level = 0; level < 12; ++level) {
        deep->children.push_back(Folder(u"level " + std::u16string(1, static_cast<char16_t>(u'a' + level))));
        deep = &deep->children.back();
        deep->children.push_back(File(u"f.txt", 100 + level, key++));
    }
    TreeNode many = Folder(u"many");
    for (int i = 0; i < 400; ++i) {
        const std::string n = "file number " + std::to_string(i) + ".dat";
        many.children.push_back(File(std::u16string(n.begin(), n.end()), (i * 977) % 9000, key++));
    }
    root.children.push_back(std::move(many));
    root.children.push_back(File(u"Ünïcödé – ☃ 日本語.txt", 5000, key++));
    root.children.push_back(File(u"emoji \U0001F600 name.bin", 2048, key++));
    root.children.push_back(File(std::u16string(64, u'L'), 3, key++));
    root.children.push_back(File(u"empty file", 0, key++));
    root.children.push_back(File(u"exactly one block", 2048, key++));
    root.children.push_back(File(u"name;with:bad*chars?", 10, key++));
    root.children.push_back(Folder(u"empty folder"));
    root.children.push_back(Folder(u"dotted.folder.name"));
    root.children.back().children.push_back(File(u"readme", 1, key++));
    root.children.push_back(File(u"UPPER.TXT", 7, key++));
    root.children.push_back(File(u"upper.txt", 8, key++));

    VolumeOptions options;
    options.volumeName = u"Kestrix Tools";
    options.created = {2024, 12, 31, 18, 0, 0};
    ImageLayout layout;
    ASSERT_EQ(ImageLayout::Build(root, options, &layout), LayoutError::kNone);
    EXPECT_EQ(layout.FileCount(), 12u + 400 + 9u);
    EXPECT_EQ(layout.DirectoryCount(), 1u + 12 + 1 + 2);

    Scratch s;
    const std::string iso = s.dir + "/t.iso";
    PatternSource source;
    ASSERT_EQ(WriteImage(layout, source, iso, 3 * 2048 + 777), 0u);  // reads that straddle every boundary

    EXPECT_NE(Shell("isovfy -i " + iso).find("No errors found"), std::string::npos) << Shell("isovfy -i " + iso);
    const std::string d = Shell("isoinfo -d -i " + iso);
    EXPECT_NE(d.find("Volume id: KESTRIX_TOOLS"), std::string::npos) << d;
    EXPECT_NE(d.find("Joliet with UCS level 3 found"), std::string::npos) << d;
    EXPECT_NE(d.find("Volume size is: " + std::to_string(layout.Blocks())), std::string::npos) << d;

    // Joliet tree through xorriso: names, kinds and sizes.
    std::map<std::string, int64_t> expected;
    Expect(root, "", expected);
    expected["/name_with_bad_chars_"] = 10;
    expected.erase("/name;with:bad*chars?");
    expected["/emoji _ name.bin"] = 2048;  // Joliet is UCS-2: no characters beyond the BMP
    expected.erase("/emoji \U0001F600 name.bin");
    const std::string lsl = Shell("xorriso -indev " + iso + " -find / -exec report_lba --");
    const std::string found = Shell("xorriso -indev " + iso + " -find / -type d");
    for (const auto& [path, size] : expected) {
        if (size < 0) {
            EXPECT_NE(found.find("'" + path + "'\n"), std::string::npos) << path;
        } else {
            const std::string line = std::to_string(size) + " , '" + path + "'";
            EXPECT_NE(lsl.find(line), std::string::npos) << line;
        }
    }
    EXPECT_EQ(lsl.find("FAILURE"), std::string::npos) << lsl;
    EXPECT_EQ(lsl.find("SORRY"), std::string::npos) << lsl;
    EXPECT_EQ(lsl.find("WARNING"), std::string::npos) << lsl;

    // Byte-identical extraction.
    const std::string out = s.dir + "/x";
    Shell("osirrox -indev " + iso + " -extract / " + out);
    uint64_t k = 1;
    for (int level = 0; level < 12; ++level) {
        std::string p = out;
        for (int l = 0; l <= level; ++l) p += "/level " + std::string(1, static_cast<char>('a' + l));
        std::ifstream in(p + "/f.txt", std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(in)), {});
        ASSERT_EQ(bytes.size(), 100u + level) << p;
        for (size_t i = 0; i < bytes.size(); ++i) ASSERT_EQ(static_cast<uint8_t>(bytes[i]), ByteAt(k, i));
        ++k;
    }
    for (int i = 0; i < 400; ++i, ++k) {
        std::ifstream in(out + "/many/file number " + std::to_string(i) + ".dat", std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(in)), {});
        ASSERT_EQ(bytes.size(), static_cast<size_t>((i * 977) % 9000)) << i;
        for (size_t j = 0; j < bytes.size(); ++j) ASSERT_EQ(static_cast<uint8_t>(bytes[j]), ByteAt(k, j)) << i;
    }
    struct stat st{};
    EXPECT_EQ(stat((out + "/empty folder").c_str(), &st), 0);
    EXPECT_TRUE(S_ISDIR(st.st_mode));

    // The ISO 9660 tree on its own: level 2 names, same number of entries.
    const std::string plain = Shell("xorriso -read_fs nojoliet -indev " + iso + " -find /");
    EXPECT_NE(plain.find("'/LEVEL_A/LEVEL_B/F.TXT'"), std::string::npos) << plain.substr(0, 2000);
    EXPECT_NE(plain.find("'/DOTTED_FOLDER_NAME/README'"), std::string::npos);
    EXPECT_NE(plain.find("'/UPPER.TXT'"), std::string::npos);
    EXPECT_NE(plain.find("'/UPPER1.TXT'"), std::string::npos);  // the clash gets a counter
    size_t lines = 0;
    for (char c : plain) lines += c == '\n';
    EXPECT_GE(lines, expected.size() + 1);
    // Dates of the records: the file's own time, in UTC.
    const std::string ll = Shell("isoinfo -l -J -i " + iso);
    EXPECT_NE(ll.find("0 Jul 14 2021 [      0 00]  empty file"), std::string::npos) << ll.substr(0, 3000);
}

TEST(IsoLayout, FilesOf4GiBAndMoreAreMultiExtent) {
    TreeNode root = Folder(u"");
    const uint64_t huge = 5ull << 30;
    root.children.push_back(File(u"five.bin", huge, 1000));
    root.children.push_back(File(u"after.txt", 4000, 7));
    ImageLayout layout;
    ASSERT_EQ(ImageLayout::Build(root, VolumeOptions{}, &layout), LayoutError::kNone);
    Scratch s;
    const std::string iso = s.dir + "/big.iso";
    PatternSource source;
    ASSERT_EQ(WriteImage(layout, source, iso, 1 << 20), 0u);
    struct stat st{};
    ASSERT_EQ(stat(iso.c_str(), &st), 0);
    EXPECT_EQ(static_cast<uint64_t>(st.st_size), layout.Size());
    EXPECT_LT(static_cast<uint64_t>(st.st_blocks) * 512, 64ull << 20);  // sparse

    const std::string sections = Shell("xorriso -indev " + iso + " -find / -type f -exec report_sections --");
    // five.bin: two sections, the first a full 0xFFFFF800, the second the rest.
    EXPECT_NE(sections.find("File data lba:  0 ,"), std::string::npos) << sections;
    EXPECT_NE(sections.find("File data lba:  1 ,"), std::string::npos) << sections;
    EXPECT_NE(sections.find("4294965248 , '/five.bin'"), std::string::npos) << sections;
    EXPECT_NE(sections.find(std::to_string(huge - kMaxExtentBytes) + " , '/five.bin'"), std::string::npos)
        << sections;
    EXPECT_EQ(sections.find("SORRY"), std::string::npos) << sections;
    const std::string sizes = Shell("xorriso -indev " + iso + " -find / -type f -exec report_lba --");
    EXPECT_NE(sizes.find(std::to_string(huge) + " , '/five.bin'"), std::string::npos) << sizes;

    // The markers sit where the image places the file, past both sections' seam.
    const auto& files = layout.Files();
    uint64_t fiveAt = 0;
    for (const auto& f : files)
        if (f.source == 1000) fiveAt = f.start;
    std::ifstream in(iso, std::ios::binary);
    for (uint64_t mark : {0ull, 16ull << 30 >> 2, 4ull << 30, huge - (256ull << 20)}) {
        const uint64_t at = mark - mark % (256ull << 20);
        in.seekg(static_cast<std::streamoff>(fiveAt + at));
        char b[16];
        in.read(b, 16);
        for (int i = 0; i < 16; ++i) EXPECT_EQ(static_cast<uint8_t>(b[i]), ByteAt(1000, at + i)) << at;
    }
    // Sizes at the seam: a file of exactly one full section has one record;
    // one block more makes two.
    TreeNode edges = Folder(u"");
    edges.children.push_back(File(u"edge.bin", kMaxExtentBytes, 1001));
    edges.children.push_back(File(u"edge1.bin", kMaxExtentBytes + 1, 1002));
    ImageLayout edgeLayout;
    ASSERT_EQ(ImageLayout::Build(edges, VolumeOptions{}, &edgeLayout), LayoutError::kNone);
    const std::string edgeIso = s.dir + "/edge.iso";
    ASSERT_EQ(WriteImage(edgeLayout, source, edgeIso, 1 << 20, true), 0u);
    const std::string edgeSections = Shell("xorriso -indev " + edgeIso + " -find / -type f -exec report_sections --");
    EXPECT_NE(edgeSections.find("File data lba:  0 ,"), std::string::npos) << edgeSections;
    size_t edgeRecords = 0;
    for (size_t at = edgeSections.find("'/edge.bin'"); at != std::string::npos; at = edgeSections.find("'/edge.bin'", at + 1))
        ++edgeRecords;
    EXPECT_EQ(edgeRecords, 1u) << edgeSections;
    EXPECT_NE(edgeSections.find("File data lba:  1 ,"), std::string::npos) << edgeSections;
    EXPECT_NE(edgeSections.find(" 1 , '/edge1.bin'"), std::string::npos) << edgeSections;

    // The small file after the huge one is intact.
    const std::string out = s.dir + "/after.txt";
    Shell("osirrox -indev " + iso + " -extract /after.txt " + out);
    std::ifstream a(out, std::ios::binary);
    std::string bytes((std::istreambuf_iterator<char>(a)), {});
    ASSERT_EQ(bytes.size(), 4000u);
    for (size_t i = 0; i < bytes.size(); ++i) ASSERT_EQ(static_cast<uint8_t>(bytes[i]), ByteAt(7, i));
}

TEST(IsoLayout, SourceErrorsReachTheReaderAndLimitsAreRefused) {
    TreeNode root = Folder(u"");
    root.children.push_back(File(u"a", 5000, 1));
    root.children.push_back(File(u"b", 5000, 2));
    ImageLayout layout;
    ASSERT_EQ(ImageLayout::Build(root, VolumeOptions{}, &layout), LayoutError::kNone);
    PatternSource source;
    source.failingKey = 2;
    std::vector<uint8_t> buf(layout.Size());
    EXPECT_EQ(layout.Read(0, buf.data(), buf.size(), source), 0x80070017u);
    // Reading only what lies before the failing file succeeds.
    const uint64_t bStart = layout.Files()[1].source == 2 ? layout.Files()[1].start : layout.Files()[0].start;
    EXPECT_EQ(layout.Read(0, buf.data(), static_cast<size_t>(bStart), source), 0u);

    TreeNode wide = Folder(u"");
    for (int i = 0; i < 0xFFFF; ++i) {
        const std::string n = "d" + std::to_string(i);
        wide.children.push_back(Folder(std::u16string(n.begin(), n.end())));
    }
    EXPECT_EQ(ImageLayout::Build(wide, VolumeOptions{}, &layout), LayoutError::kTooManyDirectories);

    TreeNode large = Folder(u"");
    for (int i = 0; i < 3; ++i) large.children.push_back(File(u"f" + std::u16string(1, u'0' + i), 3ull << 40, 1));
    EXPECT_EQ(ImageLayout::Build(large, VolumeOptions{}, &layout), LayoutError::kTooLarge);
}

TEST(IsoLayout, NamesFitTheirFileSystem) {
    struct Case {
        std::u16string name;
        bool dir;
        const char* iso;
    } cases[] = {
        {u"readme.txt", false, "README.TXT;1"},
        {u"Makefile", false, "MAKEFILE.;1"},
        {u".profile", false, ".PROFILE;1"},
        {u"a b+c.tar.gz", false, "A_B_C_TAR.GZ;1"},
        {u"my.folder", true, "MY_FOLDER"},
        {u"ß日本", false, "___.;1"},
        {u"a-very-long-file-name-that-goes-on-and-on.extension", false, "A_VERY_LONG_FILE_NAME_.EXTENSIO;1"},
        {u"short.an-extension-longer-than-thirty", false, "SHORT.AN_EXTENSION_LONGER_THAN_;1"},
        {u"a-folder-name-longer-than-thirty-one", true, "A_FOLDER_NAME_LONGER_THAN_THIRT"},
    };
    for (const Case& c : cases) {
        std::unordered_set<std::string> taken;
        EXPECT_EQ(names::IsoName(c.name, c.dir, taken), c.iso) << c.iso;
    }
    // Clashes after mapping get counters that keep the limits.
    std::unordered_set<std::string> taken;
    std::set<std::string> seen;
    for (int i = 0; i < 30; ++i) {
        const std::string n = names::IsoName(u"a-very-long-file-name-that-goes-on-and-on.txt", false, taken);
        EXPECT_LE(n.size(), 30u + 1 + 2) << n;
        EXPECT_TRUE(seen.insert(n).second) << n;
    }
    std::unordered_set<std::u16string> jtaken;
    const std::u16string longName(70, u'x');
    EXPECT_EQ(names::JolietName(longName + u".txt", false, jtaken), std::u16string(64, u'x'));
    EXPECT_EQ(names::JolietName(longName + u".doc", false, jtaken), std::u16string(63, u'x') + u"1");
    // A character beyond UCS-2 takes one place, as '_'.
    EXPECT_EQ(names::JolietName(std::u16string(63, u'y') + u"\U0001F600z", false, jtaken),
              std::u16string(63, u'y') + u"_");
    EXPECT_EQ(names::JolietName(u"data.csv", false, jtaken), u"data.csv");
    EXPECT_EQ(names::JolietName(u"data.csv", false, jtaken), u"data1.csv");

    EXPECT_TRUE(names::IdentifierLess(u"A.;1", u"A_.;1"));
    EXPECT_TRUE(names::IdentifierLess(u"AB.Z;1", u"AB_.A;1"));  // the name decides before the extension
    EXPECT_FALSE(names::IdentifierLess(u"B", u"A"));
}

}  // namespace
}  // namespace kx::iso
