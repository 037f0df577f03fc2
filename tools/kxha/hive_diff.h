// What differs between two registry hive files, read with the read-only
// engine (guest_hive.h): keys and values added, removed or changed, and the
// table `kxha guest diff`, `kxha guest fixup` and the demo print of it.
#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <vector>

#include "guest_hive.h"

namespace kxha {

struct HiveChange {
    enum Kind { kAdded, kRemoved, kChanged };
    Kind kind = kAdded;
    std::wstring key;                  // below the root, parts joined by '\'
    std::optional<std::wstring> name;  // the value's name; none for a key row
    std::optional<kx::regf::Value> before, after;
};

// The changes from hive `a` to hive `b`, ordered by key (without regard to
// case, as the registry compares names), each key's row before its values.
// A key that only one side has brings its values along as added or removed
// rows. 0, or the engine's code when a hive cannot be walked.
kx::regf::Result DiffHives(const kx::regf::Hive& a, const kx::regf::Hive& b, std::vector<HiveChange>* out);

// Opens both files and diffs them: 0, or the code of the failing file
// (`what` then says which and how: "opening <file>", "reading the hive
// <file>"). HiveErrorText gives the engine's codes a meaning for Fail().
DWORD DiffHiveFiles(const std::wstring& a, const std::wstring& b, std::vector<HiveChange>* out, std::wstring* what);
const wchar_t* HiveErrorText(DWORD code);

// A change's value as shown in a table cell: "(absent)" when missing, the
// key marker for a key row, else the type and the data as `guest reg` shows
// them.
std::wstring Cell(const HiveChange& c, bool after);

// The table of changes: a marker (+ added, - removed, * changed), key,
// value, before, after; "no changes" for none. Every line is indented by
// `indent` blanks; with `maxCell`, longer before and after cells are cut to
// that many characters ending in "...".
std::wstring ChangeTable(const std::vector<HiveChange>& changes, size_t indent = 0, size_t maxCell = 0);

// The changes as a JSON list.
std::wstring ChangesJson(const std::vector<HiveChange>& changes);

}  // namespace kxha
