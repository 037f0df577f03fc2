#include "platform/vhdx/vhdx_format.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <mutex>
#include <random>

namespace kx::vhdx {

using namespace vhd;

namespace {

constexpr uint32_t kHeaderSignature = 0x64616568;    // "head"
constexpr uint32_t kRegionSignature = 0x69676572;    // "regi"
constexpr uint64_t kMetadataSignature = 0x617461646174656Dull;  // "metadata"
constexpr uint32_t kEntrySignature = 0x65676F6C;     // "loge"
constexpr uint32_t kZeroSignature = 0x6F72657A;      // "zero"
constexpr uint32_t kDescSignature = 0x63736564;      // "desc"
constexpr uint32_t kDataSignature = 0x61746164;      // "data"
constexpr uint32_t kEntryHeaderSize = 64;
constexpr uint32_t kDescriptorSize = 32;

std::array<uint32_t, 256> MakeCrcTable() {
    std::array<uint32_t, 256> t{};
    for (uint32_t i = 0; i < 256; ++i) {
        uint32_t c = i;
        for (int k = 0; k < 8; ++k) c = (c & 1) ? (c >> 1) ^ 0x82F63B78u : c >> 1;
        t[i] = c;
    }
    return t;
}

int HexValue(char16_t c) {
    if (c >= u'0' && c <= u'9') return c - u'0';
    if (c >= u'a' && c <= u'f') return c - u'a' + 10;
    if (c >= u'A' && c <= u'F') return c - u'A' + 10;
    return -1;
}

}  // namespace

uint32_t Crc32c(const void* data, size_t bytes, uint32_t crc) {
    static const std::array<uint32_t, 256> table = MakeCrcTable();
    const auto* p = static_cast<const uint8_t*>(data);
    crc = ~crc;
    for (size_t i = 0; i < bytes; ++i) crc = table[(crc ^ p[i]) & 0xFF] ^ (crc >> 8);
    return ~crc;
}

uint32_t StructureCrc(const uint8_t* p, size_t bytes, size_t crcAt) {
    static const uint8_t zero[4] = {};
    uint32_t crc = Crc32c(p, crcAt);
    crc = Crc32c(zero, 4, crc);
    return Crc32c(p + crcAt + 4, bytes - crcAt - 4, crc);
}

void SealStructure(uint8_t* p, size_t bytes, size_t crcAt) { StoreLe<uint32_t>(p + crcAt, StructureCrc(p, bytes, crcAt)); }

bool ParseGuid(const std::u16string& text, Guid* guid) {
    std::u16string t = text;
    if (t.size() == 38 && t.front() == u'{' && t.back() == u'}') t = t.substr(1, 36);
    if (t.size() != 36 || t[8] != u'-' || t[13] != u'-' || t[18] != u'-' || t[23] != u'-') return false;
    uint8_t bytes[16];
    size_t n = 0;
    for (size_t i = 0; i < t.size(); ++i) {
        if (t[i] == u'-') continue;
        const int hi = HexValue(t[i]), lo = i + 1 < t.size() ? HexValue(t[i + 1]) : -1;
        if (hi < 0 || lo < 0) return false;
        bytes[n++] = static_cast<uint8_t>(hi << 4 | lo);
        ++i;
    }
    if (n != 16) return false;
    // Text order is big-endian throughout; the file keeps the first three
    // groups little-endian.
    const uint8_t order[16] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
    for (size_t i = 0; i < 16; ++i) (*guid)[i] = bytes[order[i]];
    return true;
}

std::u16string FormatGuid(const Guid& g) {
    static const char16_t hex[] = u"0123456789ABCDEF";
    const uint8_t order[16] = {3, 2, 1, 0, 5, 4, 7, 6, 8, 9, 10, 11, 12, 13, 14, 15};
    std::u16string out = u"{";
    for (size_t i = 0; i < 16; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) out.push_back(u'-');
        out.push_back(hex[g[order[i]] >> 4]);
        out.push_back(hex[g[order[i]] & 15]);
    }
    out.push_back(u'}');
    return out;
}

Guid GuidOf(const char* text) {
    Guid g{};
    std::u16string t;
    for (const char* p = text; *p; ++p) t.push_back(static_cast<char16_t>(*p));
    ParseGuid(t, &g);
    return g;
}

