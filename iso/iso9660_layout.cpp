#include "iso/iso9660_layout.h"

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace kx::iso {

namespace {

constexpr uint32_t kSystemAreaBlocks = 16;
constexpr uint8_t kFlagHidden = 0x01;
constexpr uint8_t kFlagDirectory = 0x02;
constexpr uint8_t kFlagNotFinal = 0x80;
constexpr size_t kIsoFileChars = 30;  // name and extension together
constexpr size_t kIsoDirChars = 31;
constexpr size_t kJolietChars = 64;

// ---- names -------------------------------------------------------------------

char DChar(char16_t c) {
    if (c >= u'a' && c <= u'z') return static_cast<char>(c - u'a' + 'A');
    if ((c >= u'A' && c <= u'Z') || (c >= u'0' && c <= u'9') || c == u'_') return static_cast<char>(c);
    return '_';
}

std::string DChars(const std::u16string& s) {
    std::string out;
    out.reserve(s.size());
    for (char16_t c : s) {
        // A surrogate pair is one character of the original name.
        if (c >= 0xDC00 && c <= 0xDFFF && !out.empty()) continue;
        out += DChar(c);
    }
    return out;
}

std::string Counter(unsigned n) { return std::to_string(n); }

// Cuts `s` to `chars` code units without splitting a surrogate pair.
std::u16string CutUtf16(const std::u16string& s, size_t chars) {
    if (s.size() <= chars) return s;
    size_t n = chars;
    if (n > 0 && s[n - 1] >= 0xD800 && s[n - 1] <= 0xDBFF) --n;
    return s.substr(0, n);
}

// ---- byte fields -------------------------------------------------------------

void Le16(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}
void Be16(uint8_t* p, uint32_t v) {
    p[0] = static_cast<uint8_t>(v >> 8);
    p[1] = static_cast<uint8_t>(v);
}
void Le32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
void Be32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * (3 - i)));
}
void Both16(uint8_t* p, uint32_t v) {
    Le16(p, v);
    Be16(p + 2, v);
}
void Both32(uint8_t* p, uint32_t v) {
    Le32(p, v);
    Be32(p + 4, v);
}

void RecordingDate(uint8_t* p, const Timestamp& t) {
    p[0] = static_cast<uint8_t>(std::clamp(t.year - 1900, 0, 255));
    p[1] = static_cast<uint8_t>(t.month);
    p[2] = static_cast<uint8_t>(t.day);
    p[3] = static_cast<uint8_t>(t.hour);
    p[4] = static_cast<uint8_t>(t.minute);
    p[5] = static_cast<uint8_t>(t.second);
    p[6] = 0;  // UTC
}

// "YYYYMMDDHHMMSScc" and the zone byte; a zero timestamp for "not set".
void VolumeDate(uint8_t* p, const Timestamp* t) {
    char text[17] = "0000000000000000";
    if (t) {
        std::snprintf(text, sizeof text, "%04d%02d%02d%02d%02d%02d00", std::clamp(t->year, 0, 9999), t->month, t->day,
                      t->hour, t->minute, t->second);
    }
    std::memcpy(p, text, 16);
    p[16] = 0;
}

void PadAscii(uint8_t* p, size_t width, const std::string& s) {
    std::memset(p, ' ', width);
    std::memcpy(p, s.data(), std::min(width, s.size()));
}

void PadUcs2(uint8_t* p, size_t width, const std::u16string& s) {
    for (size_t i = 0; i + 1 < width; i += 2) Be16(p + i, u' ');
    const size_t n = std::min(width / 2, s.size());
    for (size_t i = 0; i < n; ++i) Be16(p + 2 * i, s[i]);
}

std::vector<uint8_t> Ucs2Bytes(const std::u16string& s) {
    std::vector<uint8_t> out(s.size() * 2);
    for (size_t i = 0; i < s.size(); ++i) Be16(out.data() + 2 * i, s[i]);
    return out;
}

// ---- the tree as laid out ------------------------------------------------------

struct Child {
    const TreeNode* node = nullptr;
    std::vector<uint8_t> isoId;  // identifier bytes as recorded
    std::vector<uint8_t> jolietId;
    std::u16string isoKey, jolietKey;  // for ordering
    uint32_t dir = 0;                  // folders: index in Plan::dirs
    uint32_t file = 0;                 // files: index in Plan::files
};

