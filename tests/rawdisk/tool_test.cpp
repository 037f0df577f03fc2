// kxha disks file-attrs and kxha disks raw, called as the "disks" command
// calls them, through the DLL's exports. The tool's console output is taken
// here instead of stdout.
#include <gtest/gtest.h>

#include <algorithm>

#include "kx_test.h"
#include "tools/kxha/commands.h"

namespace kxha {
namespace {
std::wstring g_out, g_err;
}
void Out(const std::wstring& text) { g_out += text; }
void Err(const std::wstring& text) { g_err += text; }
int Fail(const std::wstring& what, unsigned long code, const wchar_t*) {
    g_err += L"error: " + what + L" failed, rc = " + std::to_wstring(code) + L"\n";
    return 1;
}
bool HasFlag(const Args& args, const wchar_t* flag) { return std::find(args.begin(), args.end(), flag) != args.end(); }
}  // namespace kxha

namespace {

struct Outcome {
    int code;
    std::wstring out, err;
};

Outcome Call(int (*command)(const kxha::Args&), kxha::Args args) {
    kxha::g_out.clear();
    kxha::g_err.clear();
    const int code = command(args);
    return {code, kxha::g_out, kxha::g_err};
}

TEST(DisksToolTest, FileAttrs) {
    kxtest::ScratchDir dir;
    const std::wstring file = dir / L"f.vhdx";
    kxtest::WriteText(file, "x");
    struct Case {
        const char* name;
        kxha::Args args;
        int code;
        std::wstring out, err;
    };
    const Case cases[] = {
        {"table", {file}, 0,
         L"path:                   " + file +
             L"\ncompressed:             no\nencrypted:              no\non compressing volume:  no\n",
         L""},
        {"json", {L"C:\\windows\\win.ini", L"--json"}, 0,
         L"{\"path\": \"C:\\\\windows\\\\win.ini\", \"compressed\": false, \"encrypted\": false, "
         L"\"on_compressing_volume\": false}\n",
         L""},
        {"missing file", {dir / L"none"}, 1, L"", L"error: CheckFileCryptCmprsAttr " + (dir / L"none") + L" failed, rc = 2\n"},
        {"no path", {}, 2, L"", L"usage: "},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const Outcome r = Call(kxha::RunDisksFileAttrs, c.args);
        EXPECT_EQ(r.code, c.code);
        EXPECT_EQ(r.out, c.out);
        EXPECT_EQ(r.err.substr(0, c.err.size()), c.err);
    }
}

// Wine lists no disks and its C: names no disk: the facts it cannot give
// are reported one by one.
TEST(DisksToolTest, RawOnWine) {
    const Outcome r = Call(kxha::RunDisksRaw, {});
    EXPECT_EQ(r.code, 1);
    EXPECT_EQ(r.out,
              L"largest disk:           no disk listed\ndisk over 2 TiB:        no\n"
              L"system disk signature:  failed, rc = 1168\n");
    EXPECT_EQ(Call(kxha::RunDisksRaw, {L"extra"}).code, 2);
}

}  // namespace
