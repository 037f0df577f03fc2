// Shared helpers of the hive engine's native tests: the Python side
// (hive_tool.py), files, the engine's dump in the Python side's format.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "memory_file_system.h"
#include "platform/regf/regf_hive.h"

namespace regftest {

using Bytes = std::vector<uint8_t>;

// Runs hive_tool.py with the arguments; its exit code.
int Tool(const std::string& args, std::string* out = nullptr);
Bytes ReadFile(const std::string& path);
void WriteFile(const std::string& path, const Bytes& bytes);
std::string Utf8(const std::u16string& s);
std::string Temp(const std::string& name);  // a path in this run's scratch folder
// The cached large fixture (made once per build tree) and a small one.
std::string SoftwareFixture();
std::string SmallFixture(int minor);

// Opens bytes held by `fs` at path u"h".
kx::regf::Result OpenBytes(kxnative::MemoryFileSystem& fs, const Bytes& bytes, std::unique_ptr<kx::regf::Hive>* hive,
                           kx::regf::OpenOptions options = {});
// Every key and value in the dump format of hive_tool.py, sorted; `values`
// counts the values.
std::vector<std::string> Dump(const kx::regf::Hive& hive, size_t* values = nullptr);
uint32_t Le32(const Bytes& b, size_t off);

}  // namespace regftest
