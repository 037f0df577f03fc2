// Runs kxha.exe from the test's folder with its output captured.
#pragma once

#include <string>

#include "kx_test.h"

namespace kxhatest {

struct Result {
    DWORD code;
    std::string out;  // stdout and stderr, UTF-8
};

inline Result Kxha(const std::wstring& args) {
    Result r;
    r.code = kxtest::RunCapture(L"\"" + kxtest::BinDir() + L"\\kxha.exe\" " + args, &r.out);
    return r;
}

inline bool Has(const Result& r, const std::string& text) { return r.out.find(text) != std::string::npos; }

inline std::wstring Q(const std::wstring& s) { return L"\"" + s + L"\""; }

// A file of the guest hive fixtures, as Wine sees it.
inline std::wstring Fixture(const std::string& file) {
    const std::string path = std::string("Z:") + KX_GUEST_FIXTURES + "/" + file;
    return std::wstring(path.begin(), path.end());
}

// Copies a fixture file to `to`.
inline void Put(const std::string& fixture, const std::wstring& to) {
    const auto bytes = kxtest::ReadBytes(Fixture(fixture));
    kxtest::WriteBytes(to, bytes.data(), bytes.size());
}

}  // namespace kxhatest