struct Dir {
    const TreeNode* node = nullptr;
    uint32_t parent = 0;
    std::vector<uint8_t> isoId{0}, jolietId{0};  // the root's identifier is one zero byte
    std::vector<Child> children;
    std::vector<uint32_t> isoOrder, jolietOrder;  // indexes into children, sorted
    uint32_t isoLba = 0, isoBytes = 0, jolietLba = 0, jolietBytes = 0;
    uint16_t isoNumber = 1, jolietNumber = 1;  // path table numbers
};

struct Plan {
    std::vector<Dir> dirs;
    std::vector<const TreeNode*> files;
    std::vector<uint32_t> fileLba;
};

// Places the records of folder `d` (".", "..", then the children in order)
// so that none crosses a block boundary, calling `emit` for each; returns
// the folder's size in whole blocks.
template <class Emit>
uint32_t PlaceRecords(const Dir& d, bool joliet, const Plan& plan, Emit&& emit) {
    uint32_t pos = 0;
    auto place = [&](size_t idLen) {
        const uint32_t len = static_cast<uint32_t>(33 + idLen + ((idLen & 1) ? 0 : 1));
        if (pos % kBlockSize + len > kBlockSize) pos = (pos / kBlockSize + 1) * kBlockSize;
        const uint32_t at = pos;
        pos += len;
        return std::pair<uint32_t, uint32_t>(at, len);
    };
    auto lbaOf = [&](const Dir& x) { return joliet ? x.jolietLba : x.isoLba; };
    auto bytesOf = [&](const Dir& x) { return joliet ? x.jolietBytes : x.isoBytes; };
    static const uint8_t kSelf = 0, kParent = 1;
    const Dir& parent = plan.dirs[d.parent];
    {
        auto [at, len] = place(1);
        emit(at, len, &kSelf, size_t{1}, lbaOf(d), bytesOf(d), d.node->modified, kFlagDirectory);
    }
    {
        auto [at, len] = place(1);
        emit(at, len, &kParent, size_t{1}, lbaOf(parent), bytesOf(parent), parent.node->modified, kFlagDirectory);
    }
    for (uint32_t i : joliet ? d.jolietOrder : d.isoOrder) {
        const Child& c = d.children[i];
        const std::vector<uint8_t>& id = joliet ? c.jolietId : c.isoId;
        const uint8_t hidden = c.node->hidden ? kFlagHidden : 0;
        if (c.node->directory) {
            const Dir& sub = plan.dirs[c.dir];
            auto [at, len] = place(id.size());
            emit(at, len, id.data(), id.size(), lbaOf(sub), bytesOf(sub), c.node->modified,
                 static_cast<uint8_t>(kFlagDirectory | hidden));
            continue;
        }
        uint64_t left = c.node->size;
        uint32_t lba = c.node->size ? plan.fileLba[c.file] : 0;
        do {
            const uint64_t part = std::min(left, kMaxExtentBytes);
            left -= part;
            auto [at, len] = place(id.size());
            emit(at, len, id.data(), id.size(), lba, static_cast<uint32_t>(part), c.node->modified,
                 static_cast<uint8_t>(hidden | (left ? kFlagNotFinal : 0)));
            lba += static_cast<uint32_t>(part / kBlockSize);
        } while (left);
    }
    return (pos + kBlockSize - 1) / kBlockSize * kBlockSize;
}

void RenderRecord(uint8_t* r, uint32_t len, const uint8_t* id, size_t idLen, uint32_t lba, uint32_t bytes,
                  const Timestamp& t, uint8_t flags) {
    r[0] = static_cast<uint8_t>(len);
    Both32(r + 2, lba);
    Both32(r + 10, bytes);
    RecordingDate(r + 18, t);
    r[25] = flags;
    Both16(r + 28, 1);
    r[32] = static_cast<uint8_t>(idLen);
    std::memcpy(r + 33, id, idLen);
}

