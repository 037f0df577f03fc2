// Hive engine benchmark on a SOFTWARE-like hive: open, set 1,000 values
// spread over the tree, add 100 keys, commit; then hivex (Python binding)
// doing the same edits on a copy, timed in the same run; three rounds, each
// on fresh copies, as the machine's load varies. Prints figures only.
//   regf_bench <hive> <hive_tool.py>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "platform/regf/regf_hive.h"
#include "posix_file_system.h"

using namespace kx::regf;

namespace {

bool Copy(const std::string& from, const std::string& to) {
    std::ifstream in(from, std::ios::binary);
    std::ofstream out(to, std::ios::binary | std::ios::trunc);
    out << in.rdbuf();
    return bool(in) && bool(out);
}

double Seconds(std::chrono::steady_clock::time_point since) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - since).count();
}

}  // namespace

int Round(const std::string& source, const char* tool) {
    const std::string engineCopy = source + ".engine", hivexCopy = source + ".hivex";
    if (!Copy(source, engineCopy) || !Copy(source, hivexCopy)) return 1;

    auto start = std::chrono::steady_clock::now();
    std::unique_ptr<kx::vhd::PositionedFile> file;
    if (kxnative::OpenPosixFile(kxnative::FromUtf8(engineCopy), true, &file) != 0) return 1;
    std::unique_ptr<Hive> hive;
    if (Result r = Hive::Open(std::move(file), OpenOptions{}, &hive); r != kOk) {
        std::fprintf(stderr, "open failed: %u\n", r);
        return 1;
    }
    double openTime = Seconds(start);
    std::vector<Key> keys, stack{hive->Root()};
    std::u16string name;
    while (!stack.empty()) {
        Key k = stack.back();
        stack.pop_back();
        keys.push_back(k);
        Key child;
        for (uint32_t i = 0; hive->EnumSubkey(k, i, &name, &child) == kOk; ++i) stack.push_back(child);
    }
    size_t step = std::max<size_t>(1, keys.size() / 1000);
    for (uint32_t i = 0; i < 1000; ++i) {
        std::u16string value = u"Bench";
        for (char c : std::to_string(i)) value += char16_t(c);
        if (hive->SetValue(keys[(i * step) % keys.size()], value, kRegDword, &i, 4) != kOk) return 1;
    }
    for (uint32_t i = 0; i < 100; ++i) {
        std::u16string key = u"BenchKey";
        for (char c : std::to_string(i)) key += char16_t(c);
        Key made;
        if (hive->CreateKey(keys[(size_t(i) * 7919) % keys.size()], key, &made) != kOk) return 1;
    }
    double editTime = Seconds(start);
    if (hive->Commit() != kOk) return 1;
    double engineTime = Seconds(start);
    std::ifstream sized(engineCopy, std::ios::binary | std::ios::ate);
    long long fileBytes = sized.tellg();

    std::printf("hive: %lld bytes, %zu keys\n", fileBytes, keys.size());
    std::printf("engine: %.3f s (open %.3f s, walk and edits %.3f s, commit with three fdatasync %.3f s)\n", engineTime,
                openTime, editTime - openTime, engineTime - editTime);
    std::printf("engine commit wrote %llu bytes in %u pages = %.2f%% of the file\n",
                (unsigned long long)hive->Stats().bytesWritten, hive->Stats().pagesWritten,
                100.0 * double(hive->Stats().bytesWritten) / double(fileBytes));
    hive.reset();
    std::fflush(stdout);
    std::string cmd = std::string("/usr/bin/python3 ") + tool + " bench " + hivexCopy + " 1000 100";
    int rc = std::system(cmd.c_str());
    std::remove(engineCopy.c_str());
    std::remove(hivexCopy.c_str());
    return rc == 0 ? 0 : 1;
}

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: regf_bench <hive> <hive_tool.py>\n");
        return 2;
    }
    for (int round = 1; round <= 3; ++round) {
        std::printf("round %d\n", round);
        if (Round(argv[1], argv[2]) != 0) return 1;
    }
    return 0;
}