Guid NewGuid() {
    static std::mutex lock;
    static std::random_device seed;
    static std::mt19937_64 gen(((uint64_t{seed()} << 32) | seed()) ^ reinterpret_cast<uintptr_t>(&lock));
    std::lock_guard<std::mutex> hold(lock);
    Guid g;
    const uint64_t a = gen(), b = gen();
    std::memcpy(g.data(), &a, 8);
    std::memcpy(g.data() + 8, &b, 8);
    g[7] = static_cast<uint8_t>((g[7] & 0x0F) | 0x40);  // version 4
    g[8] = static_cast<uint8_t>((g[8] & 0x3F) | 0x80);
    return g;
}

const Guid kBatRegion = GuidOf("2DC27766-F623-4200-9D64-115E9BFD4A08");
const Guid kMetadataRegion = GuidOf("8B7CA206-4790-4B9A-B8FE-575F050F886E");
const Guid kFileParametersItem = GuidOf("CAA16737-FA36-4D43-B3B6-33F0AA44E76B");
const Guid kVirtualDiskSizeItem = GuidOf("2FA54224-CD1B-4876-B211-5DBED83BF4B8");
const Guid kPage83Item = GuidOf("BECA12AB-B2E6-4523-93EF-C309E000C746");
const Guid kLogicalSectorItem = GuidOf("8141BF1D-A96F-4709-BA47-F233A8FAAB5F");
const Guid kPhysicalSectorItem = GuidOf("CDA348C7-445D-4471-9CC9-E9885251C556");
const Guid kParentLocatorItem = GuidOf("A8D35F2D-B30B-454D-ABF7-D3D84834AB0C");
const Guid kParentLocatorType = GuidOf("B04AEFB7-D19E-4A81-B789-25B8E9445913");

// ---- headers ----

Status ParseHeader(const uint8_t* raw, Header* h) {
    if (LoadLe<uint32_t>(raw) != kHeaderSignature) return kFooterChecksumMismatch;
    if (LoadLe<uint32_t>(raw + 4) != StructureCrc(raw, kHeaderSize, 4)) return kFooterChecksumMismatch;
    h->sequence = LoadLe<uint64_t>(raw + 8);
    std::memcpy(h->fileWriteGuid.data(), raw + 16, 16);
    std::memcpy(h->dataWriteGuid.data(), raw + 32, 16);
    std::memcpy(h->logGuid.data(), raw + 48, 16);
    h->logVersion = LoadLe<uint16_t>(raw + 64);
    h->version = LoadLe<uint16_t>(raw + 66);
    h->logLength = LoadLe<uint32_t>(raw + 68);
    h->logOffset = LoadLe<uint64_t>(raw + 72);
    if (h->version != 1 || h->logVersion != 0) return kFormatUnsupportedVersion;
    if (h->logLength == 0 || h->logLength % kMiB || h->logOffset < kMiB || h->logOffset % kMiB) return kFooterCorrupt;
    return kOk;
}

void BuildHeader(const Header& h, uint8_t* raw) {
    std::memset(raw, 0, kHeaderSize);
    StoreLe<uint32_t>(raw, kHeaderSignature);
    StoreLe<uint64_t>(raw + 8, h.sequence);
    std::memcpy(raw + 16, h.fileWriteGuid.data(), 16);
    std::memcpy(raw + 32, h.dataWriteGuid.data(), 16);
    std::memcpy(raw + 48, h.logGuid.data(), 16);
    StoreLe<uint16_t>(raw + 64, h.logVersion);
    StoreLe<uint16_t>(raw + 66, h.version);
    StoreLe<uint32_t>(raw + 68, h.logLength);
    StoreLe<uint64_t>(raw + 72, h.logOffset);
    SealStructure(raw, kHeaderSize, 4);
}

// ---- region table ----

Status ParseRegionTable(const uint8_t* raw, std::vector<Region>* regions) {
    regions->clear();
    if (LoadLe<uint32_t>(raw) != kRegionSignature) return kSparseHeaderCorrupt;
    if (LoadLe<uint32_t>(raw + 4) != StructureCrc(raw, kRegionTableSize, 4)) return kSparseHeaderChecksumMismatch;
    const uint32_t count = LoadLe<uint32_t>(raw + 8);
    if (count > kMaxTableEntries) return kSparseHeaderCorrupt;
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t* e = raw + 16 + i * 32;
        Region r;
        std::memcpy(r.id.data(), e, 16);
        r.offset = LoadLe<uint64_t>(e + 16);
        r.length = LoadLe<uint32_t>(e + 24);
        r.required = LoadLe<uint32_t>(e + 28) & 1;
        if (r.offset < kMiB || r.offset % kMiB || r.length == 0 || r.length % kMiB) return kSparseHeaderCorrupt;
        for (const Region& o : *regions) {
            if (o.id == r.id) return kSparseHeaderCorrupt;
            if (r.offset < o.offset + o.length && o.offset < r.offset + r.length) return kSparseHeaderCorrupt;
        }
        regions->push_back(r);
    }
    return kOk;
}

