#include "platform/registry.h"

#include <cstring>
#include <map>
#include <mutex>
#include <string_view>

#include "log/debug_log.h"
#include "platform/host_util.h"
#include "platform/regf/regf_hive.h"
#include "platform/regf/regf_names.h"
#include "platform/regf/regf_values.h"
#include "platform/win32_positioned_file.h"

namespace kx::hostutil {

namespace detail {

// A hive held by the engine. `hive` is dropped when its loader goes; keys
// that are still around then answer ERROR_KEY_DELETED.
struct EngineHive {
    std::mutex mutex;
    std::unique_ptr<regf::Hive> hive;
    std::wstring name;
    HKEY token = nullptr;
};

}  // namespace detail

namespace {

using detail::EngineHive;

// The level of an engine token: its one sub-key is the hive's name.
constexpr uint32_t kTop = 0xFFFFFFFEu;
constexpr size_t kMaxValueName = 16383;

std::u16string_view U16(const std::wstring& s) {
    return {reinterpret_cast<const char16_t*>(s.data()), s.size()};
}
std::wstring Wide(std::u16string_view s) { return std::wstring(s.begin(), s.end()); }

// Engine tokens: values no system handle can take (far above any handle
// table), looked up in one process-wide table.
class EngineTable {
public:
    static EngineTable& Get() {
        static EngineTable table;
        return table;
    }
    HKEY Add(const std::shared_ptr<EngineHive>& hive) {
        std::lock_guard lock(mutex_);
        HKEY token = reinterpret_cast<HKEY>(static_cast<uintptr_t>(0x4B58000000000000ull + (++next_ << 4)));
        hives_[token] = hive;
        return token;
    }
    void Remove(HKEY token) {
        std::lock_guard lock(mutex_);
        hives_.erase(token);
    }
    std::shared_ptr<EngineHive> Find(HKEY token) {
        std::lock_guard lock(mutex_);
        auto it = hives_.find(token);
        return it == hives_.end() ? nullptr : it->second.lock();
    }

private:
    std::mutex mutex_;
    uint64_t next_ = 0;
    std::map<HKEY, std::weak_ptr<EngineHive>> hives_;
};

// The specific rights an access mask grants, generic rights mapped as the
// registry maps them.
REGSAM Rights(REGSAM access) {
    if (access & (GENERIC_ALL | MAXIMUM_ALLOWED)) return KEY_ALL_ACCESS;
    REGSAM r = access;
    if (access & GENERIC_READ) r |= KEY_READ;
    if (access & GENERIC_WRITE) r |= KEY_WRITE;
    if (access & GENERIC_EXECUTE) r |= KEY_EXECUTE;
    return r;
}

bool Allows(REGSAM access, REGSAM needed) { return (Rights(access) & needed) == needed; }

// The engine hive under its lock, or the code to answer when it is gone.
struct Locked {
    std::unique_lock<std::mutex> lock;
    regf::Hive* hive;
    explicit Locked(EngineHive& h) : lock(h.mutex), hive(h.hive.get()) {}
};

std::wstring DecodedString(const std::vector<BYTE>& data) {
    return Wide(regf::DecodeString(std::vector<uint8_t>(data.begin(), data.end())));
}

}  // namespace

// ---- RegistryKey -------------------------------------------------------------

RegistryKey RegistryKey::Invalid(DWORD error) {
    RegistryKey key;
    key.error_ = error;
    return key;
}

namespace {

// Opens or creates `path` below an engine key. At the token's level the
// first component must be the hive's name.
DWORD EngineOpen(EngineHive& h, uint32_t base, const std::wstring& path, bool create, uint32_t* cell) {
    Locked l(h);
    if (!l.hive) return ERROR_KEY_DELETED;
    std::u16string_view rest = U16(path);
    if (!rest.empty() && rest.front() == u'\\') return ERROR_BAD_PATHNAME;
    if (base == kTop) {
        if (rest.empty()) {
            *cell = kTop;
            return ERROR_SUCCESS;
        }
        size_t cut = rest.find(u'\\');
        std::u16string_view first = rest.substr(0, cut);
        if (!regf::NamesEqual(first, U16(h.name))) return create ? ERROR_ACCESS_DENIED : ERROR_FILE_NOT_FOUND;
        rest = cut == std::u16string_view::npos ? std::u16string_view{} : rest.substr(cut + 1);
        base = l.hive->Root().cell;
    }
    regf::Key key;
    regf::Result rc = create ? l.hive->CreateKey(regf::Key{base}, rest, &key) : l.hive->OpenKey(regf::Key{base}, rest, &key);
    if (rc == regf::kOk) *cell = key.cell;
    return rc;
}

}  // namespace

RegistryKey::RegistryKey(HKEY root, const std::wstring& subkey, REGSAM access) : access_(access) {
    if (auto hive = EngineTable::Get().Find(root)) {
        error_ = EngineOpen(*hive, kTop, subkey, false, &cell_);
        if (error_ == ERROR_SUCCESS) hive_ = std::move(hive);
        return;
    }
    error_ = static_cast<DWORD>(::RegOpenKeyExW(root, subkey.c_str(), 0, access, win32_.put()));
}

RegistryKey::RegistryKey(HKEY key, REGSAM access) : RegistryKey(key, std::wstring(), access) {}

RegistryKey::RegistryKey(const RegistryKey& other) { *this = other; }

RegistryKey& RegistryKey::operator=(const RegistryKey& other) {
    if (this == &other) return *this;
    RegistryKey copy;
    copy.access_ = other.access_;
    copy.error_ = other.error_;
    copy.hive_ = other.hive_;
    copy.cell_ = other.cell_;
    if (other.win32_)
        copy.error_ = static_cast<DWORD>(::RegOpenKeyExW(other.win32_.get(), L"", 0, other.access_, copy.win32_.put()));
    return *this = std::move(copy);
}

RegistryKey::RegistryKey(RegistryKey&& other) noexcept { *this = std::move(other); }

RegistryKey& RegistryKey::operator=(RegistryKey&& other) noexcept {
    if (this == &other) return *this;
    win32_ = std::move(other.win32_);
    hive_ = std::move(other.hive_);
    cell_ = other.cell_;
    access_ = other.access_;
    error_ = other.error_;
    other.cell_ = 0xFFFFFFFFu;
    other.error_ = ERROR_INVALID_HANDLE;
    return *this;
}

RegistryKey::~RegistryKey() = default;

bool RegistryKey::IsValid() const noexcept { return error_ == ERROR_SUCCESS && (win32_ || hive_); }

DWORD RegistryKey::ReadRaw(const std::wstring& name, DWORD* type, std::vector<BYTE>* data) const {
    if (!IsValid()) return error_ ? error_ : ERROR_INVALID_HANDLE;
    if (win32_) {
        DWORD bytes = 0;
        LSTATUS rc = ::RegQueryValueExW(win32_.get(), name.c_str(), nullptr, type, nullptr, &bytes);
        // The value may grow between the two calls.
        for (int attempt = 0; attempt < 8 && rc == ERROR_SUCCESS; ++attempt) {
            data->resize(bytes);
            DWORD have = bytes;
            rc = ::RegQueryValueExW(win32_.get(), name.c_str(), nullptr, type, data->data(), &have);
            if (rc == ERROR_SUCCESS) {
                data->resize(have);
                return ERROR_SUCCESS;
            }
            if (rc == ERROR_MORE_DATA) rc = ERROR_SUCCESS, bytes = have;
        }
        return static_cast<DWORD>(rc);
    }
    if (!Allows(access_, KEY_QUERY_VALUE)) return ERROR_ACCESS_DENIED;
    if (cell_ == kTop) return ERROR_FILE_NOT_FOUND;
    Locked l(*hive_);
    if (!l.hive) return ERROR_KEY_DELETED;
    regf::Value v;
    if (regf::Result rc = l.hive->GetValue(regf::Key{cell_}, U16(name), &v); rc != regf::kOk) return rc;
    *type = v.type;
    data->assign(v.data.begin(), v.data.end());
    return ERROR_SUCCESS;
}

DWORD RegistryKey::GetRawValue(const std::wstring& name, DWORD* type, std::vector<BYTE>* data) const {
    if (!type || !data) return ERROR_INVALID_PARAMETER;
    return ReadRaw(name, type, data);
}

DWORD RegistryKey::GetValue(const std::wstring& name, DWORD fallback, DWORD* out) const {
    if (!out) return ERROR_INVALID_PARAMETER;
    *out = fallback;
    DWORD type = 0;
    std::vector<BYTE> data;
    if (DWORD rc = ReadRaw(name, &type, &data)) return rc;
    if (type != REG_DWORD) return ERROR_UNSUPPORTED_TYPE;
    if (data.size() != sizeof(DWORD)) return ERROR_DATATYPE_MISMATCH;
    std::memcpy(out, data.data(), sizeof(DWORD));
    return ERROR_SUCCESS;
}

DWORD RegistryKey::GetValue(const std::wstring& name, const std::wstring& fallback, std::wstring* out) const {
    if (!out) return ERROR_INVALID_PARAMETER;
    *out = fallback;
    DWORD type = 0;
    std::vector<BYTE> data;
    if (DWORD rc = ReadRaw(name, &type, &data)) return rc;
    if (type != REG_SZ && type != REG_EXPAND_SZ) return ERROR_UNSUPPORTED_TYPE;
    *out = DecodedString(data);
    return ERROR_SUCCESS;
}

DWORD RegistryKey::GetValue(const std::wstring& name, std::vector<std::wstring>* out) const {
    if (!out) return ERROR_INVALID_PARAMETER;
    out->clear();
    DWORD type = 0;
    std::vector<BYTE> data;
    if (DWORD rc = ReadRaw(name, &type, &data)) return rc;
    if (type != REG_MULTI_SZ) return ERROR_UNSUPPORTED_TYPE;
    for (const auto& item : regf::DecodeMultiString(std::vector<uint8_t>(data.begin(), data.end())))
        out->push_back(Wide(item));
    return ERROR_SUCCESS;
}

DWORD RegistryKey::SetRawValue(const std::wstring& name, DWORD type, const void* data, DWORD bytes) {
    if (!IsValid()) return error_ ? error_ : ERROR_INVALID_HANDLE;
    if (!data && bytes) return ERROR_INVALID_PARAMETER;
    if (win32_)
        return static_cast<DWORD>(
            ::RegSetValueExW(win32_.get(), name.c_str(), 0, type, static_cast<const BYTE*>(data), bytes));
    if (!Allows(access_, KEY_SET_VALUE) || cell_ == kTop) return ERROR_ACCESS_DENIED;
    if (name.size() > kMaxValueName) return ERROR_INVALID_PARAMETER;
    Locked l(*hive_);
    if (!l.hive) return ERROR_KEY_DELETED;
    return l.hive->SetValue(regf::Key{cell_}, U16(name), type, data, bytes);
}

DWORD RegistryKey::SetValue(const std::wstring& name, DWORD value) {
    return SetRawValue(name, REG_DWORD, &value, sizeof value);
}

DWORD RegistryKey::SetValue(const std::wstring& name, const std::wstring& value, bool expandable) {
    std::vector<uint8_t> data = regf::EncodeString(U16(value));
    return SetRawValue(name, expandable ? REG_EXPAND_SZ : REG_SZ, data.data(), static_cast<DWORD>(data.size()));
}

DWORD RegistryKey::SetValue(const std::wstring& name, const std::vector<std::wstring>& values, bool dropEmpty) {
    std::vector<std::u16string> items;
    for (const auto& v : values) {
        if (v.empty()) {
            if (!dropEmpty) return ERROR_INVALID_PARAMETER;
            continue;
        }
        items.emplace_back(U16(v));
    }
    std::vector<uint8_t> data = regf::EncodeMultiString(items);
    return SetRawValue(name, REG_MULTI_SZ, data.data(), static_cast<DWORD>(data.size()));
}

DWORD RegistryKey::SetValue(const std::wstring& name, const BYTE* data, DWORD bytes) {
    return SetRawValue(name, REG_BINARY, data, bytes);
}

DWORD RegistryKey::DeleteValue(const std::wstring& name) {
    if (!IsValid()) return error_ ? error_ : ERROR_INVALID_HANDLE;
    if (win32_) return static_cast<DWORD>(::RegDeleteValueW(win32_.get(), name.c_str()));
    if (!Allows(access_, KEY_SET_VALUE)) return ERROR_ACCESS_DENIED;
    if (cell_ == kTop) return ERROR_FILE_NOT_FOUND;
    Locked l(*hive_);
    if (!l.hive) return ERROR_KEY_DELETED;
    return l.hive->DeleteValue(regf::Key{cell_}, U16(name));
}

RegistryKey RegistryKey::CreateSubItem(const std::wstring& name, REGSAM access) const {
    if (!IsValid()) return Invalid(error_ ? error_ : ERROR_INVALID_HANDLE);
    RegistryKey key;
    key.access_ = access;
    if (win32_) {
        key.error_ = static_cast<DWORD>(::RegCreateKeyExW(win32_.get(), name.c_str(), 0, nullptr, 0, access, nullptr,
                                                          key.win32_.put(), nullptr));
        return key;
    }
    if (!Allows(access_, KEY_CREATE_SUB_KEY)) return Invalid(ERROR_ACCESS_DENIED);
    key.error_ = EngineOpen(*hive_, cell_, name, true, &key.cell_);
    if (key.error_ == ERROR_SUCCESS) key.hive_ = hive_;
    return key;
}

RegistryKey RegistryKey::GetSubItem(const std::wstring& name, REGSAM access) const {
    if (!IsValid()) return Invalid(error_ ? error_ : ERROR_INVALID_HANDLE);
    RegistryKey key;
    key.access_ = access;
    if (win32_) {
        key.error_ = static_cast<DWORD>(::RegOpenKeyExW(win32_.get(), name.c_str(), 0, access, key.win32_.put()));
        return key;
    }
    key.error_ = EngineOpen(*hive_, cell_, name, false, &key.cell_);
    if (key.error_ == ERROR_SUCCESS) key.hive_ = hive_;
    return key;
}

bool RegistryKey::IsExist(const std::wstring& name, REGSAM access) const { return GetSubItem(name, access).IsValid(); }

DWORD RegistryKey::DelSubKey(const std::wstring& name) {
    if (!IsValid()) return error_ ? error_ : ERROR_INVALID_HANDLE;
    // An empty name would mean this key's own contents.
    if (name.empty()) return ERROR_INVALID_PARAMETER;
    if (win32_) return static_cast<DWORD>(::RegDeleteTreeW(win32_.get(), name.c_str()));
    if (cell_ == kTop) return ERROR_ACCESS_DENIED;
    if (name.front() == L'\\') return ERROR_BAD_PATHNAME;
    Locked l(*hive_);
    if (!l.hive) return ERROR_KEY_DELETED;
    return l.hive->DeleteKeyTree(regf::Key{cell_}, U16(name));
}

DWORD RegistryKey::EnumRawValue(DWORD index, std::wstring* name, DWORD* type, std::vector<BYTE>* data) const {
    if (!name || !type || !data) return ERROR_INVALID_PARAMETER;
    if (!IsValid()) return error_ ? error_ : ERROR_INVALID_HANDLE;
    if (win32_) {
        std::wstring n(kMaxValueName + 1, L'\0');
        DWORD size = 0;
        LSTATUS rc = ERROR_MORE_DATA;
        for (int attempt = 0; attempt < 8 && rc == ERROR_MORE_DATA; ++attempt) {
            DWORD chars = static_cast<DWORD>(n.size());
            data->resize(size);
            rc = ::RegEnumValueW(win32_.get(), index, n.data(), &chars, nullptr, type, size ? data->data() : nullptr,
                                 &size);
            if (rc == ERROR_SUCCESS && data->size() < size) rc = ERROR_MORE_DATA;  // sized only
            if (rc == ERROR_SUCCESS) n.resize(chars);
        }
        if (rc != ERROR_SUCCESS) return static_cast<DWORD>(rc);
        data->resize(size);
        *name = std::move(n);
        return ERROR_SUCCESS;
    }
    if (!Allows(access_, KEY_QUERY_VALUE)) return ERROR_ACCESS_DENIED;
    if (cell_ == kTop) return ERROR_NO_MORE_ITEMS;
    Locked l(*hive_);
    if (!l.hive) return ERROR_KEY_DELETED;
    std::u16string n;
    regf::Value v;
    if (regf::Result rc = l.hive->EnumValue(regf::Key{cell_}, index, &n, &v); rc != regf::kOk) return rc;
    *name = Wide(n);
    *type = v.type;
    data->assign(v.data.begin(), v.data.end());
    return ERROR_SUCCESS;
}

DWORD RegistryKey::EnumNextValue(DWORD index, std::wstring* name, std::wstring* data, DWORD* type) const {
    if (!data) return ERROR_INVALID_PARAMETER;
    DWORD kind = REG_NONE;
    std::vector<BYTE> bytes;
    if (DWORD rc = EnumRawValue(index, name, &kind, &bytes)) return rc;
    *data = (kind == REG_SZ || kind == REG_EXPAND_SZ) ? DecodedString(bytes) : std::wstring();
    if (type) *type = kind;
    return ERROR_SUCCESS;
}

DWORD RegistryKey::EnumSubKey(DWORD index, std::wstring* name) const {
    if (!name) return ERROR_INVALID_PARAMETER;
    if (!IsValid()) return error_ ? error_ : ERROR_INVALID_HANDLE;
    if (win32_) {
        std::wstring n(256, L'\0');
        DWORD chars = static_cast<DWORD>(n.size());
        LSTATUS rc = ::RegEnumKeyExW(win32_.get(), index, n.data(), &chars, nullptr, nullptr, nullptr, nullptr);
        if (rc != ERROR_SUCCESS) return static_cast<DWORD>(rc);
        n.resize(chars);
        *name = std::move(n);
        return ERROR_SUCCESS;
    }
    if (!Allows(access_, KEY_ENUMERATE_SUB_KEYS)) return ERROR_ACCESS_DENIED;
    Locked l(*hive_);
    if (!l.hive) return ERROR_KEY_DELETED;
    if (cell_ == kTop) {
        if (index > 0) return ERROR_NO_MORE_ITEMS;
        *name = hive_->name;
        return ERROR_SUCCESS;
    }
    std::u16string n;
    if (regf::Result rc = l.hive->EnumSubkey(regf::Key{cell_}, index, &n); rc != regf::kOk) return rc;
    *name = Wide(n);
    return ERROR_SUCCESS;
}

// ---- HiveLoader --------------------------------------------------------------

HiveLoader::HiveLoader(const std::wstring& name, const std::wstring& hiveFile, HKEY root)
    : HiveLoader(name, hiveFile, root, Options{}) {}

HiveLoader::HiveLoader(const std::wstring& name, const std::wstring& hiveFile, HKEY root, const Options& options)
    : name_(name), file_(hiveFile), root_(root), key_(root) {
    if (!options.readOnly) {
        // The caller may have enabled these already; the system load needs them.
        TokenPrivilege privileges;
        (void)privileges.EnablePrivilege(SE_BACKUP_NAME);
        (void)privileges.EnablePrivilege(SE_RESTORE_NAME);
        systemResult_ = static_cast<DWORD>(::RegLoadKeyW(root, name.c_str(), hiveFile.c_str()));
        if (systemResult_ == ERROR_SUCCESS) {
            backend_ = Backend::kSystem;
            Log(2, L"Hive %s loaded by the system as %s", hiveFile.c_str(), name.c_str());
            return;
        }
    }
    std::unique_ptr<vhd::PositionedFile> file;
    engineResult_ = vdisk::Win32FileSystem::OpenFile(
        hiveFile, options.readOnly ? GENERIC_READ : GENERIC_READ | GENERIC_WRITE,
        options.readOnly ? FILE_SHARE_READ | FILE_SHARE_WRITE : FILE_SHARE_READ, OPEN_EXISTING, &file);
    auto hive = std::make_shared<EngineHive>();
    if (engineResult_ == ERROR_SUCCESS)
        engineResult_ = regf::Hive::Open(std::move(file), regf::OpenOptions{!options.readOnly, false}, &hive->hive);
    if (engineResult_ != ERROR_SUCCESS) {
        LogErr(0, engineResult_, L"Cannot load hive %s: the system answered %u, the offline hive engine %u",
               hiveFile.c_str(), systemResult_, engineResult_);
        return;
    }
    hive->name = name;
    hive->token = EngineTable::Get().Add(hive);
    key_ = hive->token;
    hive_ = std::move(hive);
    backend_ = Backend::kEngine;
    if (options.readOnly)
        Log(2, L"Hive %s opened read-only with the offline hive engine as %s", hiveFile.c_str(), name.c_str());
    else if (hive_->hive->ReadOnly())
        Log(1, L"The system refused to load hive %s (rc = %u); the offline hive engine opened it as %s, read-only "
               L"because its last write did not complete",
            hiveFile.c_str(), systemResult_, name.c_str());
    else
        Log(1, L"The system refused to load hive %s (rc = %u); the offline hive engine holds it as %s",
            hiveFile.c_str(), systemResult_, name.c_str());
}

bool HiveLoader::ReadOnly() const noexcept {
    if (!hive_) return false;
    std::lock_guard lock(hive_->mutex);
    return hive_->hive && hive_->hive->ReadOnly();
}

DWORD HiveLoader::Flush() {
    if (!hive_) return ERROR_SUCCESS;
    std::lock_guard lock(hive_->mutex);
    if (!hive_->hive || !hive_->hive->Changed()) return ERROR_SUCCESS;
    const regf::Result rc = hive_->hive->Commit();
    if (rc != regf::kOk)
        LogErr(0, rc, L"Fail to write the changes of hive %s back to its file", file_.c_str());
    else
        Log(2, L"Wrote %u changed pages of hive %s", hive_->hive->Stats().pagesWritten, file_.c_str());
    return rc;
}

HiveLoader::~HiveLoader() {
    if (backend_ == Backend::kSystem) {
        // The privileges that allowed the load may have been given back since.
        TokenPrivilege privileges;
        (void)privileges.EnablePrivilege(SE_BACKUP_NAME);
        (void)privileges.EnablePrivilege(SE_RESTORE_NAME);
        if (LSTATUS rc = ::RegUnLoadKeyW(root_, name_.c_str()); rc != ERROR_SUCCESS)
            LogErr(0, static_cast<DWORD>(rc), L"Fail to unload hive %s loaded as %s", file_.c_str(), name_.c_str());
        return;
    }
    if (!hive_) return;
    (void)Flush();
    EngineTable::Get().Remove(hive_->token);
    std::lock_guard lock(hive_->mutex);
    hive_->hive.reset();
}

}  // namespace kx::hostutil
