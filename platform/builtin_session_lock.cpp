#include "platform/builtin_session_lock.h"

#include <algorithm>
#include <cwctype>
#include <mutex>
#include <new>

#include "common/dest_layout.h"
#include "common/result_codes.h"
#include "common/unique_resource.h"
#include "common/wstring_format.h"
#include "log/debug_log.h"

namespace kx::platform {

namespace {

constexpr DWORD kRetryStepMs = 50;        // between attempts of one request
constexpr int kRecordReadTries = 40;      // a record being rewritten is read again...
constexpr DWORD kRecordReadStepMs = 5;    // ...this often
constexpr int kMarkerTries = 200;         // a reader's probe holds the marker only briefly
constexpr int kDeletePendingTries = 5;    // a lock file being deleted by its last holder
constexpr size_t kMaxRecordBytes = 4u << 20;

// Who this process is, as written into its lock records.
struct Identity {
    std::wstring domain, computer, user;
};

std::wstring Env(const wchar_t* name) {
    wchar_t buf[256];
    DWORD n = ::GetEnvironmentVariableW(name, buf, 256);
    return n && n < 256 ? std::wstring(buf, n) : std::wstring();
}

Identity LoadIdentity() {
    Identity id;
    wchar_t buf[256];
    DWORD n = 256;
    if (::GetComputerNameExW(ComputerNameNetBIOS, buf, &n)) id.computer.assign(buf, n);
    HANDLE raw = nullptr;
    if (::OpenProcessToken(::GetCurrentProcess(), TOKEN_QUERY, &raw)) {
        unique_handle token(raw);
        DWORD size = 0;
        ::GetTokenInformation(token.get(), TokenUser, nullptr, 0, &size);
        std::vector<BYTE> info(size ? size : 1);
        if (size && ::GetTokenInformation(token.get(), TokenUser, info.data(), size, &size)) {
            wchar_t name[256], domain[256];
            DWORD nameLen = 256, domainLen = 256;
            SID_NAME_USE use;
            if (::LookupAccountSidW(nullptr, reinterpret_cast<TOKEN_USER*>(info.data())->User.Sid, name, &nameLen,
                                    domain, &domainLen, &use)) {
                id.user = name;
                id.domain = domain;
            }
        }
    }
    if (id.user.empty()) {
        n = 256;
        if (::GetUserNameW(buf, &n)) id.user = buf;
    }
    if (id.domain.empty()) id.domain = Env(L"USERDOMAIN");
    return id;
}

const Identity& Self() {
    static const Identity id = LoadIdentity();
    return id;
}

std::wstring OneLine(std::wstring s) {
    for (auto& c : s)
        if (c == L'\r' || c == L'\n') c = L' ';
    return s;
}

uint32_t Fnv1a(const std::wstring& text) {
    uint32_t h = 2166136261u;
    for (wchar_t c : text) {
        h ^= static_cast<uint16_t>(c) & 0xFF;
        h *= 16777619u;
        h ^= static_cast<uint16_t>(c) >> 8;
        h *= 16777619u;
    }
    return h;
}

std::wstring RecordText(const SessionLockRecord& r) {
    std::wstring t = L"[SessionLock]\r\n";
    t += Format(L"ProcessId=%lu\r\nOp=%d\r\n", r.processId, r.op);
    t += L"Domain=" + OneLine(r.domain) + L"\r\n";
    t += L"Computer=" + OneLine(r.computer) + L"\r\n";
    t += L"User=" + OneLine(r.user) + L"\r\n";
    t += L"Desc=" + OneLine(r.desc) + L"\r\n";
    t += L"File=" + OneLine(r.file) + L"\r\n";
    t += L"Root=" + OneLine(r.root) + L"\r\n";
    t += Format(L"Session=%lu\r\n", r.session);
    for (const auto& e : r.excluded) t += L"Excluded=" + OneLine(e) + L"\r\n";
    t += Format(L"Check=%08X\r\n", Fnv1a(t));
    return t;
}

// False unless the text is a whole record whose Check matches.
bool ParseRecord(const std::wstring& text, SessionLockRecord& r) {
    const size_t check = text.rfind(L"Check=");
    if (check == std::wstring::npos || (check && text[check - 1] != L'\n')) return false;
    const std::wstring body = text.substr(0, check);
    if (Format(L"Check=%08X", Fnv1a(body)) != text.substr(check, 14)) return false;
    r = SessionLockRecord{};
    size_t pos = 0;
    while (pos < body.size()) {
        size_t end = body.find(L"\r\n", pos);
        if (end == std::wstring::npos) end = body.size();
        const std::wstring line = body.substr(pos, end - pos);
        pos = end + 2;
        const size_t eq = line.find(L'=');
        if (eq == std::wstring::npos) continue;
        const std::wstring name = line.substr(0, eq), value = line.substr(eq + 1);
        if (name == L"ProcessId") r.processId = wcstoul(value.c_str(), nullptr, 10);
        else if (name == L"Op") r.op = static_cast<int>(wcstol(value.c_str(), nullptr, 10));
        else if (name == L"Domain") r.domain = value;
        else if (name == L"Computer") r.computer = value;
        else if (name == L"User") r.user = value;
        else if (name == L"Desc") r.desc = value;
        else if (name == L"File") r.file = value;
        else if (name == L"Root") r.root = value;
        else if (name == L"Session") r.session = wcstoul(value.c_str(), nullptr, 10);
        else if (name == L"Excluded") r.excluded.push_back(value);
    }
    return true;
}

DWORD WriteRecord(HANDLE file, const SessionLockRecord& r) {
    const std::wstring text = L"\xFEFF" + RecordText(r);
    LARGE_INTEGER zero{};
    KX_RETURN_IF_WIN32_FALSE(::SetFilePointerEx(file, zero, nullptr, FILE_BEGIN), L"lock record: SetFilePointerEx");
    DWORD written = 0;
    const DWORD bytes = static_cast<DWORD>(text.size() * sizeof(wchar_t));
    KX_RETURN_IF_WIN32_FALSE(::WriteFile(file, text.data(), bytes, &written, nullptr), L"lock record: WriteFile");
    if (written != bytes) return ERROR_WRITE_FAULT;
    KX_RETURN_IF_WIN32_FALSE(::SetEndOfFile(file), L"lock record: SetEndOfFile");
    return 0;
}

// Reads a record through `file` (any handle with read access); retries while
// the holder is still writing it.
DWORD ReadRecord(HANDLE file, SessionLockRecord& r) {
    for (int i = 0; i < kRecordReadTries; ++i) {
        if (i) ::Sleep(kRecordReadStepMs);
        LARGE_INTEGER size{}, zero{};
        if (!::GetFileSizeEx(file, &size)) return LastErrorOr();
        if (size.QuadPart < 2 || static_cast<ULONGLONG>(size.QuadPart) > kMaxRecordBytes) continue;
        std::wstring text(static_cast<size_t>(size.QuadPart) / sizeof(wchar_t), L'\0');
        DWORD got = 0;
        if (!::SetFilePointerEx(file, zero, nullptr, FILE_BEGIN) ||
            !::ReadFile(file, text.data(), static_cast<DWORD>(text.size() * sizeof(wchar_t)), &got, nullptr))
            return LastErrorOr();
        text.resize(got / sizeof(wchar_t));
        if (!text.empty() && text[0] == L'\xFEFF') text.erase(0, 1);
        if (ParseRecord(text, r)) return 0;
    }
    return ERROR_INVALID_DATA;
}

// A read handle that neither a holder nor a would-be holder minds.
HANDLE OpenForReading(const std::wstring& path) {
    return ::CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, OPEN_EXISTING,
                         FILE_ATTRIBUTE_NORMAL, nullptr);
}

// Where the held marker's byte lock sits (LockFileEx takes its range start
// in an OVERLAPPED).
OVERLAPPED MarkerPosition() {
    OVERLAPPED o{};
    o.Offset = static_cast<DWORD>(kHeldMarkerOffset);
    o.OffsetHigh = static_cast<DWORD>(kHeldMarkerOffset >> 32);
    return o;
}

// True when somebody holds the file `read` was opened on.
bool IsHeld(HANDLE read) {
    OVERLAPPED ov = MarkerPosition();
    if (::LockFileEx(read, LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &ov)) {
        ov = MarkerPosition();
        ::UnlockFileEx(read, 0, 1, 0, &ov);
        return false;
    }
    return true;
}

void TakeMarker(HANDLE file, const std::wstring& path) {
    for (int i = 0; i < kMarkerTries; ++i) {
        OVERLAPPED ov = MarkerPosition();
        if (::LockFileEx(file, LOCKFILE_EXCLUSIVE_LOCK | LOCKFILE_FAIL_IMMEDIATELY, 0, 1, 0, &ov)) return;
        ::Sleep(1);
    }
    // The share mode still keeps the session ours; readers just can't tell.
    LogErr(0, ::GetLastError(), L"SessionLock: cannot mark %s as held", path.c_str());
}

SessionLockConflict ConflictFrom(const SessionLockRecord& r, const std::wstring& path) {
    SessionLockConflict c;
    c.processId = r.processId;
    c.op = r.op;
    c.errorCode = ERROR_LOCK_VIOLATION;
    c.Domain = r.domain;
    c.Computer = r.computer;
    c.User = r.user;
    c.Desc = r.desc;
    c.File = r.file.empty() ? path : r.file;
    return c;
}

// The session named by a path's last "S<digits>" component; false if none.
bool SessionInPath(const std::wstring& path, DWORD* session) {
    bool found = false;
    size_t pos = 0;
    while (pos <= path.size()) {
        size_t end = path.find_first_of(L"\\/", pos);
        if (end == std::wstring::npos) end = path.size();
        const std::wstring part = path.substr(pos, end - pos);
        if (part.size() > 1 && (part[0] == L'S' || part[0] == L's') &&
            std::all_of(part.begin() + 1, part.end(), [](wchar_t c) { return c >= L'0' && c <= L'9'; })) {
            *session = wcstoul(part.c_str() + 1, nullptr, 10);
            found = true;
        }
        pos = end + 1;
    }
    return found;
}

class BuiltinSessionLock final : public ISessionLock {
public:
    explicit BuiltinSessionLock(int op) : op_(op) {}

