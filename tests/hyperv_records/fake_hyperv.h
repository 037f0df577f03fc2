// A Hyper-V host for tests: VMs, snapshots and disk lists read from a
// readable description, put behind the Hyper-V operations port.
//
//   vm {GUID} Display name           a VM
//   data <folder>                    its data folder
//   disk <path>                      a disk of its running state
//   snapshot {GUID}                  a snapshot (oldest first)
//   sdisk <path>                     a disk of the last snapshot
//   fail <call> <code>               a call of the last VM fails: disks,
//                                    data, snapshots, snapshot, sdisks;
//                                    "fail open <code>" fails the host
#pragma once

#include <windows.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "platform/hyperv_ops.h"

namespace kxtest {

struct FakeSnapshot {
    std::wstring guid;
    std::vector<std::wstring> disks;
};

struct FakeVm {
    std::wstring guid, name, data;
    std::vector<std::wstring> disks;
    std::vector<FakeSnapshot> snapshots;
    std::map<std::wstring, DWORD> failures;  // call -> code
};

struct FakeHost {
    DWORD openFailure = 0;
    std::vector<FakeVm> vms;
    FakeVm* Find(const std::wstring& guid);
};

// Parses a description; throws std::runtime_error naming the bad line.
FakeHost ParseFakeHost(const std::wstring& text);

class FakeHyperV final : public kx::platform::HyperVOps {
public:
    explicit FakeHyperV(const std::wstring& description);
    ~FakeHyperV() override;  // puts the default back
    DWORD OpenHyperVOperation(const std::wstring& host, const std::wstring& user, const std::wstring& password,
                              std::unique_ptr<kx::platform::HyperVOperation>* operation) override;
    // Removes a snapshot, as Hyper-V does when it deletes one.
    void DeleteSnapshot(const std::wstring& vm, const std::wstring& snapshot);

private:
    std::shared_ptr<FakeHost> host_;
};

}  // namespace kxtest
