// Owners of what the library hands out: bitmap readers and shadow-copy
// managers end with Release(),
// session locks go back through HA_UnlockZekSessions (the manual-conversion
// marker is no lock and goes nowhere), intact-session lists are closed.
#pragma once

#include <memory>

#include "KestrixHA.h"
#include "common/unique_resource.h"

namespace kxha {

using BitmapReader = std::unique_ptr<IDiskBmpReader, kx::release_deleter<IDiskBmpReader>>;
using VssManager = std::unique_ptr<IVssMgr, kx::release_deleter<IVssMgr>>;

struct SessionUnlock {
    void operator()(SessionLockHandle* h) const noexcept {
        if (h != MANUAL_VCM_LOCK_HANDLE) HA_UnlockZekSessions(h);
    }
};
using SessionLock = std::unique_ptr<SessionLockHandle, SessionUnlock>;

using IntactList = std::unique_ptr<IntactSessionListHandle, decltype(&MVCM_CloseIntactSessionListHandle)>;

// The out-parameter of a call that hands out an object: Put(owner) frees
// what the owner holds, and the owner takes what the call left once the call
// has returned.
template <class Owner>
class OutParam {
public:
    explicit OutParam(Owner& owner) : owner_(owner) { owner_.reset(); }
    ~OutParam() { owner_.reset(raw_); }
    OutParam(const OutParam&) = delete;
    OutParam& operator=(const OutParam&) = delete;
    operator typename Owner::pointer*() noexcept { return &raw_; }

private:
    Owner& owner_;
    typename Owner::pointer raw_ = nullptr;
};

template <class Owner>
OutParam<Owner> Put(Owner& owner) {
    return OutParam<Owner>(owner);
}

}  // namespace kxha
