// libFuzzer target of the registry hive engine: open any bytes as a hive,
// walk every key and value, edit, commit into memory, and require that the
// engine accepts what it wrote.
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <vector>

#include "memory_file_system.h"
#include "platform/regf/regf_hive.h"

using namespace kx::regf;

namespace {

size_t Walk(const Hive& hive) {
    size_t seen = 0;
    std::vector<Key> stack{hive.Root()};
    std::u16string name;
    Value value;
    while (!stack.empty() && seen < 100000) {
        Key key = stack.back();
        stack.pop_back();
        KeyInfo info;
        if (hive.GetKeyInfo(key, &info) != kOk) std::abort();
        for (uint32_t i = 0; hive.EnumValue(key, i, &name, &value) == kOk; ++i) ++seen;
        Key child;
        for (uint32_t i = 0; hive.EnumSubkey(key, i, &name, &child) == kOk; ++i) stack.push_back(child);
        ++seen;
    }
    return seen;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    kxnative::MemoryFileSystem fs;
    fs.Put(u"h", std::vector<uint8_t>(data, data + size));
    fs.maxFileBytes = 64u << 20;
    std::unique_ptr<kx::vhd::PositionedFile> file;
    fs.Open(u"h", true, &file);
    std::unique_ptr<Hive> hive;
    if (Hive::Open(std::move(file), OpenOptions{true, true}, &hive) != kOk) {
        if (fs.Get(u"h") != std::vector<uint8_t>(data, data + size)) std::abort();  // a refused hive is never written
        return 0;
    }
    Walk(*hive);
    std::u16string first;
    if (hive->EnumSubkey(hive->Root(), 0, &first) == kOk) {
        Key k;
        if (hive->OpenKey(hive->Root(), first, &k) != kOk) std::abort();
        std::u16string valueName;
        Value v;
        if (hive->EnumValue(k, 0, &valueName, &v) == kOk) hive->DeleteValue(k, valueName);
        hive->DeleteKeyTree(hive->Root(), first);
    }
    Key k;
    std::vector<uint8_t> big(size % 3 ? 20000 : 5, uint8_t(size));
    if (hive->CreateKey(hive->Root(), u"Fuzz\\Sub", &k) == kOk) {
        uint32_t dw = uint32_t(size);
        hive->SetValue(k, u"dw", kRegDword, &dw, 4);
        hive->SetValue(k, u"big", kRegBinary, big.data(), big.size());
        hive->SetValue(hive->Root(), u"Fuzz", kRegSz, u"ab", 6);
    }
    if (hive->Commit() != kOk) std::abort();
    std::unique_ptr<kx::vhd::PositionedFile> again;
    fs.Open(u"h", false, &again);
    std::unique_ptr<Hive> reopened;
    if (Hive::Open(std::move(again), OpenOptions{false, false}, &reopened) != kOk) std::abort();
    Walk(*reopened);
    return 0;
}
