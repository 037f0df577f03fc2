// Small changes that make a standby or failover guest behave as the
// production machine it replaces: its host name, the kind of machine it
// fails over to, no stale dynamic disk group, no shutdown reason prompt, no
// VMware upgrade hook, no dynamic DNS registration of its own, and remote
// desktop accepted on port 3389 through its firewall.
#pragma once

#include <windows.h>

#include <string>

#include "guestfix/hive_access.h"

namespace kx::guestfix {

// NetBIOS names are at most 15 characters; longer host names are cut for
// the computer-name values only.
inline constexpr size_t kNetBiosNameChars = 15;

// Rewrites one firewall rule ("v2.10|Action=Allow|Active=FALSE|Dir=In|...")
// when it is an inbound TCP rule for port 3389: every "|"-separated field
// as it was, except "Active", which becomes True when the rule's Action met
// before it is "Allow" and False otherwise. False (rule left as it is) for
// any other rule.
bool RewriteRdpRule(const std::wstring& rule, std::wstring* rewritten);

// The exports, in the export frame. Hives may be null (then loaded and
// unloaded here). An empty host name is refused (87).
[[nodiscard]] DWORD ChangeProductionHostName(const std::wstring& systemDir, const std::wstring& hostName);
[[nodiscard]] DWORD PrepareZekForFailover(const std::wstring& systemDir, const std::wstring& vmType);
[[nodiscard]] DWORD DeleteDynamicDiskGroup(const std::wstring& systemDir);
[[nodiscard]] DWORD DeleteDynamicDiskGroupEx(const std::wstring& systemDir, HiveLoader* system);
[[nodiscard]] DWORD DisableShutDownEventTracker(const std::wstring& systemDir);
[[nodiscard]] DWORD DisableShutDownEventTrackerEx(const std::wstring& systemDir, HiveLoader* software);
[[nodiscard]] DWORD EnableTerminalService(const std::wstring& systemDir, HiveLoader* system, HiveLoader* software);
[[nodiscard]] DWORD DisableDynamicUpdate(const std::wstring& systemDir, HiveLoader* system, BYTE* changed);

}  // namespace kx::guestfix