// Path table order: level by level, each folder's sub-folders in directory
// order, so that every parent is numbered before its children.
std::vector<uint32_t> TableOrder(const Plan& plan, bool joliet) {
    std::vector<uint32_t> order{0};
    for (size_t i = 0; i < order.size(); ++i) {
        const Dir& d = plan.dirs[order[i]];
        for (uint32_t c : joliet ? d.jolietOrder : d.isoOrder)
            if (d.children[c].node->directory) order.push_back(d.children[c].dir);
    }
    return order;
}

uint32_t TableBytes(const Plan& plan, const std::vector<uint32_t>& order, bool joliet) {
    uint32_t bytes = 0;
    for (uint32_t i : order) {
        const size_t idLen = (joliet ? plan.dirs[i].jolietId : plan.dirs[i].isoId).size();
        bytes += static_cast<uint32_t>(8 + idLen + (idLen & 1));
    }
    return bytes;
}

void RenderTable(uint8_t* p, const Plan& plan, const std::vector<uint32_t>& order, bool joliet, bool bigEndian) {
    for (uint32_t i : order) {
        const Dir& d = plan.dirs[i];
        const std::vector<uint8_t>& id = joliet ? d.jolietId : d.isoId;
        const Dir& parent = plan.dirs[d.parent];
        const uint32_t lba = joliet ? d.jolietLba : d.isoLba;
        const uint32_t parentNumber = joliet ? parent.jolietNumber : parent.isoNumber;
        p[0] = static_cast<uint8_t>(id.size());
        if (bigEndian) {
            Be32(p + 2, lba);
            Be16(p + 6, parentNumber);
        } else {
            Le32(p + 2, lba);
            Le16(p + 6, parentNumber);
        }
        std::memcpy(p + 8, id.data(), id.size());
        p += 8 + id.size() + (id.size() & 1);
    }
}

uint32_t BlocksFor(uint64_t bytes) { return static_cast<uint32_t>((bytes + kBlockSize - 1) / kBlockSize); }

struct TableSpot {
    uint32_t bytes = 0, lLba = 0, mLba = 0;
};

void RenderDescriptor(uint8_t* v, bool joliet, const VolumeOptions& options, uint32_t blocks, const TableSpot& table,
                      const Dir& root) {
    v[0] = joliet ? 2 : 1;
    std::memcpy(v + 1, "CD001", 5);
    v[6] = 1;
    const std::u16string volume = options.volumeName.empty() ? u"CDROM" : options.volumeName;
    if (joliet) {
        PadUcs2(v + 8, 32, u"");
        PadUcs2(v + 40, 32, CutUtf16(volume, 16));
        v[88] = '%';  // UCS-2 level 3
        v[89] = '/';
        v[90] = 'E';
    } else {
        PadAscii(v + 8, 32, "");
        PadAscii(v + 40, 32, DChars(volume.substr(0, 32)));
    }
    Both32(v + 80, blocks);
    Both16(v + 120, 1);
    Both16(v + 124, 1);
    Both16(v + 128, kBlockSize);
    Both32(v + 132, table.bytes);
    Le32(v + 140, table.lLba);
    Be32(v + 148, table.mLba);
    static const uint8_t kRootId = 0;
    RenderRecord(v + 156, 34, &kRootId, 1, joliet ? root.jolietLba : root.isoLba,
                 joliet ? root.jolietBytes : root.isoBytes, root.node->modified, kFlagDirectory);
    // Volume set, publisher, preparer, application, and the three file identifiers.
    const std::pair<size_t, size_t> texts[] = {{190, 128}, {318, 128}, {446, 128}, {574, 128},
                                               {702, 37},  {739, 37},  {776, 37}};
    for (auto [at, width] : texts) {
        if (joliet)
            PadUcs2(v + at, width, u"");
        else
            PadAscii(v + at, width, "");
    }
    VolumeDate(v + 813, &options.created);
    VolumeDate(v + 830, &options.created);
    VolumeDate(v + 847, nullptr);
    VolumeDate(v + 864, nullptr);
    v[881] = 1;
}

}  // namespace

// ---- names -----------------------------------------------------------------------

