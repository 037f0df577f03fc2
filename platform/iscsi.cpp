#include "platform/iscsi.h"

#include <winioctl.h>

#include <cwchar>

#include "common/proc_address.h"
#include "common/result_codes.h"
#include "common/unique_resource.h"

namespace kx::platform {

namespace {

// The service's structures, as documented for iscsidsc.dll.
constexpr size_t kPortalNameChars = 256;
constexpr size_t kPortalAddressChars = 256;
constexpr size_t kHbaNameChars = 256;
constexpr ULONG kAnyInitiatorPort = 0xFFFFFFFFu;

struct TargetPortalW {
    WCHAR symbolicName[kPortalNameChars];
    WCHAR address[kPortalAddressChars];
    USHORT socket;
};

struct TargetPortalInfoW {
    WCHAR initiatorName[kHbaNameChars];
    ULONG initiatorPortNumber;
    WCHAR symbolicName[kPortalNameChars];
    WCHAR address[kPortalAddressChars];
    USHORT socket;
};

struct UniqueSessionId {
    ULONGLONG adapterUnique;
    ULONGLONG adapterSpecific;
};

struct SessionInfoW {
    UniqueSessionId sessionId;
    PWSTR initiatorName;
    PWSTR targetNodeName;
    PWSTR targetName;
    UCHAR isid[6];
    UCHAR tsid[2];
    ULONG connectionCount;
    void* connections;
};

struct ScsiAddress {
    ULONG length;
    UCHAR portNumber;
    UCHAR pathId;
    UCHAR targetId;
    UCHAR lun;
};

struct DeviceOnSessionW {
    WCHAR initiatorName[kHbaNameChars];
    WCHAR targetName[kIscsiNameMax + 1];
    ScsiAddress scsiAddress;
    GUID deviceInterfaceType;
    WCHAR deviceInterfaceName[MAX_PATH];
    WCHAR legacyName[MAX_PATH];
    STORAGE_DEVICE_NUMBER storageDeviceNumber;
    DWORD deviceInstance;
};

using NodeNameFn = DWORD(WINAPI*)(PWCHAR);
using ReportSendTargetPortalsFn = DWORD(WINAPI*)(PULONG, TargetPortalInfoW*);
using AddSendTargetPortalFn = DWORD(WINAPI*)(PWCHAR, ULONG, void*, ULONGLONG, TargetPortalW*);
using PortalCallFn = DWORD(WINAPI*)(PWCHAR, ULONG, TargetPortalW*);
using ReportTargetsFn = DWORD(WINAPI*)(BOOLEAN, PULONG, PWCHAR);
using ReportTargetPortalsFn = DWORD(WINAPI*)(PWCHAR, PWCHAR, PUSHORT, PULONG, TargetPortalW*);
using LoginFn = DWORD(WINAPI*)(PWCHAR, BOOLEAN, PWCHAR, ULONG, TargetPortalW*, ULONGLONG, void*, void*, ULONG, PCHAR,
                               BOOLEAN, UniqueSessionId*, UniqueSessionId*);
using SessionListFn = DWORD(WINAPI*)(ULONG*, ULONG*, SessionInfoW*);
using DevicesFn = DWORD(WINAPI*)(UniqueSessionId*, ULONG*, DeviceOnSessionW*);
using LogoutFn = DWORD(WINAPI*)(UniqueSessionId*);

// iscsidsc.dll from the system folder, loaded once for the process.
class Library {
public:
    static Library& Get() {
        static Library library;
        return library;
    }
    template <typename Fn>
    DWORD Find(const char* name, Fn* fn) const {
        *fn = nullptr;
        if (!module_) return loadError_;
        *fn = ProcAddress<Fn>(module_.get(), name);
        return *fn ? ERROR_SUCCESS : ERROR_PROC_NOT_FOUND;
    }

private:
    Library() {
        wchar_t folder[MAX_PATH] = {};
        const UINT n = ::GetSystemDirectoryW(folder, MAX_PATH);
        if (n == 0 || n >= MAX_PATH) {
            loadError_ = LastErrorOr(ERROR_MOD_NOT_FOUND);
            return;
        }
        module_.reset(::LoadLibraryW((std::wstring(folder) + L"\\iscsidsc.dll").c_str()));
        if (!module_) loadError_ = ERROR_MOD_NOT_FOUND;
    }
    unique_hmodule module_;
    DWORD loadError_ = ERROR_SUCCESS;
};

template <size_t N>
void CopyTo(WCHAR (&out)[N], const std::wstring& text) {
    const size_t n = text.size() < N - 1 ? text.size() : N - 1;
    wmemcpy(out, text.c_str(), n);
    out[n] = L'\0';
}

TargetPortalW ToPortal(const IscsiPortal& portal) {
    TargetPortalW p{};
    CopyTo(p.address, portal.address);
    p.socket = portal.port;
    return p;
}

template <size_t N>
std::wstring FromChars(const WCHAR (&text)[N]) {
    return std::wstring(text, wcsnlen(text, N));
}

// Multi-string (each name ends in a terminator, the list in one more).
std::vector<std::wstring> SplitMultiString(const std::vector<WCHAR>& chars) {
    std::vector<std::wstring> out;
    size_t at = 0;
    while (at < chars.size() && chars[at]) {
        size_t end = at;
        while (end < chars.size() && chars[end]) ++end;
        out.emplace_back(chars.data() + at, end - at);
        at = end + 1;
    }
    return out;
}

// Calls `call(&count, data)` with a buffer of `buffer->size()` elements,
// growing it while the service answers ERROR_INSUFFICIENT_BUFFER with the
// count it needs; on success the buffer holds what the service filled in.
template <class T, class Call>
DWORD GrowingCall(std::vector<T>* buffer, Call call) {
    for (;;) {
        ULONG count = static_cast<ULONG>(buffer->size());
        const DWORD rc = call(&count, buffer->data());
        if (rc == ERROR_INSUFFICIENT_BUFFER && count > buffer->size()) {
            buffer->resize(count);
            continue;
        }
        if (rc == ERROR_SUCCESS && count < buffer->size()) buffer->resize(count);
        return rc;
    }
}

template <class Info>
std::vector<IscsiPortal> PortalsOf(const std::vector<Info>& info) {
    std::vector<IscsiPortal> portals;
    for (const auto& i : info) portals.push_back({FromChars(i.address), i.socket});
    return portals;
}

class SystemInitiator final : public IscsiInitiator {
public:
    DWORD NodeName(std::wstring* name) override {
        NodeNameFn fn;
        if (DWORD rc = Library::Get().Find("GetIScsiInitiatorNodeNameW", &fn)) return rc;
        WCHAR buffer[kIscsiNameMax + 1] = {};
        if (DWORD rc = fn(buffer)) return rc;
        *name = FromChars(buffer);
        return ERROR_SUCCESS;
    }