    void Release() override {
        UnlockSession();
        delete this;
    }

    DWORD LockSession(const SessionLockRequest& request, std::vector<SessionLockConflict>& conflicts) override {
        std::lock_guard<std::mutex> guard(mu_);
        conflicts.clear();
        if (!held_.empty()) {
            Log(0, L"SessionLock: already holding %d session(s) of %s", static_cast<int>(held_.size()),
                root_.c_str());
            return ERROR_INVALID_STATE;
        }
        std::vector<DWORD> sessions = request.sessions;
        std::sort(sessions.begin(), sessions.end());
        sessions.erase(std::unique(sessions.begin(), sessions.end()), sessions.end());
        root_ = request.root;
        desc_ = request.jobDescription;
        asked_ = sessions;
        if (sessions.empty()) return 0;
        if (root_.empty()) return ERROR_INVALID_PARAMETER;

        const DWORD attrs = ::GetFileAttributesW(root_.c_str());
        if (attrs == INVALID_FILE_ATTRIBUTES) {
            const DWORD rc = LastErrorOr();
            LogErr(0, rc, L"SessionLock: destination %s not found", root_.c_str());
            return rc;
        }
        if (!(attrs & FILE_ATTRIBUTE_DIRECTORY)) return ERROR_DIRECTORY;
        const std::wstring folder = JoinPath(root_, kSessionLockFolder);
        if (!::CreateDirectoryW(folder.c_str(), nullptr)) {
            const DWORD rc = ::GetLastError();
            const DWORD fa = ::GetFileAttributesW(folder.c_str());
            if (rc != ERROR_ALREADY_EXISTS || fa == INVALID_FILE_ATTRIBUTES || !(fa & FILE_ATTRIBUTE_DIRECTORY)) {
                LogErr(0, rc, L"SessionLock: cannot create %s", folder.c_str());
                return rc ? rc : ERROR_DIRECTORY;
            }
        }

        const ULONGLONG start = ::GetTickCount64();
        for (;;) {
            size_t refused = 0;
            const DWORD rc = TakeAll(sessions, &refused);
            if (rc == 0) {
                Log(2, L"SessionLock: op %d holds %d session(s) [%lu..%lu] of %s", op_,
                    static_cast<int>(held_.size()), sessions.front(), sessions.back(), root_.c_str());
                return 0;
            }
            if (rc != ERROR_SHARING_VIOLATION) return rc;
            const ULONGLONG waited = ::GetTickCount64() - start;
            if (request.wait != INFINITE && waited >= request.wait) {
                conflicts = Conflicts(sessions, refused);
                Log(0, L"SessionLock: op %d refused after %I64u ms, %d session(s) of %s held elsewhere", op_, waited,
                    static_cast<int>(conflicts.size()), root_.c_str());
                return ERROR_LOCK_VIOLATION;
            }
            DWORD step = kRetryStepMs;
            if (request.wait != INFINITE) step = static_cast<DWORD>(std::min<ULONGLONG>(step, request.wait - waited));
            ::Sleep(step);
        }
    }

