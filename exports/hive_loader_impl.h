// The library's side of the exported RegistryHiveLoader, for the exports
// that take a loaded hive from their caller.
#pragma once

#include <memory>

#include "KestrixHA/guest.h"
#include "platform/registry.h"

struct RegistryHiveLoader::Impl {
    std::unique_ptr<kx::hostutil::HiveLoader> loader;
};

namespace kx::exports {

// The loader inside `hive`; null for a null hive (the fix-up then loads its
// own) or one whose construction ran out of memory.
inline hostutil::HiveLoader* Inner(const RegistryHiveLoader* hive) noexcept {
    return hive && hive->GetImpl() ? hive->GetImpl()->loader.get() : nullptr;
}

}  // namespace kx::exports
