// iSCSI on the proxy host: its initiator name, discovery of the targets a
// portal serves, attaching a snapshot disk that a storage system presents as
// a target, and logging out again. Everything goes through the host's iSCSI
// initiator service; a host without it answers 126 (ERROR_MOD_NOT_FOUND)
// from every call that reaches the service.
//
// Names. An iSCSI name is accepted in these forms (case is ignored, the
// whole name is at most 223 characters), anything else is refused with 87
// before the service is asked:
// - "iqn." yyyy "-" mm "." authority [":" suffix]: a four-digit year, a
//   month 01..12, the naming authority as a reversed domain name (one or
//   more labels of letters, digits and inner hyphens, each 1..63 long,
//   separated by single dots), and an optional suffix of letters, digits,
//   '-', '.' and ':' after the first colon;
// - "eui." and exactly 16 hexadecimal digits;
// - "naa." and exactly 16 or 32 hexadecimal digits.
// A Nutanix target is one whose name is an "iqn." name with the naming
// authority "com.nutanix" or a sub-domain of it ("com.nutanix.<more>"),
// whatever its date and suffix: "iqn.2010-06.com.nutanix:vg-1-tgt0" is one,
// "iqn.2010-06.com.nutanixx:a" and "iqn.2010-06.org.nutanix:a" are not.
//
// Portals. A portal address is "host", "host:port", an IPv6 address alone
// or "[IPv6]:port". host is a dotted IPv4 address (four numbers 0..255) or a
// DNS host name (labels as above, at most 253 characters; a name whose last
// label is all digits is taken for an IPv4 address and must be one). The
// port is 1..65535 in decimal, 3260 when left out. Empty, malformed and
// out-of-range addresses give 87 before the service is asked.
//
// Retries. Discovery and attach try up to "IscsiTargetRetryCount" times:
// the DWORD under HKLM\SOFTWARE\Veltrana\Quillon\Engine, 3 when absent or 0,
// at most 10 (larger values count as 10). Between two tries the call waits
// 5 seconds.
#pragma once

#include <string>
#include <vector>

#include "KestrixHA/api.h"

// One target reported by DiscoverTarget.
struct IscsiTargetInfo {
    std::wstring name;       // the target's iSCSI name
    std::wstring authority;  // the naming authority of an "iqn." name ("com.nutanix"), else empty
    bool nutanix = false;    // the authority is com.nutanix or below it
    bool viaPortal = false;  // one of the target's portals is the discovery portal (address and port)
};

// What AttachIscsiTarget made.
struct IscsiAttachInfo {
    std::wstring sessionId;          // "<16 hex digits>-<16 hex digits>", as LogoutIscsiSession takes it
    std::vector<std::wstring> disks;  // "\\.\PhysicalDriveN" of each disk the session exposes (may be empty
                                      // while the system is still bringing them up)
    DWORD tries = 0;                  // logins made (0: the target already had a session, which is reported)
};

// The initiator's node name (its IQN) into `buffer` of `*chars` characters
// with its terminator. 0 with *chars set to the length without the
// terminator; 122 (ERROR_INSUFFICIENT_BUFFER) with *chars set to the size
// needed (terminator included) when the buffer is too small or null; 87 for
// a null `chars`; 13 (ERROR_INVALID_DATA) when the service reports an empty
// name or one that is not a valid iSCSI name (the name is still returned,
// as reported, when it fits); otherwise the service's code.
// Log: "GetIqnNumber() starts", the name, the end line with the result.
KXHA_API DWORD GetIqnNumber(wchar_t* buffer, DWORD* chars);

// Adds the portal `portal` (see Portals above) as a send-target portal of
// the initiator when it is not one already, asks it for its targets
// (refresh), and fills `targets` with every target the initiator then knows,
// in the service's order, each marked when one of its portals is the
// discovery portal and when it is a Nutanix target. An add or refresh that
// fails (a portal that does not answer: 0xEFFF0003) is tried again up to the
// retry count. When every try fails, a portal this call added is removed
// again, so that the initiator does not keep trying it, and the last code is
// returned. A target whose portals cannot be read (gone since the report) is
// left out. Returns 0, 87 (bad address or null `targets`) or the service's
// code.
KXHA_API DWORD DiscoverTarget(const wchar_t* portal, std::vector<IscsiTargetInfo>* targets);

// Logs in to the target `target` (a valid iSCSI name), through `portal` when
// given (null or empty: any portal the initiator knows for it), and reports
// the session and its disks in `info` (optional). A target that already has
// a session is not logged in again: that session is reported. A failed login
// is tried again up to the retry count, except when the target is no longer
// among the reported targets (1168 ERROR_NOT_FOUND, no further tries) or the
// target refuses this initiator (0xEFFF0009 / 0xEFFF000A, no further tries).
// Returns 0, 87, 1168 or the last login's code.
KXHA_API DWORD AttachIscsiTarget(const wchar_t* target, const wchar_t* portal, IscsiAttachInfo* info);

// Logs out: `what` is either a session id as AttachIscsiTarget reports it
// (that session), or a target's iSCSI name (every session of that target).
// A session or target without sessions that is already gone is not an
// error: 0 with nothing logged out (the log says so). A session that
// disappears while it is logged out counts as logged out. `loggedOut`
// (optional) gets the number of sessions this call ended. Returns 0, 87
// (null, empty, neither form) or the first failed logout's code (the
// others are still tried).
KXHA_API DWORD LogoutIscsiSession(const wchar_t* what, DWORD* loggedOut);
