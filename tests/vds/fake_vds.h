// An in-process disk service for the tests: providers, packs, disks and
// volumes read from a fixture description, served through the library's
// loader seam. Every reference handed out is counted (AddRef/Release of
// every object, enumerators included) so that a test can check that all
// were given back. Failures are injected from the description.
//
// Description lines (blank and '#' lines ignored):
//   loader starting=N fail=0xHR notready=N
//   provider <name> [dynamic]
//   pack <name> provider=<name> [foreign]
//   disk <name> pack=<name>|unallocated number=N size=BYTES [style=raw|mbr|gpt]
//        [signature=0xS] [guid={...}] [status=online|offline] [type=N] [media=N]
//        [propsfail] [offline-tries=N] [already-offline] [extentsfail]
//   extent <disk> offset=BYTES volume=<volume>|free
//   volume <name> pack=<name> id={...} [letter=X:] [status=online|offline] [flags=N] [type=N]
#pragma once

#include <windows.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/process_runner.h"
#include "platform/vds/vds_system.h"

namespace kxtest {

struct FakeDisk;
struct FakePack;
struct FakeProvider;
struct FakeVolume;
class FakeServiceObject;

// References held by the code under test, over every fake object.
long OutstandingReferences();

class FakeVds final : public kx::vds::VdsSystem {
public:
    explicit FakeVds(const std::string& description);
    ~FakeVds() override;
    // Puts this service (and `pause`, when given) in place for its lifetime.
    void Install(kx::platform::Pause* pause = nullptr);

    HRESULT LoadService(kx::vds::IVdsService** service) override;
    DWORD WriteEmptyMbr(const std::wstring& devicePath, DWORD signature, LayoutStep* failed) override;

    // What the code under test did.
    int loads = 0;
    int reenumerations = 0;
    int sanPolicy = -1;
    ULONG serviceFlags = 0;
    std::vector<std::wstring> layoutsWritten;  // device paths
    std::vector<std::wstring> imported;        // disk names moved out of a foreign pack
    std::vector<std::wstring> madeWritable;
    int offlineCalls = 0;

    // Injected behaviour of the loader and the service.
    int startingRounds = 0;
    HRESULT loadFailure = S_OK;
    int notReadyPolls = 0;

    FakeDisk* Disk(const std::string& name);

    // Internal, for the objects.
    std::vector<std::unique_ptr<FakeProvider>> providers_;
    std::vector<std::unique_ptr<FakePack>> packs_;
    std::vector<std::unique_ptr<FakeDisk>> disks_;
    std::vector<std::unique_ptr<FakeVolume>> volumes_;
    std::unique_ptr<FakeServiceObject> service_;

private:
    bool installed_ = false;
};

// The pauses asked for, instead of waiting.
class RecordingPause final : public kx::platform::Pause {
public:
    void For(DWORD milliseconds) override { pauses.push_back(milliseconds); }
    std::vector<DWORD> pauses;
};

// The fixture file `name` of tests/vds/fixtures.
std::string Fixture(const std::string& name);

}  // namespace kxtest