    DWORD QueryLock(std::vector<SessionLockConflict>& holders) override {
        std::lock_guard<std::mutex> guard(mu_);
        holders.clear();
        if (!held_.empty()) {
            for (const auto& h : held_) {
                SessionLockConflict c = ConflictFrom(h.record, h.record.file);
                c.errorCode = 0;
                holders.push_back(std::move(c));
            }
            return 0;
        }
        DWORD first = 0;
        for (DWORD s : asked_) {
            SessionLockRecord r;
            const DWORD rc = ReadSessionLock(root_, s, r);
            if (rc == 0) holders.push_back(ConflictFrom(r, SessionLockFilePath(root_, s)));
            else if (rc != ERROR_NOT_LOCKED && !first) first = rc;
        }
        return first;
    }

    DWORD ExcludeFile(const std::wstring& sessionRoot, const std::wstring& relativePath) override {
        std::lock_guard<std::mutex> guard(mu_);
        if (held_.empty()) return ERROR_NOT_LOCKED;
        if (relativePath.empty()) return ERROR_INVALID_PARAMETER;
        const std::wstring full = sessionRoot.empty() ? relativePath : JoinPath(sessionRoot, relativePath);
        DWORD session = 0;
        const bool named = SessionInPath(relativePath, &session);
        bool any = false;
        for (auto& h : held_) {
            if (named && h.record.session != session) continue;
            any = true;
            auto& ex = h.record.excluded;
            if (std::any_of(ex.begin(), ex.end(), [&](const std::wstring& e) { return EqualsNoCase(e, full); }))
                continue;
            ex.push_back(full);
            if (DWORD rc = WriteRecord(h.file.get(), h.record)) {
                ex.pop_back();
                LogErr(0, rc, L"SessionLock: cannot record exclusion of %s in %s", full.c_str(),
                       h.record.file.c_str());
                return rc;
            }
            Log(4, L"SessionLock: %s excluded from session %lu", full.c_str(), h.record.session);
        }
        return any ? 0 : ERROR_NOT_LOCKED;
    }

