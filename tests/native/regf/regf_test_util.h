// Shared helpers of the hive engine's native tests: the Python side
// (hive_tool.py), its cached fixtures, and the engine's dump in its format.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "platform/regf/regf_hive.h"
#include "vhd_test_util.h"

namespace regftest {

using kx::regf::Hive;
using kx::regf::Key;
using vhdtest::Bytes;
using vhdtest::ReadFile;
using vhdtest::WriteFile;

// Runs hive_tool.py with the arguments; its exit code.
inline int Tool(const std::string& args, std::string* out = nullptr) {
    return vhdtest::RunCommand("/usr/bin/python3 " KX_NATIVE_DIR "/regf/hive_tool.py " + args, out);
}

inline std::string Temp(const std::string& name) {  // a path in the build tree's scratch folder
    mkdir(KX_REGF_CACHE, 0755);
    mkdir(KX_REGF_CACHE "/scratch", 0755);
    return KX_REGF_CACHE "/scratch/" + name;
}

// A hive written empty by hive_tool.py from the format's description and,
// given `fill` ("keys seed"), filled by hivex; made once per build tree.
inline std::string Fixture(const std::string& name, int minor, const std::string& fill = {}) {
    const std::string path = KX_REGF_CACHE "/" + name, tmp = path + ".part";
    if (access(path.c_str(), F_OK) == 0) return path;
    mkdir(KX_REGF_CACHE, 0755);
    if (Tool("empty " + tmp + " " + std::to_string(minor)) != 0 || (!fill.empty() && Tool("fill " + tmp + " " + fill)))
        return "";
    rename(tmp.c_str(), path.c_str());
    return path;
}
inline std::string SoftwareFixture() { return Fixture("software-like.hive", 3, "15000 1"); }
inline std::string SmallFixture(int minor) { return Fixture("small-1." + std::to_string(minor) + ".hive", minor, "120 7"); }
inline Bytes EmptyHive(int minor) { return ReadFile(Fixture("empty-1." + std::to_string(minor) + ".hive", minor)); }

// Opens bytes held by `fs` at path u"h".
inline kx::regf::Result OpenBytes(kxnative::MemoryFileSystem& fs, const Bytes& bytes, std::unique_ptr<Hive>* hive,
                                  kx::regf::OpenOptions options = {}) {
    fs.Put(u"h", bytes);
    std::unique_ptr<kx::vhd::PositionedFile> file;
    fs.Open(u"h", true, &file);
    return Hive::Open(std::move(file), options, hive);
}

inline std::string Utf8(const std::u16string& s) {
    try {
        return std::filesystem::path(s).string();
    } catch (const std::exception&) {
        return "\xEF\xBF\xBD";  // a damaged name
    }
}

inline std::string Hex(const void* data, size_t n) {
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
inline std::vector<std::string> Dump(const Hive& hive) {
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

inline uint32_t Le32(const Bytes& b, size_t off) {
    return b[off] | b[off + 1] << 8 | b[off + 2] << 16 | uint32_t(b[off + 3]) << 24;
}
inline void Put32(Bytes& b, size_t off, uint32_t v) { std::memcpy(&b[off], &v, 4); }
// The base block's checksum over its first 508 bytes.
inline uint32_t Checksum(const Bytes& b) {
    uint32_t x = 0;
    for (int i = 0; i < 127; ++i) x ^= Le32(b, 4 * i);
    return x == 0 ? 1 : x == 0xFFFFFFFFu ? 0xFFFFFFFEu : x;
}

}  // namespace regftest
