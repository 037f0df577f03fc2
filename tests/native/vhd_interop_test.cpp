// Cross-checks against independent VHD implementations: qemu (qemu-img,
// qemu-io) and libvhdi (through its Python binding). Each test is skipped
// when its tool is not installed.
#include <tuple>

#include "vhd_test_util.h"

namespace vhdtest {
namespace {

// The Python that has the libvhdi binding (a python3 earlier on PATH may not).
constexpr const char* kPython = "/usr/bin/python3";

void RequireQemu() {
    if (!HaveTool("qemu-img") || !HaveTool("qemu-io")) GTEST_SKIP() << "qemu-img/qemu-io not installed";
}

// qemu sizes a VHD from its CHS geometry unless its creator is one known to
// use the footer's current size; told to, it uses the current size too.
std::string Qemu(const std::string& image) {
    return "--image-opts driver=vpc,force_size_calc=current_size,file.filename=" + image;
}

uint64_t QemuVirtualSize(const std::string& image) {
    std::string out;
    EXPECT_EQ(RunCommand("qemu-img info --output=json " + Qemu(image), &out), 0) << out;
    const size_t at = out.find("\"virtual-size\":");
    return at == std::string::npos ? 0 : std::stoull(out.substr(at + 15));
}

Bytes QemuRaw(const std::string& image, const std::string& raw) {
    std::string out;
    EXPECT_EQ(RunCommand("qemu-img convert -O raw " + Qemu(image) + " " + raw, &out), 0) << out;
    return ReadFile(raw);
}

void QemuWrite(const std::string& image, const std::vector<std::tuple<int, uint64_t, uint64_t>>& writes) {
    std::string cmd = "qemu-io";
    for (auto [pattern, offset, length] : writes)
        cmd += " -c 'write -P " + std::to_string(pattern) + " " + std::to_string(offset) + " " +
               std::to_string(length) + "'";
    std::string out;
    ASSERT_EQ(RunCommand(cmd + " " + Qemu(image), &out), 0) << out;
}

// Images qemu makes and writes read back here as qemu reads them.
TEST(VhdInterop, QemuImagesReadIdentically) {
    RequireQemu();
    ScratchDir dir;
    for (const char* options : {"subformat=fixed", "subformat=dynamic", "subformat=fixed,force_size=on",
                                "subformat=dynamic,force_size=on"}) {
        SCOPED_TRACE(options);
        const std::string image = dir / "q.vhd";
        fs::remove(image);
        std::string out;
        ASSERT_EQ(RunCommand("qemu-img create -q -f vpc -o " + std::string(options) + " " + image + " 9437000", &out), 0)
            << out;
        const uint64_t size = QemuVirtualSize(image);
        ASSERT_GT(size, 8 * kMiB);
        QemuWrite(image, {{0x11, 0, 512}, {0x22, 2 * kMiB - 1024, 4096}, {0x33, 5 * 512, 512},
                          {0x44, 4 * kMiB + 7 * 512, 9 * 512}, {0x55, size - 512, 512}});
        const Bytes raw = QemuRaw(image, dir / "q.raw");
        std::unique_ptr<VhdDisk> disk;
        ASSERT_EQ(OpenPosix(image, false, &disk), 0u);
        EXPECT_EQ(disk->Size(), size);
        EXPECT_EQ(ReadAll(*disk), raw);
    }
}

// Images made here read back in qemu as they read here.
TEST(VhdInterop, OurImagesReadIdenticallyInQemu) {
    RequireQemu();
    ScratchDir dir;
    for (DiskType type : {DiskType::kFixed, DiskType::kDynamic}) {
        const std::string image = dir / (type == DiskType::kFixed ? "f.vhd" : "d.vhd");
        const uint64_t size = 5 * kMiB + 77 * kSector;
        std::unique_ptr<VhdDisk> disk;
        ASSERT_EQ(CreatePosix(image, type, size, &disk), 0u);
        Bytes model(size);
        uint32_t seed = 5;
        for (auto [first, count] : EdgeWrites(4096, size / kSector)) WriteBoth(*disk, model, first, count, seed++);
        disk.reset();

        std::string out;
        const int rc = RunCommand("qemu-img check " + Qemu(image), &out);
        if (out.find("does not support checks") == std::string::npos) EXPECT_EQ(rc, 0) << out;
        EXPECT_EQ(QemuVirtualSize(image), size);
        EXPECT_EQ(QemuRaw(image, dir / "q.raw"), model);
    }
}

// Chains made here read in libvhdi as they read here, over a fixed and over
// a dynamic base.
TEST(VhdInterop, OurChainsReadIdenticallyInLibvhdi) {
    if (RunCommand(std::string(kPython) + " -c 'import pyvhdi'") != 0)
        GTEST_SKIP() << "pyvhdi not importable by " << kPython;
    ScratchDir dir;
    fs::create_directories(dir.path() / "sub");
    for (DiskType type : {DiskType::kFixed, DiskType::kDynamic}) {
        const std::vector<std::string> chain = {dir / "sub/top.vhd", dir / "mid.vhd", dir / "base.vhd"};
        for (const auto& image : chain) fs::remove(image);
        const Bytes model = MakeChain(chain[2], chain[1], chain[0], type);
        std::string cmd = std::string(kPython) + " " KX_NATIVE_DIR "/vhdi_read.py " + (dir / "vhdi.raw"), out;
        for (const auto& image : chain) cmd += " " + image;
        ASSERT_EQ(RunCommand(cmd, &out), 0) << out;
        EXPECT_EQ(ReadFile(dir / "vhdi.raw"), model) << static_cast<int>(type);
    }
}

}  // namespace
}  // namespace vhdtest
