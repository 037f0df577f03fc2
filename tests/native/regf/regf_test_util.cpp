#include "regf/regf_test_util.h"

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sys/stat.h>
#include <unistd.h>

namespace regftest {

using namespace kx::regf;

int Tool(const std::string& args, std::string* out) {
    std::string cmd = "/usr/bin/python3 " KX_NATIVE_DIR "/regf/hive_tool.py " + args;
    FILE* p = popen(cmd.c_str(), "r");
    if (!p) return -1;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0)
        if (out) out->append(buf, n);
    int rc = pclose(p);
    return WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
}

Bytes ReadFile(const std::string& path) {
    std::ifstream f(path, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(f), {});
}

void WriteFile(const std::string& path, const Bytes& bytes) {
    std::ofstream f(path, std::ios::binary | std::ios::trunc);
    f.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

std::string Utf8(const std::u16string& s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
        uint32_t c = s[i];
        if (c >= 0xD800 && c < 0xDC00 && i + 1 < s.size()) c = 0x10000 + ((c - 0xD800) << 10) + (s[++i] - 0xDC00);
        if (c < 0x80) {
            out += char(c);
        } else if (c < 0x800) {
            out += char(0xC0 | c >> 6);
            out += char(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += char(0xE0 | c >> 12);
            out += char(0x80 | ((c >> 6) & 0x3F));
            out += char(0x80 | (c & 0x3F));
        } else {
            out += char(0xF0 | c >> 18);
            out += char(0x80 | ((c >> 12) & 0x3F));
            out += char(0x80 | ((c >> 6) & 0x3F));
            out += char(0x80 | (c & 0x3F));
        }
    }
    return out;
}

std::string Temp(const std::string& name) {
    static std::string dir = [] {
        std::string d = KX_REGF_CACHE "/scratch";
        mkdir(KX_REGF_CACHE, 0755);
        mkdir(d.c_str(), 0755);
        return d;
    }();
    return dir + "/" + name;
}

static std::string Cached(const std::string& name, const std::string& fillArgs, int minor) {
    std::string path = KX_REGF_CACHE "/" + name;
    if (access(path.c_str(), F_OK) == 0) return path;
    mkdir(KX_REGF_CACHE, 0755);
    std::string tmp = path + ".part";
    if (Tool("empty " + tmp + " " + std::to_string(minor)) != 0 || Tool("fill " + tmp + " " + fillArgs) != 0) return "";
    rename(tmp.c_str(), path.c_str());
    return path;
}

std::string SoftwareFixture() { return Cached("software-like.hive", "15000 1", 3); }
std::string SmallFixture(int minor) { return Cached("small-1." + std::to_string(minor) + ".hive", "120 7", minor); }

Result OpenBytes(kxnative::MemoryFileSystem& fs, const Bytes& bytes, std::unique_ptr<Hive>* hive, OpenOptions options) {
    fs.Put(u"h", bytes);
    std::unique_ptr<kx::vhd::PositionedFile> file;
    fs.Open(u"h", true, &file);
    return Hive::Open(std::move(file), options, hive);
}

std::vector<std::string> Dump(const Hive& hive, size_t* values) {
    std::vector<std::string> out;
    std::vector<std::pair<Key, std::string>> stack{{hive.Root(), ""}};
    static const char* hex = "0123456789abcdef";
    size_t count = 0;
    while (!stack.empty()) {
        auto [key, path] = stack.back();
        stack.pop_back();
        out.push_back("K\t" + path);
        std::u16string name;
        Value v;
        for (uint32_t i = 0; hive.EnumValue(key, i, &name, &v) == kOk; ++i, ++count) {
            std::string line = "V\t" + path + "\t" + Utf8(name) + "\t" + std::to_string(v.type) + "\t";
            for (uint8_t b : v.data) line += {hex[b >> 4], hex[b & 15]};
            out.push_back(std::move(line));
        }
        Key child;
        for (uint32_t i = 0; hive.EnumSubkey(key, i, &name, &child) == kOk; ++i)
            stack.emplace_back(child, path.empty() ? Utf8(name) : path + "\\" + Utf8(name));
    }
    std::sort(out.begin(), out.end());
    if (values) *values = count;
    return out;
}

uint32_t Le32(const Bytes& b, size_t off) { return b[off] | b[off + 1] << 8 | b[off + 2] << 16 | uint32_t(b[off + 3]) << 24; }

}  // namespace regftest
