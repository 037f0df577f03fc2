// An in-process iSCSI initiator with portals, targets, sessions and the
// failures a real one meets, on a clock of its own that only the pauses
// between tries move: nothing waits and nothing leaves the process.
#pragma once

#include <algorithm>
#include <map>
#include <string>
#include <vector>

#include "common/wstring_format.h"
#include "platform/iscsi.h"
#include "platform/process_runner.h"

namespace kxtest {

using kx::platform::IscsiPortal;
using kx::platform::IscsiSession;
using kx::platform::IscsiSessionId;

class FakeInitiator final : public kx::platform::IscsiInitiator, public kx::platform::Pause {
public:
    struct Portal {
        std::vector<std::wstring> serves;  // targets a discovery through it finds
        bool reachable = true;             // false: every discovery answers "connection failed"
        unsigned readyAtMs = 0;            // a slow portal answers only from this time on
    };
    struct Target {
        std::vector<IscsiPortal> portals;
        unsigned failLogins = 0;   // the first N logins fail with "login failed"
        DWORD loginCode = 0;       // every login fails with this code
        bool vanishOnLogin = false;  // gone (from reports too) once a login is tried
        std::vector<std::wstring> disks;
    };

    FakeInitiator() {
        kx::platform::SetIscsiInitiator(this);
        kx::platform::SetPause(this);
    }
    ~FakeInitiator() override {
        kx::platform::SetIscsiInitiator(nullptr);
        kx::platform::SetPause(nullptr);
    }

    std::wstring nodeName = L"iqn.1991-05.com.microsoft:proxy01.lab.local";
    DWORD nodeNameCode = 0;
    std::map<std::wstring, Portal> portals;  // by "address:port"
    std::map<std::wstring, Target> targets;  // by name
    std::vector<IscsiPortal> sendTargets;    // what the initiator holds
    std::vector<std::wstring> known;         // targets found so far
    std::vector<IscsiSession> sessions;
    std::vector<std::wstring> calls;
    std::vector<DWORD> pauses;
    unsigned clockMs = 0;
    unsigned logins = 0;
    std::vector<IscsiSessionId> vanishOnLogout;  // gone while the logout fails
    DWORD logoutCode = 0;

    static std::wstring Key(const IscsiPortal& p) { return p.address + L":" + std::to_wstring(p.port); }

    IscsiSessionId AddSession(const std::wstring& target) {
        const IscsiSessionId id{0xffffe00012340000ull + sessions.size(), 0x4000013700000001ull + nextId_++};
        sessions.push_back({id, target});
        return id;
    }

    // kx::platform::Pause
    void For(DWORD ms) override {
        pauses.push_back(ms);
        clockMs += ms;
    }

    DWORD NodeName(std::wstring* name) override {
        calls.push_back(L"NodeName");
        if (nodeNameCode) return nodeNameCode;
        *name = nodeName;
        return 0;
    }
    DWORD SendTargetPortals(std::vector<IscsiPortal>* out) override {
        calls.push_back(L"SendTargetPortals");
        *out = sendTargets;
        return 0;
    }
    DWORD AddSendTargetPortal(const IscsiPortal& p) override {
        calls.push_back(L"Add " + Key(p));
        // Like a real initiator, a failed add still leaves the portal listed.
        if (!Listed(p)) sendTargets.push_back(p);
        return Discover(p);
    }
    DWORD RemoveSendTargetPortal(const IscsiPortal& p) override {
        calls.push_back(L"Remove " + Key(p));
        for (size_t i = 0; i < sendTargets.size(); ++i)
            if (Key(sendTargets[i]) == Key(p)) {
                sendTargets.erase(sendTargets.begin() + i);
                return 0;
            }
        return kx::platform::kIscsiTargetNotFound;
    }
    DWORD RefreshSendTargetPortal(const IscsiPortal& p) override {
        calls.push_back(L"Refresh " + Key(p));
        if (!Listed(p)) return kx::platform::kIscsiTargetNotFound;
        return Discover(p);
    }
    DWORD ReportTargets(std::vector<std::wstring>* out) override {
        calls.push_back(L"ReportTargets");
        *out = known;
        return 0;
    }
    DWORD TargetPortals(const std::wstring& target, std::vector<IscsiPortal>* out) override {
        calls.push_back(L"TargetPortals " + target);
        auto it = targets.find(target);
        if (it == targets.end()) return kx::platform::kIscsiTargetNotFound;
        *out = it->second.portals;
        return 0;
    }
    DWORD Login(const std::wstring& target, const IscsiPortal* portal, IscsiSessionId* id) override {
        calls.push_back(L"Login " + target + (portal ? L" via " + Key(*portal) : L""));
        ++logins;
        auto it = targets.find(target);
        if (it == targets.end()) return kx::platform::kIscsiTargetNotFound;
        Target& t = it->second;
        if (t.vanishOnLogin) {
            targets.erase(it);
            std::erase(known, target);
            return kx::platform::kIscsiTargetNotFound;
        }
        if (t.loginCode) return t.loginCode;
        if (t.failLogins) {
            --t.failLogins;
            return kx::platform::kIscsiLoginFailed;
        }
        *id = AddSession(target);
        return 0;
    }
    DWORD Sessions(std::vector<IscsiSession>* out) override {
        calls.push_back(L"Sessions");
        *out = sessions;
        return 0;
    }
    DWORD SessionDisks(const IscsiSessionId& id, std::vector<std::wstring>* disks) override {
        calls.push_back(L"SessionDisks");
        for (const auto& s : sessions)
            if (s.id == id) {
                auto it = targets.find(s.targetName);
                *disks = it == targets.end() ? std::vector<std::wstring>{} : it->second.disks;
                return 0;
            }
        return kx::platform::kIscsiTargetNotFound;
    }
    DWORD Logout(const IscsiSessionId& id) override {
        calls.push_back(L"Logout " + std::to_wstring(id.adapterSpecific));
        for (size_t i = 0; i < sessions.size(); ++i) {
            if (!(sessions[i].id == id)) continue;
            for (const auto& v : vanishOnLogout)
                if (v == id) {
                    sessions.erase(sessions.begin() + i);
                    return kx::platform::kIscsiTargetRemoved;
                }
            if (logoutCode) return logoutCode;
            sessions.erase(sessions.begin() + i);
            return 0;
        }
        return kx::platform::kIscsiTargetNotFound;
    }

    // Calls that reach the initiator, pauses left out.
    size_t Count(const std::wstring& prefix) const {
        size_t n = 0;
        for (const auto& c : calls) n += c.compare(0, prefix.size(), prefix) == 0;
        return n;
    }

private:
    const Portal* Find(const IscsiPortal& p) {
        auto it = portals.find(Key(p));
        return it == portals.end() ? nullptr : &it->second;
    }
    bool Listed(const IscsiPortal& p) const {
        for (const auto& s : sendTargets)
            if (Key(s) == Key(p)) return true;
        return false;
    }
    // A discovery session with the portal: what a real initiator answers for
    // an address nobody listens on is "connection failed".
    DWORD Discover(const IscsiPortal& p) {
        const Portal* portal = Find(p);
        if (!portal || !portal->reachable || clockMs < portal->readyAtMs) return kx::platform::kIscsiConnectionFailed;
        for (const auto& t : portal->serves) {
            bool have = false;
            for (const auto& k : known) have = have || k == t;
            if (!have) known.push_back(t);
        }
        return 0;
    }
    unsigned nextId_ = 0;
};

}  // namespace kxtest
