// The PE machine reader against real images (Wine's own DLLs, every one an
// x64 image; tiny DLLs linked at build time by the x86 and x64 cross
// compilers; the cross linker's objdump names the machine independently),
// and against damaged copies that must be refused without reading out of
// bounds.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <vector>

#include "platform/pe/pe_machine.h"

namespace {

namespace fs = std::filesystem;
using kx::pe::PeStatus;
using Bytes = std::vector<uint8_t>;

const fs::path kWine = "/usr/lib/x86_64-linux-gnu/wine";

Bytes ReadFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}

PeStatus Machine(const Bytes& b, uint16_t* m) {
    // A copy of exactly the right size, so ASan sees any read past the end.
    auto copy = std::make_unique<uint8_t[]>(b.size() ? b.size() : 1);
    std::copy(b.begin(), b.end(), copy.get());
    return kx::pe::ReadPeMachine(copy.get(), b.size(), m);
}

std::string ObjdumpArchitecture(const fs::path& p) {
    std::string out;
    if (FILE* f = popen(("x86_64-w64-mingw32-objdump -f '" + p.string() + "' 2>/dev/null").c_str(), "r")) {
        char buf[512];
        while (fgets(buf, sizeof buf, f)) out += buf;
        pclose(f);
    }
    const size_t at = out.find("architecture: ");
    return at == std::string::npos ? "" : out.substr(at + 14, out.find(',', at) - at - 14);
}

void Put32(Bytes& b, size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) b[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

uint32_t NtOffset(const Bytes& b) { return b[0x3C] | b[0x3D] << 8 | b[0x3E] << 16 | uint32_t(b[0x3F]) << 24; }

}  // namespace

TEST(PeMachine, EveryWineDllIsX64) {
    size_t seen = 0;
    for (const auto& e : fs::directory_iterator(kWine / "x86_64-windows")) {
        if (e.path().extension() != ".dll" || e.file_size() > (512u << 10)) continue;
        uint16_t m = 0;
        ASSERT_EQ(Machine(ReadFile(e.path()), &m), PeStatus::kOk) << e.path();
        EXPECT_EQ(m, kx::pe::kMachineAmd64) << e.path();
        // objdump's own reading, on a sample (it is slow).
        if (seen++ % 97 == 0) EXPECT_EQ(ObjdumpArchitecture(e.path()), "i386:x86-64") << e.path();
    }
    EXPECT_GT(seen, 100u);
}

TEST(PeMachine, ImagesOfBothCrossCompilers) {
    const struct {
        const char* path;
        uint16_t machine;
        const char* objdump;
    } cases[] = {{KX_PE_TINY64, kx::pe::kMachineAmd64, "i386:x86-64"},
                 {KX_PE_TINY32, kx::pe::kMachineI386, "i386"}};
    for (const auto& c : cases) {
        uint16_t m = 0;
        ASSERT_EQ(Machine(ReadFile(c.path), &m), PeStatus::kOk) << c.path;
        EXPECT_EQ(m, c.machine) << c.path;
        EXPECT_EQ(ObjdumpArchitecture(c.path), c.objdump) << c.path;
    }
}

// Damaged copies of a real image: each must be refused with its reason, or
// still read when the damage leaves the fields intact.
TEST(PeMachine, DamagedImages) {
    const Bytes hal = ReadFile(kWine / "x86_64-windows" / "hal.dll");
    ASSERT_GT(hal.size(), 0x200u);
    const uint32_t nt = NtOffset(hal);
    struct Case {
        const char* what;
        void (*damage)(Bytes&, uint32_t nt);
        PeStatus want;
    };
    const Case cases[] = {
        {"untouched", [](Bytes&, uint32_t) {}, PeStatus::kOk},
        {"empty", [](Bytes& b, uint32_t) { b.clear(); }, PeStatus::kNoDosHeader},
        {"shorter than a DOS header", [](Bytes& b, uint32_t) { b.resize(0x3F); }, PeStatus::kNoDosHeader},
        {"no MZ", [](Bytes& b, uint32_t) { b[1] = 'X'; }, PeStatus::kNoDosHeader},
        {"text file", [](Bytes& b, uint32_t) { b.assign(300, 'a'); }, PeStatus::kNoDosHeader},
        {"e_lfanew past the end", [](Bytes& b, uint32_t) { Put32(b, 0x3C, uint32_t(b.size()) + 8); },
         PeStatus::kBadNtOffset},
        {"e_lfanew negative", [](Bytes& b, uint32_t) { Put32(b, 0x3C, 0x80000000u); }, PeStatus::kBadNtOffset},
        {"e_lfanew all ones", [](Bytes& b, uint32_t) { Put32(b, 0x3C, 0xFFFFFFFFu); }, PeStatus::kBadNtOffset},
        {"cut inside the file header", [](Bytes& b, uint32_t n) { b.resize(n + 23); }, PeStatus::kBadNtOffset},
        {"cut right after the file header", [](Bytes& b, uint32_t n) { b.resize(n + 24); }, PeStatus::kOk},
        {"no PE signature", [](Bytes& b, uint32_t n) { b[n + 1] = 'X'; }, PeStatus::kNoPeSignature},
        {"PE without the zero bytes", [](Bytes& b, uint32_t n) { b[n + 3] = 1; }, PeStatus::kNoPeSignature},
        {"e_lfanew at the DOS header", [](Bytes& b, uint32_t) { Put32(b, 0x3C, 0); }, PeStatus::kNoPeSignature},
    };
    for (const Case& c : cases) {
        Bytes b = hal;
        c.damage(b, nt);
        uint16_t m = 0x1234;
        EXPECT_EQ(Machine(b, &m), c.want) << c.what;
        if (c.want == PeStatus::kOk) EXPECT_EQ(m, kx::pe::kMachineAmd64) << c.what;
        else EXPECT_EQ(m, 0x1234) << c.what << ": machine written on failure";
    }
}

// The machine field is read as it stands, whatever the value.
TEST(PeMachine, OtherMachineTypesAreReported) {
    Bytes b = ReadFile(KX_PE_TINY32);
    const uint32_t nt = NtOffset(b);
    for (uint16_t want : {uint16_t{0x01C4}, uint16_t{0xAA64}, uint16_t{0x0200}, uint16_t{0}}) {
        b[nt + 4] = static_cast<uint8_t>(want);
        b[nt + 5] = static_cast<uint8_t>(want >> 8);
        uint16_t m = 0;
        ASSERT_EQ(Machine(b, &m), PeStatus::kOk);
        EXPECT_EQ(m, want);
    }
}

// A source that fails to read is a failure, not a crash.
TEST(PeMachine, FailingSource) {
    struct Failing : kx::pe::ByteSource {
        uint64_t Size() const override { return 4096; }
        bool Read(uint64_t, void*, size_t) override { return false; }
    } source;
    uint16_t m = 0;
    EXPECT_EQ(kx::pe::ReadPeMachine(source, &m), PeStatus::kReadFailed);
}
