#include "platform/regf/regf_hive.h"

#include <algorithm>
#include <chrono>
#include <cstring>

#include "platform/regf/regf_bytes.h"
#include "platform/regf/regf_names.h"

namespace kx::regf {
namespace {

constexpr uint32_t kNone = 0xFFFFFFFFu;
constexpr uint32_t kBaseBytes = 4096;
constexpr uint32_t kPage = 4096;
constexpr uint32_t kBinHeader = 32;
constexpr uint32_t kMaxHiveData = 0x7FFFF000u;
constexpr uint32_t kSegment = 16344;      // largest data chunk of a big-data value
constexpr uint32_t kMaxValueBytes = 1u << 30;
constexpr uint32_t kMaxDepth = 512;
constexpr size_t kMaxKeyNameChars = 255;
constexpr size_t kMaxValueNameChars = 16383;

// Key node fields (offsets into the cell's payload).
enum : uint32_t {
    kNkFlags = 2, kNkTime = 4, kNkParent = 16, kNkSubkeys = 20, kNkSubkeyList = 28,
    kNkValues = 36, kNkValueList = 40, kNkSecurity = 44, kNkClass = 48, kNkMaxName = 52,
    kNkMaxValueName = 60, kNkMaxValueData = 64, kNkNameLen = 72, kNkClassLen = 74, kNkName = 76,
};
// Value key fields.
enum : uint32_t { kVkNameLen = 2, kVkDataLen = 4, kVkData = 8, kVkType = 12, kVkFlags = 16, kVkName = 20 };
// Security cell fields.
enum : uint32_t { kSkNext = 4, kSkPrev = 8, kSkRefs = 12, kSkHeader = 20 };

constexpr uint16_t kKeyCompressedName = 0x0020;
constexpr uint16_t kValueCompressedName = 0x0001;
constexpr uint32_t kResident = 0x80000000u;

bool Sig(const uint8_t* p, const char* s) { return p[0] == uint8_t(s[0]) && p[1] == uint8_t(s[1]); }
uint32_t Align8(uint64_t v) { return uint32_t((v + 7) & ~uint64_t(7)); }

uint64_t NowFiletime() {
    auto since = std::chrono::system_clock::now().time_since_epoch();
    return uint64_t(std::chrono::duration_cast<std::chrono::nanoseconds>(since).count() / 100) + 116444736000000000ull;
}

uint32_t StoredChecksum(uint32_t sum) { return sum == 0 ? 1 : sum == 0xFFFFFFFFu ? 0xFFFFFFFEu : sum; }

// A big-data header: "db", the segment count and the segment list; only for
// hives of version 1.4 and later and values longer than one segment.
bool IsBigData(const uint8_t* p, uint32_t bytes, uint32_t minor, uint32_t length) {
    if (minor < 4 || length <= kSegment || bytes < 8 || !Sig(p, "db")) return false;
    uint64_t count = Le16(p + 2);
    return count > 0 && (count - 1) * kSegment < length && count * kSegment >= length;
}

// Marks a cell as owned by one structure; false when another owns it already
// (a loop, two structures sharing one cell) or when `off` is not where an
// allocated cell starts (a structure overlapping other cells).
bool Claim(std::vector<uint8_t>& claimed, uint32_t off) {
    if (claimed[off / 8] != 0) return false;
    claimed[off / 8] = 1;
    return true;
}

enum class ListKind { kNone, kLi, kLf, kLh, kRi };
ListKind KindOf(const uint8_t* p) {
    if (Sig(p, "li")) return ListKind::kLi;
    if (Sig(p, "lf")) return ListKind::kLf;
    if (Sig(p, "lh")) return ListKind::kLh;
    if (Sig(p, "ri")) return ListKind::kRi;
    return ListKind::kNone;
}
uint32_t EntryBytes(ListKind k) { return (k == ListKind::kLf || k == ListKind::kLh) ? 8 : 4; }

std::vector<uint8_t> EncodeName(std::u16string_view name, bool compressed) {
    std::vector<uint8_t> out;
    for (char16_t c : name) {
        out.push_back(uint8_t(c));
        if (!compressed) out.push_back(uint8_t(c >> 8));
    }
    return out;
}

// Splits a path at '\'; empty components are skipped.
std::vector<std::u16string_view> SplitPath(std::u16string_view path) {
    std::vector<std::u16string_view> parts;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find(u'\\', start);
        if (end == std::u16string_view::npos) end = path.size();
        if (end > start) parts.push_back(path.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

}  // namespace

uint32_t BaseChecksum(const uint8_t* base) {
    uint32_t sum = 0;
    for (int i = 0; i < 127; ++i) sum ^= Le32(base + 4 * i);
    return sum;
}

Hive::~Hive() = default;

Result Hive::Open(std::unique_ptr<vhd::PositionedFile> file, const OpenOptions& options, std::unique_ptr<Hive>* hive) {
    if (!file || !hive) return kInvalidParameter;
    hive->reset();
    std::unique_ptr<Hive> h(new Hive());
    h->file_ = std::move(file);
    Result r = h->Load(options);
    if (r != kOk) return r;
    *hive = std::move(h);
    return kOk;
}

Result Hive::ReadHeader(vhd::PositionedFile& file, HeaderInfo* info) {
    if (!info) return kInvalidParameter;
    uint8_t b[512];
    if (Result r = file.ReadAt(0, b, sizeof b); r != kOk) return r == vhd::kHandleEof ? kBadDb : r;
    uint32_t sum = BaseChecksum(b), stored = Le32(b + 508);
    if (std::memcmp(b, "regf", 4) != 0 || (stored != sum && stored != StoredChecksum(sum))) return kBadDb;
    info->primarySequence = Le32(b + 4);
    info->secondarySequence = Le32(b + 8);
    info->dirty = info->primarySequence != info->secondarySequence;
    info->minorVersion = Le32(b + 24);
    info->binsBytes = Le32(b + 40);
    return kOk;
}

Result Hive::Load(const OpenOptions& options) {
    uint64_t fileBytes = 0;
    if (Result r = file_->Size(&fileBytes); r != kOk) return r;
    if (fileBytes < kBaseBytes + kPage) return kBadDb;
    base_.resize(kBaseBytes);
    if (Result r = file_->ReadAt(0, base_.data(), kBaseBytes); r != kOk) return r == vhd::kHandleEof ? kBadDb : r;
    const uint8_t* b = base_.data();
    if (std::memcmp(b, "regf", 4) != 0) return kBadDb;
    // The checksum is accepted as Windows stores it (0 and ~0 remapped) and
    // as a plain XOR, the form a header repair may leave.
    uint32_t sum = BaseChecksum(b), stored = Le32(b + 508);
    if (stored != sum && stored != StoredChecksum(sum)) return kBadDb;
    uint32_t major = Le32(b + 20);
    minor_ = Le32(b + 24);
    if (major != 1 || minor_ < 2 || minor_ > 6) return kBadDb;
    if (Le32(b + 28) != 0 || Le32(b + 32) != 1) return kBadDb;  // a primary file, direct memory load
    uint32_t dataBytes = Le32(b + 40);
    if (dataBytes == 0 || dataBytes % kPage != 0 || dataBytes > kMaxHiveData || dataBytes > fileBytes - kBaseBytes)
        return kBadDb;
    root_ = Le32(b + 36);
    wasDirty_ = Le32(b + 4) != Le32(b + 8);

    data_.resize(dataBytes);
    if (Result r = file_->ReadAt(kBaseBytes, data_.data(), dataBytes); r != kOk) return r == vhd::kHandleEof ? kBadDb : r;
    dirtyPages_.assign(dataBytes / kPage, 0);
    std::vector<uint8_t> claimed;
    if (Result r = ValidateBins(&claimed); r != kOk) return r;
    if (Result r = ValidateTree(&claimed); r != kOk) return r;
    readOnly_ = !options.writable || (wasDirty_ && !options.acceptDirty);
    return kOk;
}

Result Hive::ValidateBins(std::vector<uint8_t>* claimed) {
    const uint32_t size = uint32_t(data_.size());
    claimed->assign(size / 8, 1);
    uint32_t off = 0;
    while (off < size) {
        const uint8_t* h = data_.data() + off;
        uint32_t binBytes = Le32(h + 8);
        if (std::memcmp(h, "hbin", 4) != 0 || Le32(h + 4) != off || binBytes < kPage || binBytes % kPage != 0 ||
            binBytes > size - off)
            return kBadDb;
        binStarts_.push_back(off);
        uint32_t end = off + binBytes;
        for (uint32_t c = off + kBinHeader; c < end;) {
            int32_t raw = int32_t(Le32(data_.data() + c));
            if (raw == 0 || raw == INT32_MIN) return kBadDb;
            uint32_t cellBytes = raw < 0 ? uint32_t(-raw) : uint32_t(raw);
            if (cellBytes % 8 != 0 || cellBytes > end - c) return kBadDb;
            if (raw > 0)
                AddFree(c, cellBytes);
            else
                (*claimed)[c / 8] = 0;
            c += cellBytes;
        }
        off = end;
    }
    return kOk;
}

Result Hive::ValidateTree(std::vector<uint8_t>* claimedCells) {
    std::vector<uint8_t>& claimed = *claimedCells;
    std::vector<std::pair<uint32_t, uint32_t>> stack{{root_, 0}};
    std::vector<uint32_t> children;
    while (!stack.empty()) {
        auto [nk, depth] = stack.back();
        stack.pop_back();
        if (depth > kMaxDepth || !IsKeyCell(nk) || !Claim(claimed, nk)) return kBadDb;
        children.clear();
        if (Result r = ValidateKey(nk, &children, &claimed); r != kOk) return r;
        for (uint32_t child : children) stack.emplace_back(child, depth + 1);
    }
    return kOk;
}

Result Hive::ValidateKey(uint32_t nk, std::vector<uint32_t>* children, std::vector<uint8_t>* claimed) {
    auto claim = [claimed](uint32_t off) { return Claim(*claimed, off); };
    uint32_t bytes = 0;
    const uint8_t* p = Payload(nk, &bytes);
    if (Le16(p + kNkNameLen) > bytes - kNkName) return kBadDb;

    // Security cells are shared by many keys: each must be a whole cell of
    // its own (marked 2), never one that another structure owns.
    auto securityCell = [claimed](uint32_t off) {
        uint8_t& c = (*claimed)[off / 8];
        if (c == 1) return false;
        c = 2;
        return true;
    };
    uint32_t skBytes = 0;
    uint32_t sk = Le32(p + kNkSecurity);
    const uint8_t* s = Payload(sk, &skBytes);
    if (!s || skBytes < kSkHeader || !Sig(s, "sk") || !securityCell(sk)) return kBadDb;
    for (uint32_t link : {Le32(s + kSkNext), Le32(s + kSkPrev)}) {
        uint32_t lb = 0;
        const uint8_t* l = Payload(link, &lb);
        if (!l || lb < kSkHeader || !Sig(l, "sk") || !securityCell(link)) return kBadDb;
    }

    if (uint16_t classLen = Le16(p + kNkClassLen); classLen > 0 && Le32(p + kNkClass) != kNone) {
        uint32_t cb = 0;
        uint32_t cls = Le32(p + kNkClass);
        if (!Payload(cls, &cb) || cb < classLen || !claim(cls)) return kBadDb;
    }

    if (uint32_t count = Le32(p + kNkValues); count > 0) {
        uint32_t list = Le32(p + kNkValueList), lb = 0;
        const uint8_t* l = Payload(list, &lb);
        if (!l || count > lb / 4 || !claim(list)) return kBadDb;
        for (uint32_t i = 0; i < count; ++i)
            if (Result r = ValidateValue(Le32(l + 4 * i), claimed); r != kOk) return r;
    }

    if (uint32_t count = Le32(p + kNkSubkeys); count > 0) {
        uint32_t list = Le32(p + kNkSubkeyList), lb = 0;
        const uint8_t* l = Payload(list, &lb);
        if (!l || lb < 4 || !claim(list)) return kBadDb;
        auto leaf = [&](const uint8_t* q, uint32_t qb) {
            ListKind k = KindOf(q);
            if (k == ListKind::kNone || k == ListKind::kRi) return false;
            uint32_t n = Le16(q + 2), esz = EntryBytes(k);
            if (uint64_t(n) * esz > qb - 4) return false;
            for (uint32_t i = 0; i < n; ++i) children->push_back(Le32(q + 4 + i * esz));
            return true;
        };
        if (KindOf(l) == ListKind::kRi) {
            uint32_t n = Le16(l + 2);
            if (uint64_t(n) * 4 > lb - 4) return kBadDb;
            for (uint32_t i = 0; i < n; ++i) {
                uint32_t sub = Le32(l + 4 + 4 * i), sb = 0;
                const uint8_t* q = Payload(sub, &sb);
                if (!q || sb < 4 || !claim(sub) || !leaf(q, sb)) return kBadDb;
            }
        } else if (!leaf(l, lb)) {
            return kBadDb;
        }
        if (children->size() != count) return kBadDb;
    }
    return kOk;
}

Result Hive::ValidateValue(uint32_t vk, std::vector<uint8_t>* claimed) {
    auto claim = [claimed](uint32_t off) { return Claim(*claimed, off); };
    uint32_t bytes = 0;
    const uint8_t* p = Payload(vk, &bytes);
    if (!p || bytes < kVkName || !Sig(p, "vk") || Le16(p + kVkNameLen) > bytes - kVkName || !claim(vk)) return kBadDb;
    uint32_t raw = Le32(p + kVkDataLen), length = raw & ~kResident;
    if (raw & kResident) return length <= 4 ? kOk : kBadDb;
    if (length == 0) return kOk;
    if (length > kMaxValueBytes) return kBadDb;
    uint32_t cell = Le32(p + kVkData), cb = 0;
    const uint8_t* d = Payload(cell, &cb);
    if (!d || !claim(cell)) return kBadDb;
    if (!IsBigData(d, cb, minor_, length)) return cb >= length ? kOk : kBadDb;
    uint32_t segments = Le16(d + 2), list = Le32(d + 4), lb = 0;
    const uint8_t* l = Payload(list, &lb);
    if (!l || lb / 4 < segments || !claim(list)) return kBadDb;
    uint32_t left = length;
    for (uint32_t i = 0; i < segments; ++i) {
        uint32_t seg = Le32(l + 4 * i), sb = 0;
        if (!Payload(seg, &sb) || sb < std::min(left, kSegment) || !claim(seg)) return kBadDb;
        left -= std::min(left, kSegment);
    }
    return kOk;
}

// ---- cells --------------------------------------------------------------

const uint8_t* Hive::Payload(uint32_t off, uint32_t* bytes) const {
    if (off % 8 != 0 || off >= data_.size() || data_.size() - off < 8) return nullptr;
    int32_t raw = int32_t(Le32(data_.data() + off));
    if (raw >= 0 || raw == INT32_MIN) return nullptr;
    uint32_t size = uint32_t(-raw);
    if (size < 8 || size > BinEnd(off) - off) return nullptr;
    *bytes = size - 4;
    return data_.data() + off + 4;
}

uint8_t* Hive::Payload(uint32_t off, uint32_t* bytes) {
    return const_cast<uint8_t*>(static_cast<const Hive*>(this)->Payload(off, bytes));
}

uint32_t Hive::BinEnd(uint32_t off) const {
    auto it = std::upper_bound(binStarts_.begin(), binStarts_.end(), off);
    if (it == binStarts_.begin()) return 0;
    uint32_t start = *--it;
    return start + Le32(data_.data() + start + 8);
}

bool Hive::IsKeyCell(uint32_t off) const {
    uint32_t bytes = 0;
    const uint8_t* p = Payload(off, &bytes);
    return p && bytes >= kNkName && Sig(p, "nk");
}

Result Hive::CheckKey(Key key) const {
    if (!key.Valid()) return kInvalidParameter;
    return IsKeyCell(key.cell) ? kOk : kKeyDeleted;
}

uint32_t Hive::R32(uint32_t off) const { return off <= data_.size() - 4 ? Le32(data_.data() + off) : 0; }
uint16_t Hive::R16(uint32_t off) const { return off <= data_.size() - 2 ? Le16(data_.data() + off) : 0; }
void Hive::W32(uint32_t off, uint32_t v) { WriteBytes(off, &v, 4); }  // little-endian hosts only
void Hive::W16(uint32_t off, uint16_t v) { WriteBytes(off, &v, 2); }
void Hive::WriteBytes(uint32_t off, const void* data, size_t bytes) {
    if (bytes == 0) return;
    std::memcpy(data_.data() + off, data, bytes);
    Touch(off, uint32_t(bytes));
}

void Hive::Touch(uint32_t off, uint32_t bytes) {
    if (bytes == 0) return;
    for (uint32_t p = off / kPage; p <= (off + bytes - 1) / kPage; ++p) dirtyPages_[p] = 1;
    changed_ = true;
}

void Hive::AddFree(uint32_t off, uint32_t size) {
    freeByOffset_[off] = size;
    freeBySize_.emplace(size, off);
}

void Hive::RemoveFree(uint32_t off, uint32_t size) {
    freeByOffset_.erase(off);
    freeBySize_.erase({size, off});
}

// Best fit among the free cells, split when the rest can stand as a cell;
// otherwise a new bin at the end of the hive.
uint32_t Hive::Alloc(uint32_t payloadBytes) {
    uint64_t need64 = Align8(uint64_t(payloadBytes) + 4);
    if (need64 > kMaxHiveData) return kNone;
    uint32_t need = uint32_t(need64);
    uint32_t off;
    auto it = freeBySize_.lower_bound({need, 0});
    if (it != freeBySize_.end()) {
        auto [size, at] = *it;
        off = at;
        RemoveFree(at, size);
        if (size - need >= 8) {
            W32(off + need, size - need);
            AddFree(off + need, size - need);
        } else {
            need = size;
        }
    } else {
        uint64_t binBytes = (uint64_t(need) + kBinHeader + kPage - 1) / kPage * kPage;
        if (data_.size() + binBytes > kMaxHiveData) return kNone;
        uint32_t bin = uint32_t(data_.size());
        data_.resize(data_.size() + binBytes, 0);
        dirtyPages_.resize(data_.size() / kPage, 0);
        uint8_t header[kBinHeader] = {'h', 'b', 'i', 'n'};
        Put32(header + 4, bin);
        Put32(header + 8, uint32_t(binBytes));
        uint64_t now = NowFiletime();
        std::memcpy(header + 20, &now, 8);
        WriteBytes(bin, header, kBinHeader);
        binStarts_.push_back(bin);
        off = bin + kBinHeader;
        uint32_t rest = uint32_t(binBytes) - kBinHeader - need;
        if (rest >= 8) {
            W32(off + need, rest);
            AddFree(off + need, rest);
        } else {
            need += rest;
        }
    }
    W32(off, uint32_t(-int32_t(need)));
    std::memset(data_.data() + off + 4, 0, need - 4);
    Touch(off, need);
    return off;
}

// Marks a cell free and joins it with free neighbours in the same bin.
void Hive::Free(uint32_t off) {
    uint32_t size = uint32_t(-int32_t(R32(off)));
    uint32_t end = BinEnd(off);
    uint32_t next = off + size;
    if (next < end && int32_t(R32(next)) > 0) {
        uint32_t nextSize = R32(next);
        RemoveFree(next, nextSize);
        size += nextSize;
    }
    auto it = freeByOffset_.lower_bound(off);
    if (it != freeByOffset_.begin()) {
        --it;
        if (it->first + it->second == off && BinEnd(it->first) == end) {
            uint32_t prev = it->first, prevSize = it->second;
            RemoveFree(prev, prevSize);
            off = prev;
            size += prevSize;
        }
    }
    W32(off, size);
    AddFree(off, size);
}

// ---- keys ---------------------------------------------------------------

std::u16string Hive::KeyName(uint32_t nk) const {
    const uint8_t* p = data_.data() + nk + 4;
    return DecodeName(p + kNkName, Le16(p + kNkNameLen), Le16(p + kNkFlags) & kKeyCompressedName);
}

std::u16string Hive::ValueName(uint32_t vk) const {
    const uint8_t* p = data_.data() + vk + 4;
    return DecodeName(p + kVkName, Le16(p + kVkNameLen), Le16(p + kVkFlags) & kValueCompressedName);
}

// Calls fn(child, lhHash or 0 with hasHash) for every subkey until it returns false.
void Hive::ForEachSubkey(uint32_t nk, const auto& fn) const {
    if (R32(nk + 4 + kNkSubkeys) == 0) return;
    uint32_t list = R32(nk + 4 + kNkSubkeyList);
    auto leaf = [&](uint32_t cell) {
        const uint8_t* q = data_.data() + cell + 4;
        ListKind k = KindOf(q);
        uint32_t n = Le16(q + 2), esz = EntryBytes(k);
        for (uint32_t i = 0; i < n; ++i) {
            const uint8_t* e = q + 4 + i * esz;
            if (!fn(Le32(e), k == ListKind::kLh, k == ListKind::kLh ? Le32(e + 4) : 0)) return false;
        }
        return true;
    };
    const uint8_t* l = data_.data() + list + 4;
    if (KindOf(l) == ListKind::kRi) {
        uint32_t n = Le16(l + 2);
        for (uint32_t i = 0; i < n; ++i)
            if (!leaf(Le32(l + 4 + 4 * i))) return;
    } else {
        leaf(list);
    }
}

Result Hive::FindChild(uint32_t nk, std::u16string_view name, uint32_t* child) const {
    uint32_t hash = NameHash(name);
    // Hashes written by other tools may fold non-ASCII letters differently,
    // and a damaged hash must not hide a key: a miss among the matching
    // hashes is followed by a pass over every name.
    bool useHash = StoreCompressed(name);
    uint32_t found = kNone;
    for (int pass = 0; pass < 2 && found == kNone; ++pass, useHash = false) {
        ForEachSubkey(nk, [&](uint32_t c, bool hasHash, uint32_t h) {
            if (hasHash && useHash && h != hash) return true;
            if (!NamesEqual(KeyName(c), name)) return true;
            found = c;
            return false;
        });
        if (!useHash) break;
    }
    if (found == kNone) return kNotFound;
    *child = found;
    return kOk;
}

Result Hive::OpenKey(Key base, std::u16string_view path, Key* key) const {
    if (!key) return kInvalidParameter;
    if (Result r = CheckKey(base); r != kOk) return r;
    uint32_t at = base.cell;
    for (auto part : SplitPath(path))
        if (Result r = FindChild(at, part, &at); r != kOk) return r;
    *key = Key{at};
    return kOk;
}

Result Hive::CreateKey(Key base, std::u16string_view path, Key* key, bool* created) {
    if (Result r = CheckKey(base); r != kOk) return r;
    uint32_t at = base.cell;
    bool made = false;
    for (auto part : SplitPath(path)) {
        made = false;
        uint32_t next;
        if (FindChild(at, part, &next) != kOk) {
            if (readOnly_) return kAccessDenied;
            if (part.size() > kMaxKeyNameChars) return kInvalidData;
            if (Result r = NewKey(at, part, &next); r != kOk) return r;
            made = true;
        }
        at = next;
    }
    if (key) *key = Key{at};
    if (created) *created = made;
    return kOk;
}

void Hive::StampKey(uint32_t nk) {
    uint64_t now = NowFiletime();
    WriteBytes(nk + 4 + kNkTime, &now, 8);
}

Result Hive::NewKey(uint32_t parent, std::u16string_view name, uint32_t* out) {
    bool compressed = StoreCompressed(name);
    std::vector<uint8_t> stored = EncodeName(name, compressed);
    uint32_t nk = Alloc(kNkName + uint32_t(stored.size()));
    if (nk == kNone) return kOutOfMemory;
    uint32_t p = nk + 4;
    uint32_t sk = R32(parent + 4 + kNkSecurity);
    W16(p, uint16_t('n' | 'k' << 8));
    W16(p + kNkFlags, compressed ? kKeyCompressedName : 0);
    StampKey(nk);
    W32(p + kNkParent, parent);
    for (uint32_t f : {uint32_t(kNkSubkeyList), uint32_t(kNkSubkeyList + 4), uint32_t(kNkValueList), uint32_t(kNkClass)}) W32(p + f, kNone);
    W32(p + kNkSecurity, sk);
    W16(p + kNkNameLen, uint16_t(stored.size()));
    WriteBytes(p + kNkName, stored.data(), stored.size());
    if (Result r = InsertChild(parent, nk, name); r != kOk) {
        Free(nk);
        return r;
    }
    W32(sk + 4 + kSkRefs, R32(sk + 4 + kSkRefs) + 1);
    *out = nk;
    return kOk;
}

Result Hive::InsertIntoLeaf(uint32_t leaf, uint32_t child, std::u16string_view name, uint32_t* newLeaf) {
    uint32_t bytes = 0;
    Payload(leaf, &bytes);
    uint32_t p = leaf + 4;
    ListKind kind = KindOf(data_.data() + p);
    uint32_t n = R16(p + 2), esz = EntryBytes(kind);
    if (n >= 0xFFFF) return kOutOfMemory;
    uint32_t lo = 0, hi = n;
    while (lo < hi) {
        uint32_t mid = (lo + hi) / 2;
        if (CompareNames(KeyName(R32(p + 4 + mid * esz)), name) < 0) lo = mid + 1;
        else hi = mid;
    }
    uint8_t entry[8] = {};
    Put32(entry, child);
    if (kind == ListKind::kLh) Put32(entry + 4, NameHash(name));
    if (kind == ListKind::kLf)
        for (size_t i = 0; i < 4 && i < name.size(); ++i) entry[4 + i] = uint8_t(name[i]);
    if (4 + uint64_t(n + 1) * esz <= bytes) {
        uint32_t at = p + 4 + lo * esz;
        std::memmove(data_.data() + at + esz, data_.data() + at, (n - lo) * esz);
        WriteBytes(at, entry, esz);
        Touch(at, (n - lo + 1) * esz);
        W16(p + 2, uint16_t(n + 1));
        *newLeaf = leaf;
        return kOk;
    }
    std::vector<uint8_t> entries(data_.data() + p + 4, data_.data() + p + 4 + n * esz);
    entries.insert(entries.begin() + lo * esz, entry, entry + esz);
    uint32_t capacity = std::min<uint32_t>(0xFFFF, n + 1 + (n + 1) / 4);
    uint32_t fresh = Alloc(4 + capacity * esz);
    if (fresh == kNone) return kOutOfMemory;
    uint8_t header[4] = {data_[p], data_[p + 1], uint8_t(n + 1), uint8_t((n + 1) >> 8)};
    WriteBytes(fresh + 4, header, 4);
    WriteBytes(fresh + 8, entries.data(), entries.size());
    Free(leaf);
    *newLeaf = fresh;
    return kOk;
}

Result Hive::InsertChild(uint32_t parent, uint32_t child, std::u16string_view name) {
    uint32_t p = parent + 4;
    uint32_t n = R32(p + kNkSubkeys);
    if (n == 0) {
        uint32_t list = Alloc(4 + 4 * 8);
        if (list == kNone) return kOutOfMemory;
        uint8_t head[12] = {'l', 'h', 1, 0};
        Put32(head + 4, child);
        Put32(head + 8, NameHash(name));
        WriteBytes(list + 4, head, sizeof head);
        W32(p + kNkSubkeyList, list);
    } else {
        uint32_t list = R32(p + kNkSubkeyList);
        uint32_t l = list + 4;
        if (KindOf(data_.data() + l) == ListKind::kRi) {
            uint32_t count = R16(l + 2), pick = count - 1;
            for (uint32_t i = 0; i + 1 < count; ++i) {
                uint32_t sub = R32(l + 4 + 4 * i) + 4;
                ListKind k = KindOf(data_.data() + sub);
                uint32_t m = R16(sub + 2);
                if (m > 0 && CompareNames(name, KeyName(R32(sub + 4 + (m - 1) * EntryBytes(k)))) <= 0) {
                    pick = i;
                    break;
                }
            }
            uint32_t sub = R32(l + 4 + 4 * pick), moved;
            if (Result r = InsertIntoLeaf(sub, child, name, &moved); r != kOk) return r;
            if (moved != sub) W32(list + 4 + 4 + 4 * pick, moved);
        } else {
            uint32_t moved;
            if (Result r = InsertIntoLeaf(list, child, name, &moved); r != kOk) return r;
            if (moved != list) W32(p + kNkSubkeyList, moved);
        }
    }
    W32(p + kNkSubkeys, n + 1);
    uint32_t maxName = R32(p + kNkMaxName);
    if ((maxName & 0xFFFF) < name.size() * 2) W32(p + kNkMaxName, (maxName & 0xFFFF0000u) | uint32_t(name.size() * 2));
    StampKey(parent);
    return kOk;
}

void Hive::RemoveChild(uint32_t parent, uint32_t child) {
    uint32_t p = parent + 4;
    uint32_t list = R32(p + kNkSubkeyList);
    // Removes the entry from one leaf; true when found. Frees an emptied leaf.
    auto fromLeaf = [&](uint32_t leaf, bool* emptied) {
        uint32_t q = leaf + 4;
        uint32_t n = R16(q + 2), esz = EntryBytes(KindOf(data_.data() + q));
        for (uint32_t i = 0; i < n; ++i) {
            if (R32(q + 4 + i * esz) != child) continue;
            uint32_t at = q + 4 + i * esz;
            std::memmove(data_.data() + at, data_.data() + at + esz, (n - 1 - i) * esz);
            if (n - 1 > i) Touch(at, (n - 1 - i) * esz);
            W16(q + 2, uint16_t(n - 1));
            *emptied = n == 1;
            if (*emptied) Free(leaf);
            return true;
        }
        return false;
    };
    bool emptied = false;
    uint32_t l = list + 4;
    if (KindOf(data_.data() + l) == ListKind::kRi) {
        uint32_t count = R16(l + 2);
        for (uint32_t i = 0; i < count; ++i) {
            if (!fromLeaf(R32(l + 4 + 4 * i), &emptied)) continue;
            if (emptied) {
                std::memmove(data_.data() + l + 4 + 4 * i, data_.data() + l + 8 + 4 * i, (count - 1 - i) * 4);
                Touch(l, 4 + count * 4);
                W16(l + 2, uint16_t(count - 1));
                if (count == 1) Free(list);
                emptied = count == 1;
            }
            break;
        }
    } else {
        fromLeaf(list, &emptied);
    }
    if (emptied) W32(p + kNkSubkeyList, kNone);
    W32(p + kNkSubkeys, R32(p + kNkSubkeys) - 1);
    StampKey(parent);
}

void Hive::ReleaseSecurity(uint32_t sk) {
    uint32_t p = sk + 4;
    uint32_t refs = R32(p + kSkRefs);
    if (refs > 1) {
        W32(p + kSkRefs, refs - 1);
        return;
    }
    uint32_t next = R32(p + kSkNext), prev = R32(p + kSkPrev);
    if (next == sk) return;  // the last descriptor of the hive stays
    W32(prev + 4 + kSkNext, next);
    W32(next + 4 + kSkPrev, prev);
    Free(sk);
}

void Hive::FreeKeyCells(uint32_t nk) {
    uint32_t p = nk + 4;
    if (uint32_t n = R32(p + kNkValues); n > 0) {
        uint32_t list = R32(p + kNkValueList);
        for (uint32_t i = 0; i < n; ++i) {
            uint32_t vk = R32(list + 4 + 4 * i);
            FreeData(vk);
            Free(vk);
        }
        Free(list);
    }
    if (R32(p + kNkSubkeys) > 0) {
        uint32_t list = R32(p + kNkSubkeyList);
        if (KindOf(data_.data() + list + 4) == ListKind::kRi) {
            uint32_t count = R16(list + 4 + 2);
            for (uint32_t i = 0; i < count; ++i) Free(R32(list + 8 + 4 * i));
        }
        Free(list);
    }
    if (R16(p + kNkClassLen) > 0 && R32(p + kNkClass) != kNone) Free(R32(p + kNkClass));
    ReleaseSecurity(R32(p + kNkSecurity));
    Free(nk);
}

Result Hive::DeleteKeyTree(Key base, std::u16string_view path) {
    if (Result r = CheckKey(base); r != kOk) return r;
    auto parts = SplitPath(path);
    if (parts.empty()) return kInvalidParameter;
    Key target;
    if (Result r = OpenKey(base, path, &target); r != kOk) return r;
    if (readOnly_ || target.cell == root_) return kAccessDenied;
    uint32_t parent = base.cell;
    parts.pop_back();
    for (auto part : parts) FindChild(parent, part, &parent);
    RemoveChild(parent, target.cell);
    // Every key of the tree is listed before any cell is freed.
    std::vector<uint32_t> keys{target.cell};
    for (size_t i = 0; i < keys.size(); ++i)
        ForEachSubkey(keys[i], [&](uint32_t c, bool, uint32_t) {
            keys.push_back(c);
            return true;
        });
    for (auto it = keys.rbegin(); it != keys.rend(); ++it) FreeKeyCells(*it);
    return kOk;
}

Result Hive::GetKeyInfo(Key key, KeyInfo* info) const {
    if (!info) return kInvalidParameter;
    if (Result r = CheckKey(key); r != kOk) return r;
    uint32_t p = key.cell + 4;
    info->name = KeyName(key.cell);
    info->subkeys = R32(p + kNkSubkeys);
    info->values = R32(p + kNkValues);
    std::memcpy(&info->lastWrite, data_.data() + p + kNkTime, 8);
    return kOk;
}

Result Hive::EnumSubkey(Key key, uint32_t index, std::u16string* name, Key* child) const {
    if (!name) return kInvalidParameter;
    if (Result r = CheckKey(key); r != kOk) return r;
    if (index >= R32(key.cell + 4 + kNkSubkeys)) return kNoMoreItems;
    uint32_t list = R32(key.cell + 4 + kNkSubkeyList) + 4;
    uint32_t leaf = list;
    if (KindOf(data_.data() + list) == ListKind::kRi) {
        uint32_t count = R16(list + 2);
        for (uint32_t i = 0; i < count; ++i) {
            leaf = R32(list + 4 + 4 * i) + 4;
            uint32_t n = R16(leaf + 2);
            if (index < n) break;
            index -= n;
        }
    }
    uint32_t found = R32(leaf + 4 + index * EntryBytes(KindOf(data_.data() + leaf)));
    *name = KeyName(found);
    if (child) *child = Key{found};
    return kOk;
}

// ---- values -------------------------------------------------------------

Result Hive::FindValue(uint32_t nk, std::u16string_view name, uint32_t* index, uint32_t* vk) const {
    uint32_t n = R32(nk + 4 + kNkValues);
    if (n == 0) return kNotFound;
    uint32_t list = R32(nk + 4 + kNkValueList);
    for (uint32_t i = 0; i < n; ++i) {
        uint32_t v = R32(list + 4 + 4 * i);
        if (NamesEqual(ValueName(v), name)) {
            *index = i;
            *vk = v;
            return kOk;
        }
    }
    return kNotFound;
}

Result Hive::ReadData(uint32_t vk, Value* value) const {
    uint32_t p = vk + 4;
    value->type = R32(p + kVkType);
    uint32_t raw = R32(p + kVkDataLen), length = raw & ~kResident;
    const uint8_t* field = data_.data() + p + kVkData;
    if (raw & kResident) {
        value->data.assign(field, field + std::min<uint32_t>(length, 4));
        return kOk;
    }
    value->data.clear();
    if (length == 0) return kOk;
    uint32_t bytes = 0;
    const uint8_t* d = Payload(R32(p + kVkData), &bytes);
    if (!d) return kBadDb;
    if (!IsBigData(d, bytes, minor_, length)) {
        if (bytes < length) return kBadDb;
        value->data.assign(d, d + length);
        return kOk;
    }
    uint32_t segments = Le16(d + 2), list = Le32(d + 4);
    value->data.reserve(length);
    for (uint32_t i = 0; i < segments; ++i) {
        uint32_t sb = 0;
        const uint8_t* s = Payload(R32(list + 4 + 4 * i), &sb);
        uint32_t take = std::min<uint32_t>(length - uint32_t(value->data.size()), kSegment);
        if (!s || sb < take) return kBadDb;
        value->data.insert(value->data.end(), s, s + take);
    }
    return kOk;
}

void Hive::FreeData(uint32_t vk) {
    uint32_t p = vk + 4;
    uint32_t raw = R32(p + kVkDataLen), length = raw & ~kResident;
    if ((raw & kResident) || length == 0) return;
    uint32_t cell = R32(p + kVkData), bytes = 0;
    const uint8_t* d = Payload(cell, &bytes);
    if (IsBigData(d, bytes, minor_, length)) {
        uint32_t segments = Le16(d + 2), list = Le32(d + 4);
        for (uint32_t i = 0; i < segments; ++i) Free(R32(list + 4 + 4 * i));
        Free(list);
    }
    Free(cell);
}

Result Hive::WriteData(uint32_t vk, const void* data, size_t bytes) {
    uint32_t p = vk + 4;
    const uint8_t* src = static_cast<const uint8_t*>(data);
    uint32_t length = uint32_t(bytes);
    // Exactly four bytes are kept in the value key itself; fewer go to a
    // cell as well, the form every reader agrees on (some misplace resident
    // data shorter than four bytes). No data: resident and empty.
    if (length == 4 || length == 0) {
        uint8_t field[4] = {};
        if (length) std::memcpy(field, src, length);
        W32(p + kVkDataLen, kResident | length);
        WriteBytes(p + kVkData, field, 4);
        return kOk;
    }
    uint32_t cell;
    if (minor_ >= 4 && length > kSegment) {
        uint32_t segments = (length + kSegment - 1) / kSegment;
        uint32_t list = Alloc(4 * segments);
        cell = list == kNone ? kNone : Alloc(8);
        if (cell == kNone) return kOutOfMemory;
        uint8_t head[8] = {'d', 'b', uint8_t(segments), uint8_t(segments >> 8)};
        Put32(head + 4, list);
        WriteBytes(cell + 4, head, 8);
        for (uint32_t i = 0; i < segments; ++i) {
            // Every segment cell is a full one, the last one too: readers
            // size the last piece from its cell.
            uint32_t take = std::min(kSegment, length - i * kSegment);
            uint32_t seg = Alloc(kSegment);
            if (seg == kNone) return kOutOfMemory;
            WriteBytes(seg + 4, src + size_t(i) * kSegment, take);
            W32(list + 4 + 4 * i, seg);
        }
    } else {
        cell = Alloc(length);
        if (cell == kNone) return kOutOfMemory;
        WriteBytes(cell + 4, src, length);
    }
    W32(p + kVkDataLen, length);
    W32(p + kVkData, cell);
    return kOk;
}

Result Hive::GetValue(Key key, std::u16string_view name, Value* value) const {
    if (!value) return kInvalidParameter;
    if (Result r = CheckKey(key); r != kOk) return r;
    uint32_t index, vk;
    if (Result r = FindValue(key.cell, name, &index, &vk); r != kOk) return r;
    return ReadData(vk, value);
}

Result Hive::EnumValue(Key key, uint32_t index, std::u16string* name, Value* value) const {
    if (!name || !value) return kInvalidParameter;
    if (Result r = CheckKey(key); r != kOk) return r;
    if (index >= R32(key.cell + 4 + kNkValues)) return kNoMoreItems;
    uint32_t vk = R32(R32(key.cell + 4 + kNkValueList) + 4 + 4 * index);
    *name = ValueName(vk);
    return ReadData(vk, value);
}

Result Hive::SetValue(Key key, std::u16string_view name, uint32_t type, const void* data, size_t bytes) {
    if (Result r = CheckKey(key); r != kOk) return r;
    if (bytes > 0 && !data) return kInvalidParameter;
    if (readOnly_) return kAccessDenied;
    if (bytes > kMaxValueBytes || name.size() > kMaxValueNameChars) return kInvalidData;
    uint32_t p = key.cell + 4;
    uint32_t index, vk;
    if (FindValue(key.cell, name, &index, &vk) == kOk) {
        FreeData(vk);
    } else {
        bool compressed = StoreCompressed(name);
        std::vector<uint8_t> stored = EncodeName(name, compressed);
        vk = Alloc(kVkName + uint32_t(stored.size()));
        if (vk == kNone) return kOutOfMemory;
        W16(vk + 4, uint16_t('v' | 'k' << 8));
        W16(vk + 4 + kVkNameLen, uint16_t(stored.size()));
        W16(vk + 4 + kVkFlags, compressed ? kValueCompressedName : 0);
        WriteBytes(vk + 4 + kVkName, stored.data(), stored.size());
        uint32_t n = R32(p + kNkValues), list = R32(p + kNkValueList), listBytes = 0;
        if (n > 0 && Payload(list, &listBytes) && listBytes >= 4 * (n + 1)) {
            W32(list + 4 + 4 * n, vk);
        } else {
            std::vector<uint8_t> entries(4 * (n + 1));
            if (n > 0) std::memcpy(entries.data(), data_.data() + list + 4, 4 * n);
            Put32(entries.data() + 4 * n, vk);
            uint32_t fresh = Alloc(4 * (n + 1 + (n + 1) / 4 + 1));
            if (fresh == kNone) {
                Free(vk);
                return kOutOfMemory;
            }
            WriteBytes(fresh + 4, entries.data(), entries.size());
            if (n > 0) Free(list);
            W32(p + kNkValueList, fresh);
        }
        W32(p + kNkValues, n + 1);
        if (R32(p + kNkMaxValueName) < name.size() * 2) W32(p + kNkMaxValueName, uint32_t(name.size() * 2));
    }
    W32(vk + 4 + kVkType, type);
    if (Result r = WriteData(vk, data, bytes); r != kOk) {
        W32(vk + 4 + kVkDataLen, kResident);
        return r;
    }
    if (R32(p + kNkMaxValueData) < bytes) W32(p + kNkMaxValueData, uint32_t(bytes));
    StampKey(key.cell);
    return kOk;
}

Result Hive::DeleteValue(Key key, std::u16string_view name) {
    if (Result r = CheckKey(key); r != kOk) return r;
    uint32_t index, vk;
    if (Result r = FindValue(key.cell, name, &index, &vk); r != kOk) return r;
    if (readOnly_) return kAccessDenied;
    uint32_t p = key.cell + 4;
    uint32_t n = R32(p + kNkValues), list = R32(p + kNkValueList);
    FreeData(vk);
    Free(vk);
    if (n == 1) {
        Free(list);
        W32(p + kNkValueList, kNone);
    } else {
        uint32_t at = list + 4 + 4 * index;
        std::memmove(data_.data() + at, data_.data() + at + 4, 4 * (n - 1 - index));
        Touch(list, 4 + 4 * n);
    }
    W32(p + kNkValues, n - 1);
    StampKey(key.cell);
    return kOk;
}

// ---- commit -------------------------------------------------------------

Result Hive::Commit() {
    if (!changed_) return kOk;
    if (readOnly_) return kAccessDenied;
    uint8_t* b = base_.data();
    auto writeBase = [&]() -> Result {
        Put32(b + 508, StoredChecksum(BaseChecksum(b)));
        if (Result r = file_->WriteAt(0, b, 512); r != kOk) return r;
        stats_.bytesWritten += 512;
        return file_->Flush();
    };
    Put32(b + 4, Le32(b + 8) + 1);
    uint64_t now = NowFiletime();
    std::memcpy(b + 12, &now, 8);
    if (Result r = writeBase(); r != kOk) return r;
    // Bins appended since the last commit lie past what the old structure
    // refers to; they go first.
    size_t onDisk = Le32(b + 40) / kPage;
    auto writeRuns = [&](size_t from, size_t to) -> Result {
        for (size_t page = from; page < to;) {
            if (!dirtyPages_[page]) {
                ++page;
                continue;
            }
            size_t end = page;
            while (end < to && dirtyPages_[end]) ++end;
            size_t bytes = (end - page) * kPage;
            if (Result r = file_->WriteAt(kBaseBytes + page * kPage, data_.data() + page * kPage, bytes); r != kOk)
                return r;
            stats_.bytesWritten += bytes;
            stats_.pagesWritten += uint32_t(end - page);
            page = end;
        }
        return kOk;
    };
    if (Result r = writeRuns(std::min(onDisk, dirtyPages_.size()), dirtyPages_.size()); r != kOk) return r;
    if (Result r = writeRuns(0, std::min(onDisk, dirtyPages_.size())); r != kOk) return r;
    if (Result r = file_->Flush(); r != kOk) return r;
    std::fill(dirtyPages_.begin(), dirtyPages_.end(), 0);
    Put32(b + 8, Le32(b + 4));
    Put32(b + 40, uint32_t(data_.size()));
    if (Result r = writeBase(); r != kOk) return r;
    changed_ = false;
    ++stats_.commits;
    return kOk;
}

}  // namespace kx::regf