namespace names {

std::string IsoName(const std::u16string& name, bool directory, std::unordered_set<std::string>& taken) {
    if (directory) {
        std::string base = DChars(name).substr(0, kIsoDirChars);
        if (base.empty()) base.assign(1, '_');
        std::string key = base;
        for (unsigned n = 1; taken.count(key); ++n) {
            const std::string suffix = Counter(n);
            key = base.substr(0, std::min(base.size(), kIsoDirChars - suffix.size())) + suffix;
        }
        taken.insert(key);
        return key;
    }
    const size_t dot = name.rfind(u'.');
    std::string stem = DChars(dot == std::u16string::npos ? name : name.substr(0, dot));
    std::string ext = dot == std::u16string::npos ? std::string() : DChars(name.substr(dot + 1));
    if (stem.size() + ext.size() > kIsoFileChars) {
        if (ext.size() > 8) ext.resize(std::min(ext.size(), kIsoFileChars - std::min<size_t>(stem.size(), 22)));
        stem.resize(std::min(stem.size(), kIsoFileChars - ext.size()));
    }
    if (stem.empty() && ext.empty()) stem.assign(1, '_');
    std::string key = stem + "." + ext;
    for (unsigned n = 1; taken.count(key); ++n) {
        const std::string suffix = Counter(n);
        key = stem.substr(0, std::min(stem.size(), kIsoFileChars - ext.size() - suffix.size())) + suffix + "." + ext;
    }
    taken.insert(key);
    return key + ";1";
}

std::u16string JolietName(const std::u16string& name, bool directory,
                          std::unordered_set<std::u16string>& taken) {
    // UCS-2: a character beyond the BMP (a surrogate pair) becomes one '_'.
    std::u16string s;
    s.reserve(name.size());
    for (size_t i = 0; i < name.size(); ++i) {
        char16_t c = name[i];
        if (c >= 0xD800 && c <= 0xDBFF && i + 1 < name.size() && name[i + 1] >= 0xDC00 && name[i + 1] <= 0xDFFF) ++i;
        if (c < 0x20 || (c >= 0xD800 && c <= 0xDFFF) || c == u'*' || c == u'/' || c == u':' || c == u';' || c == u'?' ||
            c == u'\\')
            c = u'_';
        s += c;
    }
    s = CutUtf16(s, kJolietChars);
    if (s.empty()) s = u"_";
    std::u16string key = s;
    const size_t dot = directory ? std::u16string::npos : s.rfind(u'.');
    const bool keepExt = dot != std::u16string::npos && dot > 0 && s.size() - dot <= 16;
    const std::u16string stem = keepExt ? s.substr(0, dot) : s;
    const std::u16string ext = keepExt ? s.substr(dot) : std::u16string();
    for (unsigned n = 1; taken.count(key); ++n) {
        const std::string digits = Counter(n);
        const std::u16string suffix(digits.begin(), digits.end());
        key = CutUtf16(stem, kJolietChars - ext.size() - suffix.size()) + suffix + ext;
    }
    taken.insert(key);
    return key;
}

bool IdentifierLess(const std::u16string& a, const std::u16string& b) {
    auto split = [](const std::u16string& s) {
        const std::u16string bare = s.substr(0, s.find(u';'));
        const size_t dot = bare.rfind(u'.');
        if (dot == std::u16string::npos) return std::pair(bare, std::u16string());
        return std::pair(bare.substr(0, dot), bare.substr(dot + 1));
    };
    auto padded = [](const std::u16string& x, const std::u16string& y) {
        const size_t n = std::max(x.size(), y.size());
        for (size_t i = 0; i < n; ++i) {
            const char16_t cx = i < x.size() ? x[i] : u' ', cy = i < y.size() ? y[i] : u' ';
            if (cx != cy) return cx < cy ? -1 : 1;
        }
        return 0;
    };
    const auto [an, ae] = split(a);
    const auto [bn, be] = split(b);
    if (int c = padded(an, bn)) return c < 0;
    if (int c = padded(ae, be)) return c < 0;
    return a < b;
}

}  // namespace names

// ---- the layout ----------------------------------------------------------------------