void BuildRegionTable(const std::vector<Region>& regions, uint8_t* raw) {
    std::memset(raw, 0, kRegionTableSize);
    StoreLe<uint32_t>(raw, kRegionSignature);
    StoreLe<uint32_t>(raw + 8, static_cast<uint32_t>(regions.size()));
    for (size_t i = 0; i < regions.size(); ++i) {
        uint8_t* e = raw + 16 + i * 32;
        std::memcpy(e, regions[i].id.data(), 16);
        StoreLe<uint64_t>(e + 16, regions[i].offset);
        StoreLe<uint32_t>(e + 24, regions[i].length);
        StoreLe<uint32_t>(e + 28, regions[i].required ? 1u : 0u);
    }
    SealStructure(raw, kRegionTableSize, 4);
}

// ---- metadata ----

Status ParseMetadataTable(const uint8_t* raw, uint32_t regionBytes, std::vector<MetadataItem>* items) {
    items->clear();
    if (LoadLe<uint64_t>(raw) != kMetadataSignature) return kMetadataReadFailure;
    const uint16_t count = LoadLe<uint16_t>(raw + 10);
    if (count > kMaxTableEntries) return kMetadataReadFailure;
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t* e = raw + 32 + i * 32;
        MetadataItem m;
        std::memcpy(m.id.data(), e, 16);
        m.offset = LoadLe<uint32_t>(e + 16);
        m.length = LoadLe<uint32_t>(e + 20);
        const uint32_t flags = LoadLe<uint32_t>(e + 24);
        m.isUser = flags & 1;
        m.isVirtualDisk = flags & 2;
        m.required = flags & 4;
        if (m.length != 0 && (m.offset < 64 * kKiB || m.offset > regionBytes || regionBytes - m.offset < m.length))
            return kMetadataReadFailure;
        for (const MetadataItem& o : *items)
            if (o.id == m.id && o.isUser == m.isUser) return kMetadataReadFailure;
        items->push_back(m);
    }
    return kOk;
}

void BuildMetadataTable(const std::vector<MetadataItem>& items, uint8_t* raw) {
    std::memset(raw, 0, 64 * kKiB);
    StoreLe<uint64_t>(raw, kMetadataSignature);
    StoreLe<uint16_t>(raw + 10, static_cast<uint16_t>(items.size()));
    for (size_t i = 0; i < items.size(); ++i) {
        uint8_t* e = raw + 32 + i * 32;
        std::memcpy(e, items[i].id.data(), 16);
        StoreLe<uint32_t>(e + 16, items[i].offset);
        StoreLe<uint32_t>(e + 20, items[i].length);
        StoreLe<uint32_t>(e + 24, (items[i].isUser ? 1u : 0u) | (items[i].isVirtualDisk ? 2u : 0u) |
                                      (items[i].required ? 4u : 0u));
    }
}

Status ParseParentLocator(const uint8_t* raw, uint32_t bytes, std::map<std::u16string, std::u16string>* entries) {
    entries->clear();
    if (bytes < 20) return kMetadataReadFailure;
    Guid type;
    std::memcpy(type.data(), raw, 16);
    if (type != kParentLocatorType) return kMetadataReadFailure;
    const uint32_t count = LoadLe<uint16_t>(raw + 18);
    if (20 + uint64_t{count} * 12 > bytes) return kMetadataReadFailure;
    auto text = [&](uint32_t off, uint32_t len, std::u16string* out) {
        if (len == 0 || len % 2 || off > bytes || bytes - off < len) return false;
        out->clear();
        for (uint32_t i = 0; i < len; i += 2) out->push_back(static_cast<char16_t>(LoadLe<uint16_t>(raw + off + i)));
        return true;
    };
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t* e = raw + 20 + i * 12;
        std::u16string key, value;
        if (!text(LoadLe<uint32_t>(e), LoadLe<uint16_t>(e + 8), &key) ||
            !text(LoadLe<uint32_t>(e + 4), LoadLe<uint16_t>(e + 10), &value))
            return kMetadataReadFailure;
        if (!entries->emplace(key, value).second) return kMetadataReadFailure;
    }
    return kOk;
}

