#include "fake_hyperv.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>

#include "common/wstring_format.h"
#include "kx_test.h"

namespace kxtest {

namespace kp = kx::platform;

FakeVm* FakeHost::Find(const std::wstring& guid) {
    for (auto& vm : vms)
        if (kx::EqualsNoCase(vm.guid, guid)) return &vm;
    return nullptr;
}

FakeHost ParseFakeHost(const std::wstring& text) {
    FakeHost host;
    std::wistringstream in(text);
    int number = 0;
    for (std::wstring line; std::getline(in, line);) {
        ++number;
        while (!line.empty() && (line.back() == L'\r' || line.back() == L' ')) line.pop_back();
        const size_t start = line.find_first_not_of(L" \t");
        if (start == std::wstring::npos) continue;
        const size_t gap = line.find(L' ', start);
        const std::wstring word = line.substr(start, gap - start);
        const std::wstring rest = gap == std::wstring::npos ? L"" : line.substr(line.find_first_not_of(L' ', gap));
        auto bad = [&] { throw std::runtime_error("fake host description, line " + std::to_string(number)); };
        FakeVm* vm = host.vms.empty() ? nullptr : &host.vms.back();
        if (word == L"vm") {
            const size_t sp = rest.find(L' ');
            host.vms.push_back({rest.substr(0, sp), sp == std::wstring::npos ? L"" : rest.substr(sp + 1), L"", {}, {}, {}});
        } else if (word == L"fail" && rest.rfind(L"open ", 0) == 0) {
            host.openFailure = std::stoul(rest.substr(5), nullptr, 0);
        } else if (!vm) {
            bad();
        } else if (word == L"data") {
            vm->data = rest;
        } else if (word == L"disk") {
            vm->disks.push_back(rest);
        } else if (word == L"snapshot") {
            vm->snapshots.push_back({rest, {}});
        } else if (word == L"sdisk" && !vm->snapshots.empty()) {
            vm->snapshots.back().disks.push_back(rest);
        } else if (word == L"fail") {
            const size_t sp = rest.find(L' ');
            if (sp == std::wstring::npos) bad();
            vm->failures[rest.substr(0, sp)] = std::stoul(rest.substr(sp + 1), nullptr, 0);
        } else {
            bad();
        }
    }
    return host;
}

namespace {

// Every object asks the shared host when it is called, so a snapshot that
// the test deletes is gone for objects made before too.
DWORD Failure(const std::shared_ptr<FakeHost>& host, const std::wstring& vm, const wchar_t* call) {
    FakeVm* v = host->Find(vm);
    if (!v) return ERROR_NOT_FOUND;
    const auto it = v->failures.find(call);
    return it == v->failures.end() ? 0 : it->second;
}

class Snapshot final : public kp::HyperVSnapshot {
public:
    Snapshot(std::shared_ptr<FakeHost> host, std::wstring vm, std::wstring guid)
        : host_(std::move(host)), vm_(std::move(vm)), guid_(std::move(guid)) {}
    std::wstring Guid() const override { return guid_; }
    DWORD GetDiskImages(std::vector<std::wstring>& images) override {
        images.clear();
        if (DWORD rc = Failure(host_, vm_, L"sdisks")) return rc;
        for (const auto& s : host_->Find(vm_)->snapshots)
            if (kx::EqualsNoCase(s.guid, guid_)) {
                images = s.disks;
                return 0;
            }
        return ERROR_NOT_FOUND;
    }

private:
    std::shared_ptr<FakeHost> host_;
    std::wstring vm_, guid_;
};

class Vm final : public kp::HyperVVm {
public:
    Vm(std::shared_ptr<FakeHost> host, std::wstring guid) : host_(std::move(host)), guid_(std::move(guid)) {}
    std::wstring Guid() const override { return guid_; }
    std::wstring DisplayName() const override { return host_->Find(guid_)->name; }
    DWORD GetDataFolder(std::wstring& folder) override {
        if (DWORD rc = Failure(host_, guid_, L"data")) return rc;
        folder = host_->Find(guid_)->data;
        return 0;
    }
    DWORD GetDiskImages(std::vector<std::wstring>& images) override {
        images.clear();
        if (DWORD rc = Failure(host_, guid_, L"disks")) return rc;
        images = host_->Find(guid_)->disks;
        return 0;
    }
    DWORD GetSnapshotByGuid(const std::wstring& guid, std::unique_ptr<kp::HyperVSnapshot>* snapshot) override {
        snapshot->reset();
        if (DWORD rc = Failure(host_, guid_, L"snapshot")) return rc;
        for (const auto& s : host_->Find(guid_)->snapshots)
            if (kx::EqualsNoCase(s.guid, guid)) {
                *snapshot = std::make_unique<Snapshot>(host_, guid_, s.guid);
                return 0;
            }
        return ERROR_NOT_FOUND;
    }
    DWORD GetSnapshotList(std::vector<std::unique_ptr<kp::HyperVSnapshot>>& snapshots) override {
        snapshots.clear();
        if (DWORD rc = Failure(host_, guid_, L"snapshots")) return rc;
        for (const auto& s : host_->Find(guid_)->snapshots)
            snapshots.push_back(std::make_unique<Snapshot>(host_, guid_, s.guid));
        return 0;
    }

private:
    std::shared_ptr<FakeHost> host_;
    std::wstring guid_;
};

class Operation final : public kp::HyperVOperation {
public:
    explicit Operation(std::shared_ptr<FakeHost> host) : host_(std::move(host)) {}
    std::unique_ptr<kp::HyperVVm> GetVmByGuid(const std::wstring& guid) override {
        FakeVm* vm = host_->Find(guid);
        return vm ? std::make_unique<Vm>(host_, vm->guid) : nullptr;
    }

private:
    std::shared_ptr<FakeHost> host_;
};

}  // namespace

FakeHyperV::FakeHyperV(const std::wstring& description)
    : host_(std::make_shared<FakeHost>(ParseFakeHost(description))) {
    kp::SetHyperVOps(this);
}

FakeHyperV::~FakeHyperV() { kp::SetHyperVOps(nullptr); }

DWORD FakeHyperV::OpenHyperVOperation(const std::wstring& host, const std::wstring&, const std::wstring&,
                                      std::unique_ptr<kp::HyperVOperation>* operation) {
    operation->reset();
    if (!host.empty()) return ERROR_ACCESS_DENIED;  // only the local host is asked
    if (host_->openFailure) return host_->openFailure;
    *operation = std::make_unique<Operation>(host_);
    return 0;
}

void FakeHyperV::DeleteSnapshot(const std::wstring& vm, const std::wstring& snapshot) {
    auto& list = host_->Find(vm)->snapshots;
    list.erase(std::remove_if(list.begin(), list.end(),
                              [&](const FakeSnapshot& s) { return kx::EqualsNoCase(s.guid, snapshot); }),
               list.end());
}

}  // namespace kxtest