    DWORD UnlockSession() override {
        std::lock_guard<std::mutex> guard(mu_);
        if (held_.empty()) return 0;
        Log(2, L"SessionLock: op %d unlocks %d session(s) of %s", op_, static_cast<int>(held_.size()),
            root_.c_str());
        ReleaseHeld();
        return 0;
    }

private:
    struct Held {
        unique_hfile file;
        SessionLockRecord record;
    };

    // One attempt over every session, in order. ERROR_SHARING_VIOLATION with
    // `refused` = the index of the session held elsewhere, or another code
    // for a failure that waiting won't cure; nothing stays taken on failure.
    DWORD TakeAll(const std::vector<DWORD>& sessions, size_t* refused) {
        for (size_t i = 0; i < sessions.size(); ++i) {
            const std::wstring path = SessionLockFilePath(root_, sessions[i]);
            unique_hfile file;
            DWORD rc = 0;
            for (int t = 0; t < kDeletePendingTries; ++t) {
                if (t) ::Sleep(2);
                file.reset(::CreateFileW(path.c_str(), GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ, nullptr,
                                         CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
                rc = file ? 0 : LastErrorOr();
                if (rc != ERROR_ACCESS_DENIED) break;  // a delete in progress clears in microseconds
            }
            if (rc == 0) {
                Held h;
                h.record.processId = ::GetCurrentProcessId();
                h.record.op = op_;
                h.record.domain = Self().domain;
                h.record.computer = Self().computer;
                h.record.user = Self().user;
                h.record.desc = desc_;
                h.record.file = path;
                h.record.root = root_;
                h.record.session = sessions[i];
                rc = WriteRecord(file.get(), h.record);
                if (rc == 0) {
                    TakeMarker(file.get(), path);
                    h.file = std::move(file);
                    held_.push_back(std::move(h));
                    continue;
                }
            }
            if (rc == ERROR_LOCK_VIOLATION) rc = ERROR_SHARING_VIOLATION;
            if (rc != ERROR_SHARING_VIOLATION) LogErr(0, rc, L"SessionLock: cannot take %s", path.c_str());
            *refused = i;
            ReleaseHeld();
            return rc;
        }
        return 0;
    }

    // The holders met by the last attempt: the one that refused it, and any
    // later session of the request that is held too.
    std::vector<SessionLockConflict> Conflicts(const std::vector<DWORD>& sessions, size_t refused) const {
        std::vector<SessionLockConflict> out;
        for (size_t i = refused; i < sessions.size(); ++i) {
            const std::wstring path = SessionLockFilePath(root_, sessions[i]);
            unique_hfile read(OpenForReading(path));
            if (i != refused && (!read || !IsHeld(read.get()))) continue;
            SessionLockRecord r;
            if (!read || ReadRecord(read.get(), r) != 0) r = SessionLockRecord{};
            out.push_back(ConflictFrom(r, path));
        }
        return out;
    }

    void ReleaseHeld() {
        for (auto& h : held_) {
            h.file.reset();
            // Fails harmlessly when a new holder or a reader has it open.
            ::DeleteFileW(h.record.file.c_str());
        }
        held_.clear();
    }

    const int op_;
    std::mutex mu_;
    std::wstring root_, desc_;
    std::vector<DWORD> asked_;
    std::vector<Held> held_;
};

}  // namespace

std::wstring SessionLockFilePath(const std::wstring& root, DWORD session) {
    return JoinPath(JoinPath(root, kSessionLockFolder), SessionFolderName(session) + L".lock");
}

DWORD ReadSessionLock(const std::wstring& root, DWORD session, SessionLockRecord& record) {
    record = SessionLockRecord{};
    const std::wstring path = SessionLockFilePath(root, session);
    unique_hfile read(OpenForReading(path));
    if (!read) {
        const DWORD rc = LastErrorOr();
        return rc == ERROR_FILE_NOT_FOUND || rc == ERROR_PATH_NOT_FOUND ? ERROR_NOT_LOCKED : rc;
    }
    if (!IsHeld(read.get())) return ERROR_NOT_LOCKED;
    return ReadRecord(read.get(), record);
}

DWORD CreateBuiltinSessionLock(int op, ISessionLock** lock) {
    if (!lock) return kE_POINTER;
    *lock = new (std::nothrow) BuiltinSessionLock(op);
    return *lock ? 0 : ERROR_OUTOFMEMORY;
}

}  // namespace kx::platform