std::vector<uint8_t> BuildParentLocator(const std::map<std::u16string, std::u16string>& entries) {
    std::vector<uint8_t> out(20 + entries.size() * 12);
    std::memcpy(out.data(), kParentLocatorType.data(), 16);
    StoreLe<uint16_t>(out.data() + 18, static_cast<uint16_t>(entries.size()));
    size_t i = 0;
    auto append = [&](const std::u16string& s) {
        const uint32_t at = static_cast<uint32_t>(out.size());
        for (char16_t c : s) {
            out.push_back(static_cast<uint8_t>(c));
            out.push_back(static_cast<uint8_t>(c >> 8));
        }
        return at;
    };
    for (const auto& [key, value] : entries) {
        const uint32_t k = append(key), v = append(value);
        uint8_t* e = out.data() + 20 + i++ * 12;
        StoreLe<uint32_t>(e, k);
        StoreLe<uint32_t>(e + 4, v);
        StoreLe<uint16_t>(e + 8, static_cast<uint16_t>(key.size() * 2));
        StoreLe<uint16_t>(e + 10, static_cast<uint16_t>(value.size() * 2));
    }
    return out;
}

// ---- log ----

std::vector<uint8_t> BuildLogEntry(const LogEntry& entry, const Guid& logGuid) {
    const uint32_t count = static_cast<uint32_t>(entry.writes.size());
    const uint32_t descBytes = (kEntryHeaderSize + count * kDescriptorSize + kLogSector - 1) / kLogSector * kLogSector;
    uint32_t dataSectors = 0;
    for (const LogWrite& w : entry.writes) dataSectors += w.sector.empty() ? 0 : 1;
    std::vector<uint8_t> out(descBytes + size_t{dataSectors} * kLogSector);
    uint8_t* h = out.data();
    StoreLe<uint32_t>(h, kEntrySignature);
    StoreLe<uint32_t>(h + 8, static_cast<uint32_t>(out.size()));
    StoreLe<uint32_t>(h + 12, entry.tail);
    StoreLe<uint64_t>(h + 16, entry.sequence);
    StoreLe<uint32_t>(h + 24, count);
    std::memcpy(h + 32, logGuid.data(), 16);
    StoreLe<uint64_t>(h + 48, entry.flushedFileOffset);
    StoreLe<uint64_t>(h + 56, entry.lastFileOffset);
    uint32_t data = 0;
    for (uint32_t i = 0; i < count; ++i) {
        const LogWrite& w = entry.writes[i];
        uint8_t* d = h + kEntryHeaderSize + i * kDescriptorSize;
        StoreLe<uint64_t>(d + 16, w.fileOffset);
        StoreLe<uint64_t>(d + 24, entry.sequence);
        if (w.sector.empty()) {
            StoreLe<uint32_t>(d, kZeroSignature);
            StoreLe<uint64_t>(d + 8, w.zeroLength);
            continue;
        }
        StoreLe<uint32_t>(d, kDescSignature);
        std::memcpy(d + 4, w.sector.data() + 4092, 4);
        std::memcpy(d + 8, w.sector.data(), 8);
        uint8_t* s = out.data() + descBytes + size_t{data++} * kLogSector;
        StoreLe<uint32_t>(s, kDataSignature);
        StoreLe<uint32_t>(s + 4, static_cast<uint32_t>(entry.sequence >> 32));
        std::memcpy(s + 8, w.sector.data() + 8, 4084);
        StoreLe<uint32_t>(s + 4092, static_cast<uint32_t>(entry.sequence));
    }
    SealStructure(out.data(), out.size(), 4);
    return out;
}