    DWORD SendTargetPortals(std::vector<IscsiPortal>* portals) override {
        ReportSendTargetPortalsFn fn;
        if (DWORD rc = Library::Get().Find("ReportIScsiSendTargetPortalsW", &fn)) return rc;
        std::vector<TargetPortalInfoW> info(4);
        if (DWORD rc = GrowingCall(&info, fn)) return rc;
        *portals = PortalsOf(info);
        return ERROR_SUCCESS;
    }

    DWORD AddSendTargetPortal(const IscsiPortal& portal) override {
        AddSendTargetPortalFn fn;
        if (DWORD rc = Library::Get().Find("AddIScsiSendTargetPortalW", &fn)) return rc;
        TargetPortalW p = ToPortal(portal);
        return fn(nullptr, kAnyInitiatorPort, nullptr, 0, &p);
    }

    DWORD RemoveSendTargetPortal(const IscsiPortal& portal) override {
        return PortalCall("RemoveIScsiSendTargetPortalW", portal);
    }

    DWORD RefreshSendTargetPortal(const IscsiPortal& portal) override {
        return PortalCall("RefreshIScsiSendTargetPortalW", portal);
    }

    DWORD ReportTargets(std::vector<std::wstring>* targets) override {
        ReportTargetsFn fn;
        if (DWORD rc = Library::Get().Find("ReportIScsiTargetsW", &fn)) return rc;
        std::vector<WCHAR> chars(4096);
        if (DWORD rc = GrowingCall(&chars, [&](ULONG* size, WCHAR* data) { return fn(TRUE, size, data); })) return rc;
        *targets = SplitMultiString(chars);
        return ERROR_SUCCESS;
    }

