#include "log/shared_config.h"

#include <cstdio>
#include <cstring>

#include "log/log_trace.h"

namespace kx::log {

namespace {
constexpr const wchar_t* kSectionFormat = L"%sLOGCFG_SM_NAME_C8AAE32A-9619-4685-B766-F003823BEEE3_%d";
constexpr const wchar_t* kMutexFormat = L"Global\\LOGCFG_MUTEX_NAME_C8AAE32A-9619-4685-B766-F003823BEEE3_%d";

uint32_t& Word(uint8_t* base, size_t offset) noexcept { return *reinterpret_cast<uint32_t*>(base + offset); }
int32_t& LastUsed(uint8_t* base) noexcept { return *reinterpret_cast<int32_t*>(base + kSharedLastUsedOffset); }
SharedEntry* Entry(uint8_t* base, size_t i) noexcept {
    return reinterpret_cast<SharedEntry*>(base + kSharedEntriesOffset) + i;
}

bool SameName(const wchar_t* a, const wchar_t* b) noexcept {
    return ::CompareStringOrdinal(a, -1, b, -1, TRUE) == CSTR_EQUAL;
}
}  // namespace

OpenToAll::OpenToAll() noexcept {
    ::InitializeSecurityDescriptor(&sd_, SECURITY_DESCRIPTOR_REVISION);
    ::SetSecurityDescriptorDacl(&sd_, TRUE, nullptr, FALSE);
    sa_.nLength = sizeof sa_;
    sa_.lpSecurityDescriptor = &sd_;
    sa_.bInheritHandle = FALSE;
}

void SharedConfig::Open(int index) noexcept {
    OpenToAll everyone;
    wchar_t name[128];
    _snwprintf(name, 127, kMutexFormat, index);
    name[127] = 0;
    mutex_.reset(::CreateMutexW(everyone.get(), FALSE, name));
    if (!mutex_) mutex_.reset(::OpenMutexW(SYNCHRONIZE | MUTEX_MODIFY_STATE, FALSE, name));
    if (!mutex_) {
        Trace(L"Failed to create mutex with name [%s]. ERR=%d\r\n", name, ::GetLastError());
        return;
    }
    // Creation and initialisation happen under the mutex, so that nobody maps
    // a block that is still being set up.
    mutex_release lock = Lock();
    if (!lock) return;

    _snwprintf(name, 127, kSectionFormat, L"Global\\", index);
    section_.reset(::CreateFileMappingW(INVALID_HANDLE_VALUE, everyone.get(), PAGE_READWRITE, 0,
                                        static_cast<DWORD>(kSharedSize), name));
    DWORD err = ::GetLastError();
    if (!section_ && err == ERROR_ACCESS_DENIED) {
        _snwprintf(name, 127, kSectionFormat, L"Local\\", index);
        section_.reset(::CreateFileMappingW(INVALID_HANDLE_VALUE, everyone.get(), PAGE_READWRITE, 0,
                                            static_cast<DWORD>(kSharedSize), name));
        err = ::GetLastError();
    }
    if (!section_) {
        Trace(L"Failed to create shared memory [%s]. ERR=%d\r\n", name, err);
        return;
    }
    const bool created = err != ERROR_ALREADY_EXISTS;
    view_.reset(::MapViewOfFile(section_.get(), FILE_MAP_ALL_ACCESS, 0, 0, kSharedSize));
    if (!view_) {
        Trace(L"Failed to map shared memory [%s]. ERR=%d\r\n", name, ::GetLastError());
        return;
    }
    uint8_t* base = static_cast<uint8_t*>(view_.get());
    if (created) {
        std::memset(base, 0, kSharedSize);
        Word(base, 0) = kSharedGuard;
        Word(base, kSharedSize - 4) = kSharedGuard;
        LastUsed(base) = -1;
        for (size_t i = 0; i < kSharedEntryCount; ++i) Entry(base, i)->free = 1;
    } else if (Word(base, 0) != kSharedGuard || Word(base, kSharedSize - 4) != kSharedGuard) {
        Trace(L"Shared memory [%s] is damaged.\r\n", name);
        return;
    }
    base_ = base;
}

mutex_release SharedConfig::Lock() const noexcept {
    mutex_release lock = acquire_mutex(mutex_.get(), kSharedWaitMs);
    if (!lock && mutex_)
        Trace(L"Failed to wait for the log configuration mutex. ERR=%d\r\n", ::GetLastError());
    return lock;
}

SharedEntry* SharedConfig::Find(uint32_t kind, const wchar_t* name, bool* added) noexcept {
    *added = false;
    if (!base_ || !name || !*name) return nullptr;
    int32_t last = LastUsed(base_);
    if (last >= static_cast<int32_t>(kSharedEntryCount)) last = static_cast<int32_t>(kSharedEntryCount) - 1;
    SharedEntry* slot = nullptr;
    for (int32_t i = 0; i <= last; ++i) {
        SharedEntry* e = Entry(base_, static_cast<size_t>(i));
        if (e->free) {
            if (!slot) slot = e;
            continue;
        }
        if (e->kind == kind && SameName(e->name, name)) return e;
    }
    size_t at = 0;
    if (slot) {
        at = static_cast<size_t>(slot - Entry(base_, 0));
    } else {
        at = static_cast<size_t>(last + 1);
        if (at >= kSharedEntryCount) return nullptr;
        slot = Entry(base_, at);
    }
    std::memset(slot, 0, sizeof *slot);
    wcsncpy(slot->name, name, 511);
    slot->name[511] = 0;
    slot->kind = kind;
    slot->level = kLevelUnset;
    if (static_cast<int32_t>(at) > LastUsed(base_)) LastUsed(base_) = static_cast<int32_t>(at);
    *added = true;
    return slot;
}

}  // namespace kx::log
