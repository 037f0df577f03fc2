// Exported guest hive access: the loader class and the two hive loads.
#include <new>

#include "KestrixHA/guest.h"
#include "exports/hive_loader_impl.h"
#include "guestfix/hive_access.h"

// Out of memory leaves a loader that holds nothing: its name is empty and
// its key null, so every key below it fails to open.
RegistryHiveLoader::RegistryHiveLoader(const std::wstring& hiveName, const std::wstring& hiveFile, HKEY root)
    : impl_(new (std::nothrow) Impl) {
    if (!impl_) return;
    try {
        impl_->loader = std::make_unique<kx::hostutil::HiveLoader>(hiveName, hiveFile, root);
    } catch (...) {
    }
}

RegistryHiveLoader::RegistryHiveLoader(Impl* adopted) noexcept : impl_(adopted) {}

RegistryHiveLoader::~RegistryHiveLoader() { delete impl_; }

std::wstring RegistryHiveLoader::GetHiveName() const {
    try {
        if (impl_ && impl_->loader) return impl_->loader->GetHiveName();
    } catch (...) {
    }
    return {};
}

HKEY RegistryHiveLoader::GetHiveKey() const { return impl_ && impl_->loader ? impl_->loader->GetHiveKey() : nullptr; }

namespace {

// Hands a loaded hive to the caller as the exported class; null when there
// is none. The hive is unloaded here if the wrapper cannot be made.
RegistryHiveLoader* Wrap(std::unique_ptr<kx::hostutil::HiveLoader> loader) noexcept {
    if (!loader) return nullptr;
    auto* impl = new (std::nothrow) RegistryHiveLoader::Impl{std::move(loader)};
    auto* outer = impl ? new (std::nothrow) RegistryHiveLoader(impl) : nullptr;
    if (!outer) delete impl;
    return outer;
}

template <DWORD (*Load)(const std::wstring&, std::unique_ptr<kx::hostutil::HiveLoader>*)>
DWORD LoadFor(const std::wstring& systemDir, RegistryHiveLoader** out) {
    std::unique_ptr<kx::hostutil::HiveLoader> loader;
    const DWORD rc = Load(systemDir, out ? &loader : nullptr);
    if (out) *out = Wrap(std::move(loader));
    return rc;
}

}  // namespace

KXHA_API DWORD GetSystemHiveKeyEx(const std::wstring& systemDir, RegistryHiveLoader** loader) {
    return LoadFor<kx::guestfix::GetSystemHiveKeyEx>(systemDir, loader);
}

KXHA_API DWORD GetSoftwareHiveKeyEx(const std::wstring& systemDir, RegistryHiveLoader** loader) {
    return LoadFor<kx::guestfix::GetSoftwareHiveKeyEx>(systemDir, loader);
}