LayoutError ImageLayout::Build(const TreeNode& root, const VolumeOptions& options, ImageLayout* out) {
    Plan plan;
    plan.dirs.emplace_back().node = &root;
    size_t fileCount = 0;
    for (size_t di = 0; di < plan.dirs.size(); ++di) {
        const TreeNode* node = plan.dirs[di].node;
        // Names are given in the order of the original names, so that the
        // counters that resolve clashes do not depend on the caller's order.
        std::vector<const TreeNode*> sorted;
        sorted.reserve(node->children.size());
        for (const TreeNode& c : node->children) sorted.push_back(&c);
        std::sort(sorted.begin(), sorted.end(), [](auto* a, auto* b) { return a->name < b->name; });
        std::unordered_set<std::string> isoTaken;
        std::unordered_set<std::u16string> jolietTaken;
        std::vector<Child> children;
        children.reserve(sorted.size());
        for (const TreeNode* c : sorted) {
            Child ch;
            ch.node = c;
            const std::string iso = names::IsoName(c->name, c->directory, isoTaken);
            ch.isoId.assign(iso.begin(), iso.end());
            ch.isoKey.assign(iso.begin(), iso.end());
            ch.jolietKey = names::JolietName(c->name, c->directory, jolietTaken);
            ch.jolietId = Ucs2Bytes(c->directory ? ch.jolietKey : ch.jolietKey + u";1");
            if (c->directory) {
                if (plan.dirs.size() >= 0xFFFF) return LayoutError::kTooManyDirectories;
                ch.dir = static_cast<uint32_t>(plan.dirs.size());
                Dir sub;
                sub.node = c;
                sub.parent = static_cast<uint32_t>(di);
                sub.isoId = ch.isoId;
                sub.jolietId = ch.jolietId;
                plan.dirs.push_back(std::move(sub));
            } else {
                ++fileCount;
            }
            children.push_back(std::move(ch));
        }
        Dir& d = plan.dirs[di];
        d.children = std::move(children);
        d.isoOrder.resize(d.children.size());
        for (uint32_t i = 0; i < d.isoOrder.size(); ++i) d.isoOrder[i] = i;
        d.jolietOrder = d.isoOrder;
        std::sort(d.isoOrder.begin(), d.isoOrder.end(),
                  [&](uint32_t a, uint32_t b) { return names::IdentifierLess(d.children[a].isoKey, d.children[b].isoKey); });
        std::sort(d.jolietOrder.begin(), d.jolietOrder.end(), [&](uint32_t a, uint32_t b) {
            return names::IdentifierLess(d.children[a].jolietKey, d.children[b].jolietKey);
        });
    }

    // File data in the order of a depth-first walk of the ISO tree.
    std::vector<uint32_t> stack{0};
    while (!stack.empty()) {
        Dir& d = plan.dirs[stack.back()];
        stack.pop_back();
        std::vector<uint32_t> subs;
        for (uint32_t i : d.isoOrder) {
            Child& c = d.children[i];
            if (c.node->directory) {
                subs.push_back(c.dir);
            } else {
                c.file = static_cast<uint32_t>(plan.files.size());
                plan.files.push_back(c.node);
            }
        }
        stack.insert(stack.end(), subs.rbegin(), subs.rend());
    }

    const bool joliet = options.joliet;
    const std::vector<uint32_t> isoTable = TableOrder(plan, false);
    const std::vector<uint32_t> jolietTable = joliet ? TableOrder(plan, true) : std::vector<uint32_t>();
    for (size_t i = 0; i < isoTable.size(); ++i) plan.dirs[isoTable[i]].isoNumber = static_cast<uint16_t>(i + 1);
    for (size_t i = 0; i < jolietTable.size(); ++i)
        plan.dirs[jolietTable[i]].jolietNumber = static_cast<uint16_t>(i + 1);

    uint64_t lba = kSystemAreaBlocks + 1 + (joliet ? 1 : 0) + 1;
    TableSpot isoSpot, jolietSpot;
    auto placeTables = [&](TableSpot& spot, const std::vector<uint32_t>& order, bool j) {
        spot.bytes = TableBytes(plan, order, j);
        spot.lLba = static_cast<uint32_t>(lba);
        lba += BlocksFor(spot.bytes);
        spot.mLba = static_cast<uint32_t>(lba);
        lba += BlocksFor(spot.bytes);
    };
    placeTables(isoSpot, isoTable, false);
    if (joliet) placeTables(jolietSpot, jolietTable, true);
    // Folder sizes do not depend on where things lie, only on their records.
    plan.fileLba.resize(plan.files.size());
    for (Dir& d : plan.dirs) {
        d.isoBytes = PlaceRecords(d, false, plan, [](auto&&...) {});
        if (joliet) d.jolietBytes = PlaceRecords(d, true, plan, [](auto&&...) {});
    }
    for (uint32_t i : isoTable) {
        plan.dirs[i].isoLba = static_cast<uint32_t>(lba);
        lba += plan.dirs[i].isoBytes / kBlockSize;
    }
    for (uint32_t i : jolietTable) {
        plan.dirs[i].jolietLba = static_cast<uint32_t>(lba);
        lba += plan.dirs[i].jolietBytes / kBlockSize;
    }
    const uint64_t metaBlocks = lba;
    ImageLayout layout;
    for (size_t i = 0; i < plan.files.size(); ++i) {
        const TreeNode* f = plan.files[i];
        if (!f->size) continue;
        plan.fileLba[i] = static_cast<uint32_t>(lba);
        layout.files_.push_back({lba * kBlockSize, f->size, f->source});
        lba += (f->size + kBlockSize - 1) / kBlockSize;
        if (lba > 0xFFFFFFFFull) return LayoutError::kTooLarge;
    }
    const uint32_t blocks = static_cast<uint32_t>(lba);

    layout.meta_.assign(metaBlocks * kBlockSize, 0);
    uint8_t* m = layout.meta_.data();
    RenderDescriptor(m + kSystemAreaBlocks * kBlockSize, false, options, blocks, isoSpot, plan.dirs[0]);
    uint32_t next = kSystemAreaBlocks + 1;
    if (joliet) RenderDescriptor(m + (next++) * kBlockSize, true, options, blocks, jolietSpot, plan.dirs[0]);
    uint8_t* end = m + next * kBlockSize;
    end[0] = 255;
    std::memcpy(end + 1, "CD001", 5);
    end[6] = 1;
    RenderTable(m + isoSpot.lLba * kBlockSize, plan, isoTable, false, false);
    RenderTable(m + isoSpot.mLba * kBlockSize, plan, isoTable, false, true);
    if (joliet) {
        RenderTable(m + jolietSpot.lLba * kBlockSize, plan, jolietTable, true, false);
        RenderTable(m + jolietSpot.mLba * kBlockSize, plan, jolietTable, true, true);
    }
    for (const Dir& d : plan.dirs) {
        for (bool j : {false, true}) {
            if (j && !joliet) continue;
            uint8_t* base = m + static_cast<uint64_t>(j ? d.jolietLba : d.isoLba) * kBlockSize;
            PlaceRecords(d, j, plan,
                         [&](uint32_t at, uint32_t len, const uint8_t* id, size_t idLen, uint32_t fileLba,
                             uint32_t bytes, const Timestamp& t, uint8_t flags) {
                             RenderRecord(base + at, len, id, idLen, fileLba, bytes, t, flags);
                         });
        }
    }
    layout.size_ = static_cast<uint64_t>(blocks) * kBlockSize;
    layout.fileCount_ = fileCount;
    layout.directories_ = plan.dirs.size();
    *out = std::move(layout);
    return LayoutError::kNone;
}

uint32_t ImageLayout::Read(uint64_t offset, void* data, size_t bytes, FileDataSource& source) const {
    auto* out = static_cast<uint8_t*>(data);
    while (bytes) {
        size_t n;
        if (offset < meta_.size()) {
            n = static_cast<size_t>(std::min<uint64_t>(bytes, meta_.size() - offset));
            std::memcpy(out, meta_.data() + offset, n);
        } else {
            auto it = std::upper_bound(files_.begin(), files_.end(), offset,
                                       [](uint64_t at, const FileExtent& e) { return at < e.start; });
            const FileExtent* in = it == files_.begin() ? nullptr : &*(it - 1);
            if (in && offset < in->start + in->size) {
                n = static_cast<size_t>(std::min<uint64_t>(bytes, in->start + in->size - offset));
                if (uint32_t rc = source.ReadFile(in->source, in->size, offset - in->start, out, n)) return rc;
            } else {
                const uint64_t until = it == files_.end() ? size_ : it->start;
                n = static_cast<size_t>(std::min<uint64_t>(bytes, until - offset));
                std::memset(out, 0, n);
            }
        }
        out += n;
        offset += n;
        bytes -= n;
    }
    return 0;
}

}  // namespace kx::iso
