#include "disk/iscsi.h"

#include <cwchar>

#include "common/wstring_format.h"
#include "guestfix/hive_access.h"
#include "log/call_frame.h"
#include "log/debug_log.h"
#include "platform/process_runner.h"

namespace kx::disk {

namespace {

using platform::IscsiPortal;
using platform::IscsiSession;
using platform::IscsiSessionId;

bool IsDigit(wchar_t c) { return c >= L'0' && c <= L'9'; }
bool IsHex(wchar_t c) { return IsDigit(c) || (c >= L'a' && c <= L'f') || (c >= L'A' && c <= L'F'); }
bool IsAlnum(wchar_t c) { return IsDigit(c) || (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z'); }

std::wstring Lower(std::wstring s) {
    for (wchar_t& c : s)
        if (c >= L'A' && c <= L'Z') c = static_cast<wchar_t>(c - L'A' + L'a');
    return s;
}

bool AllOf(const std::wstring& s, size_t from, size_t count, bool (*pred)(wchar_t)) {
    if (from + count > s.size()) return false;
    for (size_t i = from; i < from + count; ++i)
        if (!pred(s[i])) return false;
    return true;
}

// Dot-separated labels of letters, digits and inner hyphens, 1..63 each.
bool IsDomain(const std::wstring& s) {
    if (s.empty()) return false;
    size_t start = 0;
    for (;;) {
        const size_t dot = s.find(L'.', start);
        const size_t end = dot == std::wstring::npos ? s.size() : dot;
        const size_t n = end - start;
        if (n == 0 || n > 63 || !IsAlnum(s[start]) || !IsAlnum(s[end - 1])) return false;
        for (size_t i = start; i < end; ++i)
            if (!IsAlnum(s[i]) && s[i] != L'-') return false;
        if (dot == std::wstring::npos) return true;
        start = dot + 1;
    }
}

bool IsIpv4(const std::wstring& s) {
    int parts = 0;
    size_t at = 0;
    while (true) {
        size_t end = at;
        while (end < s.size() && IsDigit(s[end])) ++end;
        const size_t n = end - at;
        if (n == 0 || n > 3 || std::stoi(s.substr(at, n)) > 255) return false;
        ++parts;
        if (end == s.size()) return parts == 4;
        if (s[end] != L'.' || parts == 4) return false;
        at = end + 1;
    }
}

// Eight groups of 1..4 hex digits, one "::" standing for one or more zero
// groups, and an IPv4 address in place of the last two groups.
bool IsIpv6(const std::wstring& s) {
    if (s.empty()) return false;
    const size_t gap = s.find(L"::");
    if (gap != std::wstring::npos && s.find(L"::", gap + 1) != std::wstring::npos) return false;
    auto count = [](const std::wstring& part, bool lastMayBeV4, int* groups) {
        *groups = 0;
        if (part.empty()) return true;
        size_t at = 0;
        for (;;) {
            const size_t colon = part.find(L':', at);
            const std::wstring g = part.substr(at, colon == std::wstring::npos ? std::wstring::npos : colon - at);
            if (colon == std::wstring::npos && lastMayBeV4 && g.find(L'.') != std::wstring::npos) {
                if (!IsIpv4(g)) return false;
                *groups += 2;
                return true;
            }
            if (g.empty() || g.size() > 4 || !AllOf(g, 0, g.size(), IsHex)) return false;
            ++*groups;
            if (colon == std::wstring::npos) return true;
            at = colon + 1;
        }
    };
    int head = 0, tail = 0;
    if (gap == std::wstring::npos) return count(s, true, &head) && head == 8;
    return count(s.substr(0, gap), false, &head) && count(s.substr(gap + 2), true, &tail) && head + tail < 8;
}

bool IsHostName(const std::wstring& s) {
    if (s.size() > 253 || !IsDomain(s)) return false;
    const size_t dot = s.rfind(L'.');
    const size_t last = dot == std::wstring::npos ? 0 : dot + 1;
    // A name ending in a numeric label is meant as an IPv4 address.
    return !AllOf(s, last, s.size() - last, IsDigit) || IsIpv4(s);
}

bool ParsePort(const std::wstring& s, USHORT* port) {
    if (s.empty() || s.size() > 5 || !AllOf(s, 0, s.size(), IsDigit)) return false;
    const int value = std::stoi(s);
    if (value < 1 || value > 65535) return false;
    *port = static_cast<USHORT>(value);
    return true;
}

bool SamePortal(const IscsiPortal& a, const IscsiPortal& b) {
    return a.port == b.port && EqualsNoCase(a.address, b.address);
}

bool HasPortal(const std::vector<IscsiPortal>& list, const IscsiPortal& portal) {
    for (const auto& p : list)
        if (SamePortal(p, portal)) return true;
    return false;
}

std::wstring PortalText(const IscsiPortal& p) {
    return (p.address.find(L':') != std::wstring::npos ? L"[" + p.address + L"]" : p.address) + L":" +
           std::to_wstring(p.port);
}

// One discovery try: add the portal when the initiator lacks it, else ask it
// again. `listed` follows whether the initiator holds the portal.
DWORD DiscoveryTry(platform::IscsiInitiator& iscsi, const IscsiPortal& portal, bool* listed) {
    if (*listed) return iscsi.RefreshSendTargetPortal(portal);
    const DWORD rc = iscsi.AddSendTargetPortal(portal);
    if (rc == ERROR_SUCCESS) {
        *listed = true;
        return rc;
    }
    // A failed add may still leave the portal behind.
    std::vector<IscsiPortal> now;
    if (iscsi.SendTargetPortals(&now) == ERROR_SUCCESS) *listed = HasPortal(now, portal);
    return rc;
}

DWORD Discover(const IscsiPortal& portal, std::vector<IscsiTargetInfo>* targets) {
    auto& iscsi = platform::Iscsi();
    std::vector<IscsiPortal> known;
    if (DWORD rc = iscsi.SendTargetPortals(&known)) {
        LogErr(0, rc, L"Fail to list the send-target portals");
        return rc;
    }
    const bool wasListed = HasPortal(known, portal);
    bool listed = wasListed;
    const DWORD tries = IscsiTries();
    DWORD rc = ERROR_SUCCESS;
    for (DWORD t = 1; t <= tries; ++t) {
        rc = DiscoveryTry(iscsi, portal, &listed);
        if (rc == ERROR_SUCCESS) break;
        LogErr(1, rc, L"Discovery through portal %s failed (try %u of %u)", PortalText(portal).c_str(), t, tries);
        if (t < tries) platform::Pauses().For(kIscsiRetryPauseMs);
    }
    if (rc != ERROR_SUCCESS) {
        if (!wasListed && listed) {
            const DWORD removed = iscsi.RemoveSendTargetPortal(portal);
            if (removed) LogErr(1, removed, L"Fail to remove portal %s again", PortalText(portal).c_str());
            else Log(2, L"Portal %s removed again.", PortalText(portal).c_str());
        }
        return rc;
    }
    std::vector<std::wstring> names;
    if (DWORD report = iscsi.ReportTargets(&names)) {
        LogErr(0, report, L"Fail to report the iSCSI targets");
        return report;
    }
    for (const auto& name : names) {
        std::vector<IscsiPortal> portals;
        if (DWORD gone = iscsi.TargetPortals(name, &portals)) {
            LogErr(1, gone, L"Target %s left out: its portals cannot be read", name.c_str());
            continue;
        }
        IscsiTargetInfo info;
        info.name = name;
        if (IsValidIscsiName(name, &info.authority)) info.nutanix = IsNutanixAuthority(info.authority);
        info.viaPortal = HasPortal(portals, portal);
        Log(2, L"Target %s%s%s", name.c_str(), info.viaPortal ? L" (through this portal)" : L"",
            info.nutanix ? L" (Nutanix)" : L"");
        targets->push_back(std::move(info));
    }
    return ERROR_SUCCESS;
}

// The sessions of `target` (case ignored), or every session when empty.
DWORD SessionsOf(const std::wstring& target, std::vector<IscsiSession>* out) {
    std::vector<IscsiSession> all;
    if (DWORD rc = platform::Iscsi().Sessions(&all)) {
        LogErr(0, rc, L"Fail to list the iSCSI sessions");
        return rc;
    }
    out->clear();
    for (auto& s : all)
        if (target.empty() || EqualsNoCase(s.targetName, target)) out->push_back(std::move(s));
    return ERROR_SUCCESS;
}

bool HasSession(const std::vector<IscsiSession>& list, const IscsiSessionId& id) {
    for (const auto& s : list)
        if (s.id == id) return true;
    return false;
}

void Report(const IscsiSessionId& id, DWORD tries, IscsiAttachInfo* info) {
    info->sessionId = FormatSessionId(id);
    info->tries = tries;
    if (DWORD rc = platform::Iscsi().SessionDisks(id, &info->disks))
        LogErr(1, rc, L"Fail to list the disks of session %s", info->sessionId.c_str());
    Log(2, L"Session %s, %d disk(s).", info->sessionId.c_str(), static_cast<int>(info->disks.size()));
}

bool TargetListed(const std::wstring& target, bool* listed) {
    std::vector<std::wstring> names;
    if (platform::Iscsi().ReportTargets(&names) != ERROR_SUCCESS) return false;
    *listed = false;
    for (const auto& n : names)
        if (EqualsNoCase(n, target)) *listed = true;
    return true;
}

DWORD Attach(const std::wstring& target, const IscsiPortal* portal, IscsiAttachInfo* info) {
    std::vector<IscsiSession> existing;
    if (DWORD rc = SessionsOf(target, &existing)) return rc;
    if (!existing.empty()) {
        Log(2, L"Target %s already has a session; no new login.", target.c_str());
        Report(existing.front().id, 0, info);
        return ERROR_SUCCESS;
    }
    const DWORD tries = IscsiTries();
    DWORD rc = ERROR_SUCCESS;
    for (DWORD t = 1; t <= tries; ++t) {
        IscsiSessionId id;
        rc = platform::Iscsi().Login(target, portal, &id);
        if (rc == ERROR_SUCCESS) {
            Log(2, L"Logged in to %s (try %u of %u).", target.c_str(), t, tries);
            Report(id, t, info);
            return rc;
        }
        LogErr(1, rc, L"Login to %s failed (try %u of %u)", target.c_str(), t, tries);
        if (rc == platform::kIscsiSessionAlreadyExists && SessionsOf(target, &existing) == ERROR_SUCCESS &&
            !existing.empty()) {
            Report(existing.front().id, t, info);
            return ERROR_SUCCESS;
        }
        if (rc == platform::kIscsiAuthenticationFailure || rc == platform::kIscsiAuthorizationFailure) return rc;
        bool listed = true;
        if (TargetListed(target, &listed) && !listed) {
            Log(0, L"Target %s is no longer reported; no further login.", target.c_str());
            return ERROR_NOT_FOUND;
        }
        if (t < tries) platform::Pauses().For(kIscsiRetryPauseMs);
    }
    return rc;
}

// Logs out `session`; one that vanishes meanwhile counts as logged out.
DWORD LogoutOne(const IscsiSessionId& id, DWORD* count) {
    const std::wstring text = FormatSessionId(id);
    DWORD rc = platform::Iscsi().Logout(id);
    if (rc != ERROR_SUCCESS) {
        std::vector<IscsiSession> now;
        if (SessionsOf(L"", &now) == ERROR_SUCCESS && !HasSession(now, id)) {
            Log(1, L"Session %s ended while logging out (logout answered %u).", text.c_str(), rc);
            rc = ERROR_SUCCESS;
        }
    }
    if (rc != ERROR_SUCCESS) {
        LogErr(0, rc, L"Fail to log out session %s", text.c_str());
        return rc;
    }
    Log(2, L"Session %s logged out.", text.c_str());
    ++*count;
    return rc;
}

DWORD Logout(const std::wstring& what, DWORD* count) {
    IscsiSessionId id;
    std::vector<IscsiSession> sessions;
    if (ParseSessionId(what, &id)) {
        if (DWORD rc = SessionsOf(L"", &sessions)) return rc;
        if (!HasSession(sessions, id)) {
            Log(1, L"Session %s is already gone; nothing to log out.", what.c_str());
            return ERROR_SUCCESS;
        }
        return LogoutOne(id, count);
    }
    if (DWORD rc = SessionsOf(what, &sessions)) return rc;
    if (sessions.empty()) Log(1, L"Target %s has no session; nothing to log out.", what.c_str());
    DWORD first = ERROR_SUCCESS;
    for (const auto& s : sessions) {
        const DWORD rc = LogoutOne(s.id, count);
        if (first == ERROR_SUCCESS) first = rc;
    }
    return first;
}

}  // namespace

bool IsValidIscsiName(const std::wstring& name, std::wstring* authority) {
    if (name.size() < 5 || name.size() > platform::kIscsiNameMax) return false;
    const std::wstring s = Lower(name);
    const std::wstring type = s.substr(0, 4);
    const size_t rest = s.size() - 4;
    if (type == L"eui.") return rest == 16 && AllOf(s, 4, 16, IsHex);
    if (type == L"naa.") return (rest == 16 || rest == 32) && AllOf(s, 4, rest, IsHex);
    if (type != L"iqn.") return false;
    // iqn.yyyy-mm.authority[:suffix]
    if (!AllOf(s, 4, 4, IsDigit) || s.size() < 12 || s[8] != L'-' || !AllOf(s, 9, 2, IsDigit) || s[11] != L'.')
        return false;
    const int month = (s[9] - L'0') * 10 + (s[10] - L'0');
    if (month < 1 || month > 12) return false;
    const size_t colon = s.find(L':', 12);
    const std::wstring auth = s.substr(12, colon == std::wstring::npos ? std::wstring::npos : colon - 12);
    if (!IsDomain(auth)) return false;
    if (colon != std::wstring::npos) {
        if (colon + 1 == s.size()) return false;
        for (size_t i = colon + 1; i < s.size(); ++i)
            if (!IsAlnum(s[i]) && s[i] != L'-' && s[i] != L'.' && s[i] != L':') return false;
    }
    if (authority) *authority = auth;
    return true;
}

bool IsNutanixAuthority(const std::wstring& authority) {
    const std::wstring a = Lower(authority);
    const std::wstring n = kNutanixAuthority;
    return a == n || (a.size() > n.size() && a.compare(0, n.size(), n) == 0 && a[n.size()] == L'.');
}

bool ParsePortal(const std::wstring& text, IscsiPortal* portal) {
    if (text.empty()) return false;
    std::wstring host, port;
    if (text[0] == L'[') {
        const size_t close = text.find(L']');
        if (close == std::wstring::npos) return false;
        host = text.substr(1, close - 1);
        if (close + 1 < text.size()) {
            if (text[close + 1] != L':') return false;
            port = text.substr(close + 2);
            if (port.empty()) return false;
        }
        if (!IsIpv6(host)) return false;
    } else {
        const size_t first = text.find(L':');
        if (first != std::wstring::npos && text.find(L':', first + 1) != std::wstring::npos) {
            host = text;  // an IPv6 address without a port
            if (!IsIpv6(host)) return false;
        } else {
            host = text.substr(0, first);
            if (first != std::wstring::npos) {
                port = text.substr(first + 1);
                if (port.empty()) return false;
            }
            if (!IsIpv4(host) && !IsHostName(host)) return false;
        }
    }
    USHORT number = platform::kIscsiDefaultPort;
    if (!port.empty() && !ParsePort(port, &number)) return false;
    portal->address = host;
    portal->port = number;
    return true;
}

std::wstring FormatSessionId(const IscsiSessionId& id) {
    std::wstring text(33, L'-');
    for (int i = 0; i < 16; ++i) {
        text[15 - i] = L"0123456789abcdef"[(id.adapterUnique >> (4 * i)) & 0xF];
        text[32 - i] = L"0123456789abcdef"[(id.adapterSpecific >> (4 * i)) & 0xF];
    }
    return text;
}

bool ParseSessionId(const std::wstring& text, IscsiSessionId* id) {
    const size_t dash = text.find(L'-');
    if (dash == std::wstring::npos || dash == 0 || dash > 16 || text.size() - dash - 1 == 0 ||
        text.size() - dash - 1 > 16 || !AllOf(text, 0, dash, IsHex) ||
        !AllOf(text, dash + 1, text.size() - dash - 1, IsHex))
        return false;
    id->adapterUnique = std::wcstoull(text.substr(0, dash).c_str(), nullptr, 16);
    id->adapterSpecific = std::wcstoull(text.substr(dash + 1).c_str(), nullptr, 16);
    return true;
}

DWORD IscsiTries() {
    DWORD value = 0;
    (void)guestfix::ReadEngineDword(kIscsiRetryValue, &value, guestfix::kEngineKey, 0);
    if (value == 0) return kIscsiDefaultTries;
    return value > kIscsiMaxTries ? kIscsiMaxTries : value;
}

DWORD GetIqnNumber(wchar_t* buffer, DWORD* chars) {
    return RunExport<kGetIqnNumber>([&](auto& frame) -> DWORD {
        if (!chars) return frame.InvalidParameter();
        std::wstring name;
        if (DWORD rc = platform::Iscsi().NodeName(&name)) {
            LogErr(0, rc, L"Fail to read the initiator's node name");
            return rc;
        }
        if (name.empty()) {
            Log(0, L"The initiator reports an empty node name.");
            *chars = 0;
            return ERROR_INVALID_DATA;
        }
        Log(2, L"Initiator node name: %s", name.c_str());
        const DWORD needed = static_cast<DWORD>(name.size() + 1);
        if (!buffer || *chars < needed) {
            *chars = needed;
            return ERROR_INSUFFICIENT_BUFFER;
        }
        wmemcpy(buffer, name.c_str(), needed);
        *chars = needed - 1;
        if (!IsValidIscsiName(name)) {
            Log(0, L"The initiator's node name %s is not a valid iSCSI name.", name.c_str());
            return ERROR_INVALID_DATA;
        }
        return ERROR_SUCCESS;
    });
}

DWORD DiscoverTarget(const wchar_t* portal, std::vector<IscsiTargetInfo>* targets) {
    return RunExport<kDiscoverTarget>(
        [&](auto& frame) -> DWORD {
            IscsiPortal parsed;
            if (!targets || IsNullOrEmpty(portal) || !ParsePortal(portal, &parsed)) return frame.InvalidParameter();
            targets->clear();
            return Discover(parsed, targets);
        },
        OrNull(portal));
}

DWORD AttachIscsiTarget(const wchar_t* target, const wchar_t* portal, IscsiAttachInfo* info) {
    return RunExport<kAttachIscsiTarget>(
        [&](auto& frame) -> DWORD {
            IscsiPortal parsed;
            const bool viaPortal = !IsNullOrEmpty(portal);
            if (IsNullOrEmpty(target) || !IsValidIscsiName(target) || (viaPortal && !ParsePortal(portal, &parsed)))
                return frame.InvalidParameter();
            IscsiAttachInfo local;
            IscsiAttachInfo* out = info ? info : &local;
            *out = {};
            return Attach(target, viaPortal ? &parsed : nullptr, out);
        },
        OrNull(target), OrNull(portal));
}

DWORD LogoutIscsiSession(const wchar_t* what, DWORD* loggedOut) {
    return RunExport<kLogoutIscsiSession>(
        [&](auto& frame) -> DWORD {
            DWORD local = 0;
            DWORD* count = loggedOut ? loggedOut : &local;
            *count = 0;
            IscsiSessionId id;
            if (IsNullOrEmpty(what) || (!ParseSessionId(what, &id) && !IsValidIscsiName(what)))
                return frame.InvalidParameter();
            return Logout(what, count);
        },
        OrNull(what));
}

}  // namespace kx::disk
