// Exported iSCSI calls: initiator name, discovery, attach and logout.
#include "KestrixHA/iscsi.h"
#include "disk/iscsi.h"

namespace d = kx::disk;

KXHA_API DWORD GetIqnNumber(wchar_t* buffer, DWORD* chars) { return d::GetIqnNumber(buffer, chars); }

KXHA_API DWORD DiscoverTarget(const wchar_t* portal, std::vector<IscsiTargetInfo>* targets) {
    return d::DiscoverTarget(portal, targets);
}

KXHA_API DWORD AttachIscsiTarget(const wchar_t* target, const wchar_t* portal, IscsiAttachInfo* info) {
    return d::AttachIscsiTarget(target, portal, info);
}

KXHA_API DWORD LogoutIscsiSession(const wchar_t* what, DWORD* loggedOut) {
    return d::LogoutIscsiSession(what, loggedOut);
}
