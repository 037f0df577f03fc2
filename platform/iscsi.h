// The host's iSCSI initiator service, reached through iscsidsc.dll: the
// initiator's node name, send-target portals, the targets they report,
// logins, sessions, the disks of a session, and logouts. Behind a small
// interface, with the system's service as the default, so that a test can
// put an initiator of its own in place.
//
// The real initiator loads iscsidsc.dll from the system folder at its first
// use instead of importing it: a host without the initiator (Wine has no
// such library at all) must still load KestrixHA.dll for everything else,
// and then each call here answers ERROR_MOD_NOT_FOUND (126), or
// ERROR_PROC_NOT_FOUND (127) for a missing function. The structures the
// service fills in are declared in iscsi.cpp from their documented layouts.
//
// Every call returns 0 or the service's code unchanged: a Win32 code, or an
// iSCSI status 0xEFFFxxxx (kIscsi... below).
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace kx::platform {

// Status codes of the iSCSI initiator service.
inline constexpr DWORD kIscsiLoginFailed = 0xEFFF0002;
inline constexpr DWORD kIscsiConnectionFailed = 0xEFFF0003;
inline constexpr DWORD kIscsiAuthenticationFailure = 0xEFFF0009;
inline constexpr DWORD kIscsiAuthorizationFailure = 0xEFFF000A;
inline constexpr DWORD kIscsiTargetNotFound = 0xEFFF000B;
inline constexpr DWORD kIscsiTargetRemoved = 0xEFFF000C;
inline constexpr DWORD kIscsiSessionAlreadyExists = 0xEFFF0016;

// The longest iSCSI name, in characters, without its terminator.
inline constexpr size_t kIscsiNameMax = 223;
// The iSCSI port a portal listens on unless told otherwise.
inline constexpr USHORT kIscsiDefaultPort = 3260;

struct IscsiSessionId {
    ULONGLONG adapterUnique = 0;
    ULONGLONG adapterSpecific = 0;
    bool operator==(const IscsiSessionId&) const = default;
};

struct IscsiPortal {
    std::wstring address;  // IPv4, IPv6 (without brackets) or host name
    USHORT port = kIscsiDefaultPort;
};

struct IscsiSession {
    IscsiSessionId id;
    std::wstring targetName;  // the target's iSCSI name
};

class IscsiInitiator {
public:
    virtual ~IscsiInitiator() = default;
    // The initiator's node name, as the service reports it.
    virtual DWORD NodeName(std::wstring* name) = 0;
    // The send-target portals the service knows.
    virtual DWORD SendTargetPortals(std::vector<IscsiPortal>* portals) = 0;
    // Adds a send-target portal (the service logs in to it for discovery)
    // on every initiator port, without persisting a login.
    virtual DWORD AddSendTargetPortal(const IscsiPortal& portal) = 0;
    virtual DWORD RemoveSendTargetPortal(const IscsiPortal& portal) = 0;
    // Asks the portal again for the targets it serves.
    virtual DWORD RefreshSendTargetPortal(const IscsiPortal& portal) = 0;
    // The names of every target the service knows (from all portals).
    virtual DWORD ReportTargets(std::vector<std::wstring>* targets) = 0;
    // The portals through which `target` is reached.
    virtual DWORD TargetPortals(const std::wstring& target, std::vector<IscsiPortal>* portals) = 0;
    // Logs in to `target` (through `portal` when given, else through any
    // portal the service picks): a session that exposes the target's disks
    // to this host, not persisted across restarts.
    virtual DWORD Login(const std::wstring& target, const IscsiPortal* portal, IscsiSessionId* session) = 0;
    virtual DWORD Sessions(std::vector<IscsiSession>* sessions) = 0;
    // The disks a session exposes: their device paths ("\\.\PhysicalDrive3").
    virtual DWORD SessionDisks(const IscsiSessionId& session, std::vector<std::wstring>* disks) = 0;
    virtual DWORD Logout(const IscsiSessionId& session) = 0;
};

// The initiator in use: the system's unless a test put another in place.
IscsiInitiator& Iscsi();
// Puts `initiator` in place (null puts the system's back). For tests: not
// to be switched while another thread uses the initiator.
void SetIscsiInitiator(IscsiInitiator* initiator);

}  // namespace kx::platform
