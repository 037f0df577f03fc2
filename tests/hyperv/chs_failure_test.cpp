// Geometry repair when the disk fails part-way: real images opened by the
// real libraries, with one chosen call of the disk object made to fail (the
// n-th position, read or write, the close) or the geometry made unusable.
// Each case: the failing call's code comes back, its log line stands at
// level 0 with that code, nothing after the failure is written, and a
// failure before the first write leaves the file as it was.
#include <gtest/gtest.h>

#include "hyperv/adjust_boot_cfg.h"
#include "kx_test.h"

namespace {

namespace vd = kx::vdisk;
using kxtest::LogCursor;
using kxtest::ReadBytes;

constexpr DWORD kFault = ERROR_CRC;  // 23: what a failing call reports
constexpr ULONGLONG kMiB = 1 << 20;

enum class Op { kNone, kPosition, kRead, kWrite, kClose, kNoHeads };

// The fault of the case running: the `nth` call (from 1) of `op` fails.
struct Fault {
    Op op = Op::kNone;
    int nth = 0;
};
Fault g_fault;
int g_calls[6];

bool Hit(Op op) { return g_fault.op == op && ++g_calls[static_cast<int>(op)] == g_fault.nth; }

class FaultyVhdx final : public vd::IVhdxDisk {
public:
    explicit FaultyVhdx(std::unique_ptr<vd::IVhdxDisk> real) : real_(std::move(real)) {}
    DWORD GetGeometry(vd::Geometry* g) override { return real_->GetGeometry(g); }
    DWORD GetSize(ULONGLONG* bytes) override { return real_->GetSize(bytes); }
    DWORD GetSectorSize(DWORD* bytes) override { return real_->GetSectorSize(bytes); }
    DWORD SetFilePosition(ULONGLONG offset) override {
        return Hit(Op::kPosition) ? kFault : real_->SetFilePosition(offset);
    }
    DWORD Read(void* data, DWORD bytes, DWORD* done) override {
        return Hit(Op::kRead) ? kFault : real_->Read(data, bytes, done);
    }
    DWORD Write(const void* data, DWORD bytes, DWORD* done) override {
        return Hit(Op::kWrite) ? kFault : real_->Write(data, bytes, done);
    }
    DWORD GetSignature(DWORD* signature) override { return real_->GetSignature(signature); }
    DWORD Close() override { return Hit(Op::kClose) ? kFault : real_->Close(); }

private:
    std::unique_ptr<vd::IVhdxDisk> real_;
};

class FaultyVhd final : public vd::IVDisk {
public:
    explicit FaultyVhd(std::unique_ptr<vd::IVDisk> real) : real_(std::move(real)) {}
    DWORD GetSize(ULONGLONG* bytes) override { return real_->GetSize(bytes); }
    DWORD GetGeometry(vd::Geometry* g) override {
        const DWORD rc = real_->GetGeometry(g);
        if (g_fault.op == Op::kNoHeads) g->tracksPerCylinder = 0;
        return rc;
    }
    DWORD GetType(DWORD* type) override { return real_->GetType(type); }
    DWORD GetBitmap(LONGLONG start, DWORD bytes, DiskBitmapBuffer* buffer) override {
        return real_->GetBitmap(start, bytes, buffer);
    }
    DWORD ReadSectors(ULONGLONG first, DWORD count, void* data) override {
        return Hit(Op::kRead) ? kFault : real_->ReadSectors(first, count, data);
    }
    DWORD WriteSectors(ULONGLONG first, DWORD count, const void* data) override {
        return Hit(Op::kWrite) ? kFault : real_->WriteSectors(first, count, data);
    }

private:
    std::unique_ptr<vd::IVDisk> real_;
};

DWORD OpenFaultyVhdx(const wchar_t* path, bool writable, std::unique_ptr<vd::IVhdxDisk>* disk) {
    std::unique_ptr<vd::IVhdxDisk> real;
    if (DWORD rc = vd::OpenVhdxDisk(path, writable, &real)) return rc;
    *disk = std::make_unique<FaultyVhdx>(std::move(real));
    return 0;
}

DWORD OpenFaultyVhd(const wchar_t* path, bool writable, std::unique_ptr<vd::IVDisk>* disk) {
    std::unique_ptr<vd::IVDisk> real;
    if (DWORD rc = vd::OpenVDisk_HyperV(path, writable, &real)) return rc;
    *disk = std::make_unique<FaultyVhd>(std::move(real));
    return 0;
}

class ChsFailures : public ::testing::Test {
protected:
    void SetUp() override { kx::hyperv::testing::SetDiskOpens(OpenFaultyVhd, OpenFaultyVhdx); }
    void TearDown() override {
        kx::hyperv::testing::SetDiskOpens(nullptr, nullptr);
        g_fault = {};
    }
};

std::wstring Made(const char* file) {
    const std::string p = std::string("Z:") + KX_CHS_MADE + "/" + file;
    return std::wstring(p.begin(), p.end());
}

TEST_F(ChsFailures, EachFailingCallEndsTheRepair) {
    const std::wstring op = L"CAdjustBootCfg_HyperV::AdjustDiskVolumeCHS";
    const std::wstring code = std::to_wstring(kFault);
    struct Case {
        const char* image;
        Fault fault;
        DWORD rc;
        std::wstring line;  // at level 0; "" for none
        bool found;
        bool untouched;  // the file as it was
    } const cases[] = {
        // VHDX: positions 1 (MBR lookup), 2 (boot sector), 3 (boot sector
        // rewrite), 4 (MBR read), 5 (MBR write); reads 1 (lookup), 2 (boot
        // sector), 3 (MBR); writes 1 (boot sector), 2 (MBR).
        {"vhdx-128.vhdx", {Op::kRead, 1}, 0, L"", false, true},
        {"vhdx-128.vhdx", {Op::kPosition, 2}, kFault, op + L": cannot set vhdx file positon, rc = " + code, true, true},
        {"vhdx-128.vhdx", {Op::kRead, 2}, kFault,
         op + L": Fail to Read VHDX boot code for volume[C:], rc = " + code, true, true},
        {"vhdx-128.vhdx", {Op::kPosition, 3}, kFault, op + L": cannot set vhdx file positon, rc = " + code, true, true},
        {"vhdx-128.vhdx", {Op::kWrite, 1}, kFault,
         op + L": Fail to Update VHDX boot code for volume[C:], rc = " + code, true, true},
        {"vhdx-128.vhdx", {Op::kRead, 3}, kFault,
         L"CAdjustBootCfg_HyperV::UpdateVdhxDiskPartition, read mbr failed, rc = " + code, true, false},
        {"vhdx-128.vhdx", {Op::kPosition, 5}, kFault,
         L"CAdjustBootCfg_HyperV::UpdateVdhxDiskPartition: Failed to SetFilePointerEx, rc = " + code + L".", true,
         false},
        {"vhdx-128.vhdx", {Op::kWrite, 2}, kFault, L"CAdjustBootCfg_HyperV::update mbr failed, rc = " + code, true,
         false},
        {"vhdx-128.vhdx", {Op::kClose, 1}, kFault, L"", true, false},
        // VHD: reads 1 (lookup), 2 (boot sector), 3 (MBR); writes 1 (boot
        // sector), 2 (MBR).
        {"vhd-128.vhd", {Op::kRead, 1}, 0, L"", false, true},
        {"vhd-128.vhd", {Op::kRead, 2}, kFault, op + L": Fail to Read boot code for volume[C:], rc = " + code, true,
         true},
        {"vhd-128.vhd", {Op::kWrite, 1}, kFault, op + L": Fail to Update boot code for volume[C:], rc = " + code, true,
         true},
        {"vhd-128.vhd", {Op::kRead, 3}, kFault,
         L"CAdjustBootCfg_HyperV::UpdateDiskPartition, read mbr failed, rc = " + code, true, false},
        {"vhd-128.vhd", {Op::kWrite, 2}, kFault, L"CAdjustBootCfg_HyperV::update mbr failed, rc = " + code, true, false},
        // A geometry without heads: no CHS address to compute.
        {"vhd-128.vhd", {Op::kNoHeads, 0}, ERROR_INVALID_DATA,
         L"CAdjustBootCfg_HyperV::UpdateDiskPartition, the disk reports no usable geometry (8192/0/63)", true, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.image) + " op " + std::to_string(static_cast<int>(c.fault.op)) + " #" +
                     std::to_string(c.fault.nth));
        kxtest::ScratchDir dir;
        const std::string name = c.image;
        const std::wstring path = dir / std::wstring(name.begin(), name.end());
        ASSERT_TRUE(::CopyFileW(Made(c.image).c_str(), path.c_str(), FALSE));
        const auto before = ReadBytes(path);
        g_fault = c.fault;
        std::fill(std::begin(g_calls), std::end(g_calls), 0);
        LogCursor log;
        bool found = !c.found;
        EXPECT_EQ(kx::hyperv::AdjustDiskVolumeCHS(path.c_str(), L"C:", kMiB, &found), c.rc);
        EXPECT_EQ(found, c.found);
        if (!c.line.empty()) {
            const auto lines = log.Matching(c.line);
            ASSERT_EQ(lines.size(), 1u);
            EXPECT_EQ(lines[0].level, 0);
        }
        // A failed MBR step is reported once more by the operation itself.
        const bool mbrFailed = c.rc && !c.untouched && c.fault.op != Op::kClose;
        EXPECT_EQ(log.Contains(op + L": Fail to update MBR for disk = " + path + L", rc = " + std::to_wstring(c.rc)),
                  mbrFailed);
        EXPECT_EQ(log.Contains(L"Succeed to update MBR"), c.fault.op == Op::kClose);
        if (c.untouched) {
            EXPECT_TRUE(ReadBytes(path) == before) << "a failed repair wrote to the file";
        }
    }
}

}  // namespace
