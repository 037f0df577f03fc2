#include "platform/vhd/vhd_paths.h"

#include <vector>

namespace kx::vhd {
namespace {

bool IsSeparator(char16_t c) { return c == u'\\' || c == u'/'; }

char16_t FoldCase(char16_t c) { return (c >= u'a' && c <= u'z') ? static_cast<char16_t>(c - u'a' + u'A') : c; }

bool SameComponent(const std::u16string& a, const std::u16string& b) {
    if (a.size() != b.size()) return false;
    for (size_t i = 0; i < a.size(); ++i)
        if (FoldCase(a[i]) != FoldCase(b[i])) return false;
    return true;
}

// Components of a path; a leading separator (a POSIX root or a UNC prefix)
// stays with the first component so that roots compare as a whole.
std::vector<std::u16string> Split(const std::u16string& path) {
    std::vector<std::u16string> parts;
    std::u16string current;
    size_t i = 0;
    while (i < path.size() && IsSeparator(path[i])) current.push_back(path[i++]);
    for (; i < path.size(); ++i) {
        if (IsSeparator(path[i])) {
            if (!current.empty()) parts.push_back(current);
            current.clear();
        } else {
            current.push_back(path[i]);
        }
    }
    if (!current.empty()) parts.push_back(current);
    return parts;
}

char16_t SeparatorOf(const std::u16string& path) {
    for (char16_t c : path)
        if (IsSeparator(c)) return c;
    return u'\\';
}

}  // namespace

std::u16string DirectoryOf(const std::u16string& path) {
    const size_t at = path.find_last_of(u"\\/");
    if (at == std::u16string::npos) return {};
    if (at == 0) return path.substr(0, 1);
    return path.substr(0, at);
}

std::u16string FileNameOf(const std::u16string& path) {
    const size_t at = path.find_last_of(u"\\/");
    return at == std::u16string::npos ? path : path.substr(at + 1);
}

std::u16string JoinRelative(const std::u16string& folder, const std::u16string& relative) {
    std::u16string rel = relative;
    while (rel.size() >= 2 && rel[0] == u'.' && IsSeparator(rel[1])) rel.erase(0, 2);
    if (folder.empty()) return rel;
    const char16_t sep = SeparatorOf(folder);
    for (char16_t& c : rel)
        if (IsSeparator(c)) c = sep;
    std::u16string joined = folder;
    if (!IsSeparator(joined.back())) joined.push_back(sep);
    return joined + rel;
}

std::u16string RelativePath(const std::u16string& folder, const std::u16string& target) {
    const std::vector<std::u16string> from = Split(folder), to = Split(target);
    if (from.empty() || to.empty() || !SameComponent(from[0], to[0])) return {};
    size_t common = 0;
    while (common < from.size() && common + 1 < to.size() && SameComponent(from[common], to[common])) ++common;
    std::u16string rel;
    if (common == from.size()) rel = u".\\";
    for (size_t i = common; i < from.size(); ++i) rel += u"..\\";
    for (size_t i = common; i < to.size(); ++i) {
        rel += to[i];
        if (i + 1 < to.size()) rel.push_back(u'\\');
    }
    return rel;
}

}  // namespace kx::vhd
