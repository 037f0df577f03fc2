#include "hive_diff.h"

#include <windows.h>

#include <algorithm>
#include <map>

#include "commands.h"
#include "output.h"

namespace kxha {

namespace regf = kx::regf;

namespace {

// Names compare without regard to case; the text shown keeps the case found.
std::wstring Folded(std::wstring s) {
    if (!s.empty()) ::CharUpperBuffW(s.data(), static_cast<DWORD>(s.size()));
    return s;
}

struct KeySnap {
    std::wstring path;
    std::map<std::wstring, std::pair<std::wstring, regf::Value>> values;  // folded name -> (name, value)
};
// Keyed by the folded parts joined with \1, so that a key's sub-keys follow
// it directly whatever characters the names hold.
using HiveSnap = std::map<std::wstring, KeySnap>;

regf::Result Take(const regf::Hive& hive, regf::Key key, const std::wstring& path, const std::wstring& order,
                  HiveSnap* out) {
    KeySnap& snap = (*out)[order];
    snap.path = path;
    std::vector<std::pair<std::wstring, regf::Value>> values;
    regf::Result rc = ReadValues(hive, key, &values);
    if (rc) return rc;
    for (auto& [name, v] : values) snap.values[Folded(name)] = {name, std::move(v)};
    for (uint32_t i = 0;; ++i) {
        std::u16string name;
        regf::Key child;
        if ((rc = hive.EnumSubkey(key, i, &name, &child)) == regf::kNoMoreItems) break;
        if (rc) return rc;
        const std::wstring n = Wide(name);
        if ((rc = Take(hive, child, path.empty() ? n : path + L"\\" + n,
                       order.empty() ? Folded(n) : order + L'\1' + Folded(n), out)))
            return rc;
    }
    return regf::kOk;
}

void WholeKey(const KeySnap& k, HiveChange::Kind kind, std::vector<HiveChange>* out) {
    const bool added = kind == HiveChange::kAdded;
    out->push_back({kind, k.path, std::nullopt, std::nullopt, std::nullopt});
    for (const auto& [folded, nv] : k.values) {
        HiveChange c{kind, k.path, nv.first, std::nullopt, std::nullopt};
        (added ? c.after : c.before) = nv.second;
        out->push_back(std::move(c));
    }
}

void SameKey(const KeySnap& a, const KeySnap& b, std::vector<HiveChange>* out) {
    auto ia = a.values.begin(), ib = b.values.begin();
    while (ia != a.values.end() || ib != b.values.end()) {
        if (ib == b.values.end() || (ia != a.values.end() && ia->first < ib->first)) {
            out->push_back({HiveChange::kRemoved, b.path, ia->second.first, ia->second.second, std::nullopt});
            ++ia;
        } else if (ia == a.values.end() || ib->first < ia->first) {
            out->push_back({HiveChange::kAdded, b.path, ib->second.first, std::nullopt, ib->second.second});
            ++ib;
        } else {
            const regf::Value &va = ia->second.second, &vb = ib->second.second;
            if (va.type != vb.type || va.data != vb.data)
                out->push_back({HiveChange::kChanged, b.path, ib->second.first, va, vb});
            ++ia, ++ib;
        }
    }
}

std::wstring Padded(const std::wstring& s, size_t width) {
    return s.size() >= width ? s : s + std::wstring(width - s.size(), L' ');
}

std::wstring ValueName(const HiveChange& c) { return !c.name ? L"(key)" : c.name->empty() ? L"(Default)" : *c.name; }

}  // namespace

regf::Result DiffHives(const regf::Hive& a, const regf::Hive& b, std::vector<HiveChange>* out) {
    HiveSnap sa, sb;
    regf::Result rc;
    if ((rc = Take(a, a.Root(), L"", L"", &sa)) || (rc = Take(b, b.Root(), L"", L"", &sb))) return rc;
    out->clear();
    auto ia = sa.begin(), ib = sb.begin();
    while (ia != sa.end() || ib != sb.end()) {
        if (ib == sb.end() || (ia != sa.end() && ia->first < ib->first)) {
            WholeKey((ia++)->second, HiveChange::kRemoved, out);
        } else if (ia == sa.end() || ib->first < ia->first) {
            WholeKey((ib++)->second, HiveChange::kAdded, out);
        } else {
            SameKey((ia++)->second, (ib++)->second, out);
        }
    }
    return regf::kOk;
}

DWORD DiffHiveFiles(const std::wstring& a, const std::wstring& b, std::vector<HiveChange>* out, std::wstring* what) {
    GuestHive ha = OpenGuestHive(a), hb = OpenGuestHive(b);
    for (const GuestHive* h : {&ha, &hb}) {
        *what = (h->fileError ? L"opening " : L"reading the hive ") + h->path;
        if (h->fileError || h->rc) return h->fileError ? h->fileError : h->rc;
    }
    *what = L"reading the hives";
    return DiffHives(*ha.hive, *hb.hive, out);
}

const wchar_t* HiveErrorText(DWORD code) { return code == regf::kBadDb ? L"not a well-formed registry hive" : nullptr; }

std::wstring Cell(const HiveChange& c, bool after) {
    const auto& v = after ? c.after : c.before;
    if (!c.name) return (after ? c.kind == HiveChange::kAdded : c.kind == HiveChange::kRemoved) ? L"(key)" : L"(absent)";
    if (!v) return L"(absent)";
    return TypeName(v->type) + L" " + ShownData(*v, false);
}

std::wstring ChangeTable(const std::vector<HiveChange>& changes, size_t indent, size_t maxCell) {
    const std::wstring lead(indent, L' ');
    const auto cell = [&](const HiveChange& c, bool after) {
        std::wstring s = Cell(c, after);
        return maxCell > 3 && s.size() > maxCell ? s.substr(0, maxCell - 3) + L"..." : s;
    };
    if (changes.empty()) return lead + L"no changes\n";
    size_t wk = 3, wv = 5, wb = 6;  // "key", "value", "before"
    for (const HiveChange& c : changes) {
        wk = std::max(wk, c.key.size());
        wv = std::max(wv, ValueName(c).size());
        wb = std::max(wb, std::min<size_t>(cell(c, false).size(), 40));
    }
    std::wstring o = lead + L"  " + Padded(L"key", wk + 2) + Padded(L"value", wv + 2) + Padded(L"before", wb + 2) + L"after\n";
    for (const HiveChange& c : changes) {
        const wchar_t mark = c.kind == HiveChange::kAdded ? L'+' : c.kind == HiveChange::kRemoved ? L'-' : L'*';
        o += lead + mark + L" " + Padded(c.key.empty() ? L"\\" : c.key, wk) + L"  " + Padded(ValueName(c), wv) + L"  " +
             Padded(cell(c, false), wb) + L"  " + cell(c, true) + L"\n";
    }
    return o;
}

std::wstring ChangesJson(const std::vector<HiveChange>& changes) {
    const auto side = [](const std::optional<regf::Value>& v) {
        return v ? L"{\"type\": " + JsonString(TypeName(v->type)) + L", \"data\": " + ShownData(*v, true) + L"}"
                 : std::wstring(L"null");
    };
    std::wstring o = L"[";
    for (size_t i = 0; i < changes.size(); ++i) {
        const HiveChange& c = changes[i];
        o += (i ? L", " : L"") + std::wstring(L"{\"change\": \"") +
             (c.kind == HiveChange::kAdded ? L"added" : c.kind == HiveChange::kRemoved ? L"removed" : L"changed") +
             L"\", \"key\": " + JsonString(c.key) + L", \"value\": " + (c.name ? JsonString(*c.name) : L"null") +
             L", \"before\": " + side(c.before) + L", \"after\": " + side(c.after) + L"}";
    }
    return o + L"]";
}

}  // namespace kxha
