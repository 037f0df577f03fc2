// An in-process shadow-copy service for tests: backup-components objects
// that record every call in order and check it against the protocol (a call
// out of turn is a violation and fails), failures injected per call,
// asynchronous steps that stay pending for a number of polls and then
// finish, fail, are cancelled or never end, and counted references and
// snapshot properties.
#pragma once

#include <windows.h>
#include <vss.h>
#include <vsbackup.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "platform/process_runner.h"
#include "platform/vss.h"

namespace fakevss {

// Fake objects (components, async steps) alive in this process.
long LiveObjects();

enum class End { Finished, Failed, Cancelled, Never };

struct AsyncScript {
    int pending = 0;  // polls answered "pending" before the end
    End end = End::Finished;
    HRESULT failure = E_FAIL;  // for End::Failed
};

struct Script {
    std::map<std::wstring, HRESULT> fail;      // call name -> its failure
    std::map<std::wstring, AsyncScript> async; // GatherWriterMetadata, PrepareForBackup, DoSnapshotSet, BackupComplete
    std::set<std::wstring> unsupported;        // volume names IsVolumeSupported refuses
    bool noDevice = false;                     // properties without a device name
};

class FakeVss final : public kx::platform::VssApi {
public:
    FakeVss() { kx::platform::SetVssApi(this); }
    ~FakeVss() override { kx::platform::SetVssApi(nullptr); }

    // Path -> volume name for VolumeNameOf (case-insensitive); others 2.
    void AddVolume(const std::wstring& path, const std::wstring& volumeName) { volumes_[path] = volumeName; }

    HRESULT CreateBackupComponents(IVssBackupComponents** components) override;
    void FreeSnapshotProperties(VSS_SNAPSHOT_PROP* prop) override;
    DWORD VolumeNameOf(const std::wstring& path, std::wstring& volumeName) override;

    Script script;
    std::vector<std::wstring> calls;       // "CreateVssBackupComponents", "InitializeForBackup", ...
    std::vector<std::wstring> violations;  // calls out of turn, bad arguments, double frees
    std::vector<std::wstring> added;       // volume names added to the newest set, in order
    int propsLive = 0;                     // properties handed out and not freed

private:
    std::map<std::wstring, std::wstring> volumes_;
    std::set<const void*> strings_;  // property strings handed out
    friend class Components;
};

// Pauses that only add up.
class CountingPause final : public kx::platform::Pause {
public:
    CountingPause() { kx::platform::SetPause(this); }
    ~CountingPause() override { kx::platform::SetPause(nullptr); }
    void For(DWORD ms) override { total += ms; }
    unsigned long long total = 0;
};

}  // namespace fakevss