namespace {

struct ScannedEntry {
    uint32_t length = 0;
    LogEntry entry;
};

// The entry that starts at `at` in the circular log, if it is whole and
// belongs to `logGuid`.
bool ParseEntryAt(const std::vector<uint8_t>& log, uint32_t at, const Guid& logGuid, ScannedEntry* out) {
    const size_t size = log.size();
    const uint8_t* h = log.data() + at;
    if (LoadLe<uint32_t>(h) != kEntrySignature) return false;
    const uint32_t length = LoadLe<uint32_t>(h + 8);
    const uint32_t tail = LoadLe<uint32_t>(h + 12);
    const uint32_t count = LoadLe<uint32_t>(h + 24);
    if (length == 0 || length % kLogSector || length > size || tail % kLogSector || tail >= size) return false;
    if (std::memcmp(h + 32, logGuid.data(), 16) != 0) return false;
    if (count > (length - kEntryHeaderSize) / kDescriptorSize) return false;
    const uint64_t descBytes = (kEntryHeaderSize + uint64_t{count} * kDescriptorSize + kLogSector - 1) / kLogSector * kLogSector;
    if (descBytes > length) return false;
    // The entry may wrap around the end of the buffer: gather it.
    std::vector<uint8_t> bytes(length);
    const size_t first = std::min<size_t>(length, size - at);
    std::memcpy(bytes.data(), log.data() + at, first);
    std::memcpy(bytes.data() + first, log.data(), length - first);
    if (LoadLe<uint32_t>(bytes.data() + 4) != StructureCrc(bytes.data(), length, 4)) return false;

    LogEntry& e = out->entry;
    e = LogEntry{};
    e.sequence = LoadLe<uint64_t>(bytes.data() + 16);
    e.tail = tail;
    e.flushedFileOffset = LoadLe<uint64_t>(bytes.data() + 48);
    e.lastFileOffset = LoadLe<uint64_t>(bytes.data() + 56);
    uint64_t dataAt = descBytes;
    for (uint32_t i = 0; i < count; ++i) {
        const uint8_t* d = bytes.data() + kEntryHeaderSize + i * kDescriptorSize;
        LogWrite w;
        w.fileOffset = LoadLe<uint64_t>(d + 16);
        if (LoadLe<uint64_t>(d + 24) != e.sequence || w.fileOffset % kLogSector) return false;
        const uint32_t sig = LoadLe<uint32_t>(d);
        if (sig == kZeroSignature) {
            w.zeroLength = LoadLe<uint64_t>(d + 8);
            if (w.zeroLength == 0 || w.zeroLength % kLogSector) return false;
        } else if (sig == kDescSignature) {
            if (dataAt + kLogSector > length) return false;
            const uint8_t* s = bytes.data() + dataAt;
            dataAt += kLogSector;
            if (LoadLe<uint32_t>(s) != kDataSignature || LoadLe<uint32_t>(s + 4) != static_cast<uint32_t>(e.sequence >> 32) ||
                LoadLe<uint32_t>(s + 4092) != static_cast<uint32_t>(e.sequence))
                return false;
            w.sector.resize(kLogSector);
            std::memcpy(w.sector.data(), d + 8, 8);
            std::memcpy(w.sector.data() + 8, s + 8, 4084);
            std::memcpy(w.sector.data() + 4092, d + 4, 4);
        } else {
            return false;
        }
        e.writes.push_back(std::move(w));
    }
    out->length = length;
    return true;
}

}  // namespace

Status ScanLog(const std::vector<uint8_t>& log, const Guid& logGuid, LogReplay* replay) {
    *replay = LogReplay{};
    if (log.empty() || log.size() % kLogSector) return kMetadataReadFailure;
    const uint32_t sectors = static_cast<uint32_t>(log.size() / kLogSector);
    // The newest whole entry is the head of the active sequence.
    std::map<uint32_t, ScannedEntry> valid;
    uint32_t head = 0;
    bool found = false;
    for (uint32_t i = 0; i < sectors; ++i) {
        ScannedEntry s;
        if (!ParseEntryAt(log, i * kLogSector, logGuid, &s)) continue;
        if (!found || s.entry.sequence > valid[head].entry.sequence) head = i * kLogSector;
        found = true;
        valid.emplace(i * kLogSector, std::move(s));
    }
    if (!found) return kOk;
    // Walk from the head's tail to the head through consecutive entries.
    const LogEntry& last = valid[head].entry;
    std::vector<const ScannedEntry*> sequence;
    uint32_t at = last.tail;
    for (uint32_t step = 0;; ++step) {
        const auto it = valid.find(at);
        if (step >= sectors || it == valid.end()) return kMetadataReadFailure;
        if (!sequence.empty() && it->second.entry.sequence != sequence.back()->entry.sequence + 1)
            return kMetadataReadFailure;
        sequence.push_back(&it->second);
        if (at == head) break;
        at = static_cast<uint32_t>((uint64_t{at} + it->second.length) % log.size());
    }
    for (const ScannedEntry* s : sequence)
        for (const LogWrite& w : s->entry.writes) {
            const uint64_t length = w.sector.empty() ? w.zeroLength : kLogSector;
            if (w.fileOffset < kMiB || w.fileOffset > last.lastFileOffset || last.lastFileOffset - w.fileOffset < length)
                return kMetadataReadFailure;
            replay->writes.push_back(w);
        }
    replay->empty = false;
    replay->flushedFileOffset = last.flushedFileOffset;
    replay->lastFileOffset = last.lastFileOffset;
    replay->lastSequence = last.sequence;
    replay->nextOffset = static_cast<uint32_t>((uint64_t{head} + valid[head].length) % log.size());
    return kOk;
}

}  // namespace kx::vhdx