    DWORD TargetPortals(const std::wstring& target, std::vector<IscsiPortal>* portals) override {
        ReportTargetPortalsFn fn;
        if (DWORD rc = Library::Get().Find("ReportIScsiTargetPortalsW", &fn)) return rc;
        std::wstring name = target;
        std::vector<TargetPortalW> found(4);
        USHORT tag = 0;
        if (DWORD rc = GrowingCall(
                &found, [&](ULONG* count, TargetPortalW* data) { return fn(nullptr, name.data(), &tag, count, data); }))
            return rc;
        *portals = PortalsOf(found);
        return ERROR_SUCCESS;
    }

    DWORD Login(const std::wstring& target, const IscsiPortal* portal, IscsiSessionId* session) override {
        LoginFn fn;
        if (DWORD rc = Library::Get().Find("LoginIScsiTargetW", &fn)) return rc;
        std::wstring name = target;
        TargetPortalW p{};
        if (portal) p = ToPortal(*portal);
        UniqueSessionId id{}, connection{};
        const DWORD rc = fn(name.data(), FALSE, nullptr, kAnyInitiatorPort, portal ? &p : nullptr, 0, nullptr,
                            nullptr, 0, nullptr, FALSE, &id, &connection);
        if (rc == ERROR_SUCCESS) *session = {id.adapterUnique, id.adapterSpecific};
        return rc;
    }

    DWORD Sessions(std::vector<IscsiSession>* sessions) override {
        SessionListFn fn;
        if (DWORD rc = Library::Get().Find("GetIScsiSessionListW", &fn)) return rc;
        // The session records come first in the buffer, the strings they
        // point at after them; the buffer is kept in 8-byte units so that
        // the records are aligned.
        std::vector<ULONGLONG> buffer(1024);
        for (;;) {
            ULONG bytes = static_cast<ULONG>(buffer.size() * sizeof(ULONGLONG));
            ULONG count = 0;
            const DWORD rc = fn(&bytes, &count, reinterpret_cast<SessionInfoW*>(buffer.data()));
            if (rc == ERROR_INSUFFICIENT_BUFFER && bytes > buffer.size() * sizeof(ULONGLONG)) {
                buffer.resize((bytes + sizeof(ULONGLONG) - 1) / sizeof(ULONGLONG));
                continue;
            }
            if (rc) return rc;
            const size_t fits = buffer.size() * sizeof(ULONGLONG) / sizeof(SessionInfoW);
            const auto* info = reinterpret_cast<const SessionInfoW*>(buffer.data());
            sessions->clear();
            for (ULONG i = 0; i < count && i < fits; ++i) {
                const PWSTR name = info[i].targetNodeName ? info[i].targetNodeName : info[i].targetName;
                sessions->push_back({{info[i].sessionId.adapterUnique, info[i].sessionId.adapterSpecific},
                                     name ? std::wstring(name) : std::wstring()});
            }
            return ERROR_SUCCESS;
        }
    }

    DWORD SessionDisks(const IscsiSessionId& session, std::vector<std::wstring>* disks) override {
        DevicesFn fn;
        if (DWORD rc = Library::Get().Find("GetDevicesForIScsiSessionW", &fn)) return rc;
        UniqueSessionId id{session.adapterUnique, session.adapterSpecific};
        std::vector<DeviceOnSessionW> devices(4);
        if (DWORD rc = GrowingCall(&devices, [&](ULONG* count, DeviceOnSessionW* data) { return fn(&id, count, data); }))
            return rc;
        disks->clear();
        for (const auto& d : devices)
            if (d.storageDeviceNumber.DeviceType == FILE_DEVICE_DISK)
                disks->push_back(L"\\\\.\\PhysicalDrive" + std::to_wstring(d.storageDeviceNumber.DeviceNumber));
        return ERROR_SUCCESS;
    }

    DWORD Logout(const IscsiSessionId& session) override {
        LogoutFn fn;
        if (DWORD rc = Library::Get().Find("LogoutIScsiTarget", &fn)) return rc;
        UniqueSessionId id{session.adapterUnique, session.adapterSpecific};
        return fn(&id);
    }

private:
    static DWORD PortalCall(const char* name, const IscsiPortal& portal) {
        PortalCallFn fn;
        if (DWORD rc = Library::Get().Find(name, &fn)) return rc;
        TargetPortalW p = ToPortal(portal);
        return fn(nullptr, kAnyInitiatorPort, &p);
    }
};

SystemInitiator g_system;
IscsiInitiator* g_initiator = &g_system;

}  // namespace

IscsiInitiator& Iscsi() { return *g_initiator; }

void SetIscsiInitiator(IscsiInitiator* initiator) { g_initiator = initiator ? initiator : &g_system; }

}  // namespace kx::platform
