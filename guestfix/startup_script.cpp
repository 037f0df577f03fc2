#include "guestfix/startup_script.h"

#include <algorithm>
#include <optional>
#include <vector>

#include "common/unique_resource.h"
#include "common/wstring_format.h"
#include "log/call_frame.h"
#include "log/debug_log.h"

namespace kx::guestfix {

namespace {

using hostutil::RegistryKey;

constexpr const wchar_t* kGroupPolicy = L"\\Microsoft\\Windows\\CurrentVersion\\Group Policy";
constexpr const wchar_t* kScriptTrees[] = {L"\\Scripts\\Startup", L"\\State\\Machine\\Scripts\\Startup"};
constexpr const wchar_t* kLocalGpo = L"LocalGPO";
constexpr const wchar_t* kOncePrefix = L"kxonce-";

std::wstring PolicyFolder(const std::wstring& systemDir) { return JoinPath(systemDir, L"System32\\GroupPolicy"); }
std::wstring ScriptsIni(const std::wstring& systemDir) {
    return PolicyFolder(systemDir) + L"\\Machine\\Scripts\\scripts.ini";
}
std::wstring GptIni(const std::wstring& systemDir) { return PolicyFolder(systemDir) + L"\\gpt.ini"; }

bool Exists(const std::wstring& path) { return ::GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES; }

DWORD WriteAll(const std::wstring& path, const void* data, DWORD bytes) {
    unique_hfile file(::CreateFileW(path.c_str(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL,
                                    nullptr));
    if (!file) return ::GetLastError();
    DWORD written = 0;
    if (!::WriteFile(file.get(), data, bytes, &written, nullptr)) return ::GetLastError();
    return written == bytes ? 0 : ERROR_WRITE_FAULT;
}

// A file's bytes as they were before a step, put back (or the file removed
// when there was none) unless the step is kept.
class FileSnapshot {
public:
    explicit FileSnapshot(std::wstring path) : path_(std::move(path)) {
        unique_hfile file(::CreateFileW(path_.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING,
                                        FILE_ATTRIBUTE_NORMAL, nullptr));
        if (!file) return;
        const DWORD size = ::GetFileSize(file.get(), nullptr);
        std::vector<BYTE> bytes(size);
        DWORD read = 0;
        if (size != INVALID_FILE_SIZE && ::ReadFile(file.get(), bytes.data(), size, &read, nullptr) && read == size)
            bytes_ = std::move(bytes);
    }
    FileSnapshot(const FileSnapshot&) = delete;
    FileSnapshot& operator=(const FileSnapshot&) = delete;
    ~FileSnapshot() {
        if (kept_) return;
        if (!bytes_) {
            ::DeleteFileW(path_.c_str());
        } else if (WriteAll(path_, bytes_->data(), static_cast<DWORD>(bytes_->size()))) {
            Log(0, L"Fail to restore %s", path_.c_str());
        }
    }
    bool Existed() const { return bytes_.has_value(); }
    void Keep() { kept_ = true; }

private:
    std::wstring path_;
    std::optional<std::vector<BYTE>> bytes_;
    bool kept_ = false;
};

// The folders of a path created here, removed again (when empty) unless kept.
class CreatedFolders {
public:
    DWORD Make(const std::wstring& base, const std::wstring& below) {
        std::wstring path = base;
        size_t from = 0;
        while (from <= below.size()) {
            const size_t end = std::min(below.find(L'\\', from), below.size());
            path = JoinPath(path, below.substr(from, end - from));
            from = end + 1;
            if (::CreateDirectoryW(path.c_str(), nullptr)) {
                made_.push_back(path);
            } else if (const DWORD rc = ::GetLastError(); rc != ERROR_ALREADY_EXISTS ||
                       !(::GetFileAttributesW(path.c_str()) & FILE_ATTRIBUTE_DIRECTORY)) {
                LogErr(0, rc, L"Fail to create folder %s", path.c_str());
                return rc == ERROR_ALREADY_EXISTS ? ERROR_DIRECTORY : rc;
            }
        }
        return 0;
    }
    void Keep() { made_.clear(); }
    ~CreatedFolders() {
        for (auto it = made_.rbegin(); it != made_.rend(); ++it) ::RemoveDirectoryW(it->c_str());
    }

private:
    std::vector<std::wstring> made_;
};

bool IsIndex(const std::wstring& name) {
    return !name.empty() && name.size() < 6 && std::all_of(name.begin(), name.end(), iswdigit);
}

// The sub-key of `key` with numeric name one above the highest there.
DWORD NextIndex(const RegistryKey& key) {
    DWORD next = 0;
    std::wstring name;
    for (DWORD i = 0; key.EnumSubKey(i, &name) == ERROR_SUCCESS; ++i)
        if (IsIndex(name)) next = std::max<DWORD>(next, std::stoul(name) + 1);
    return next;
}

// The numeric sub-key of `key` whose string `value` is `wanted` (any case);
// empty when none is.
std::wstring IndexHolding(const RegistryKey& key, const wchar_t* value, const std::wstring& wanted) {
    std::wstring name, text;
    for (DWORD i = 0; key.EnumSubKey(i, &name) == ERROR_SUCCESS; ++i)
        if (IsIndex(name) && !key.GetSubItem(name, KEY_READ).GetValue(value, L"", &text) && EqualsNoCase(text, wanted))
            return name;
    return {};
}

// One startup-script tree's change, undone unless kept.
class ScriptEntry {
public:
    ScriptEntry(const FixupHive& hive, std::wstring tree) : hive_(hive), tree_(std::move(tree)) {}
    ScriptEntry(const ScriptEntry&) = delete;
    ScriptEntry& operator=(const ScriptEntry&) = delete;
    ~ScriptEntry() {
        if (created_.empty() || kept_) return;
        const size_t cut = created_.rfind(L'\\');
        if (DWORD rc = hive_.Key(created_.substr(0, cut)).DelSubKey(created_.substr(cut + 1)))
            LogErr(0, rc, L"Fail to remove %s", created_.c_str());
    }

    DWORD Write(const std::wstring& rootOfGuest, const std::wstring& wrapper, const std::wstring& parameters,
                bool scriptsTree) {
        RegistryKey tree = hive_.Key(L"").CreateSubItem(tree_.substr(1), KEY_ALL_ACCESS);
        if (!tree) return Failed(tree.Error(), tree_);
        // The local policy's key when the guest has one, else the next index.
        std::wstring gpo = IndexHolding(tree, L"GPO-ID", kLocalGpo);
        if (gpo.empty()) {
            gpo = std::to_wstring(NextIndex(tree));
            RegistryKey key = tree.CreateSubItem(gpo, KEY_ALL_ACCESS);
            created_ = tree_ + L"\\" + gpo;
            DWORD rc = key.Error();
            if (!rc) rc = key.SetValue(L"GPO-ID", kLocalGpo);
            if (!rc) rc = key.SetValue(L"SOM-ID", L"Local");
            if (!rc) rc = key.SetValue(L"FileSysPath", rootOfGuest + L"\\System32\\GroupPolicy\\Machine");
            if (!rc) rc = key.SetValue(L"DisplayName", L"Local Group Policy");
            if (!rc) rc = key.SetValue(L"GPOName", L"Local Group Policy");
            if (!rc) rc = key.SetValue(L"PSScriptOrder", DWORD{1});
            if (rc) return Failed(rc, created_);
        }
        RegistryKey policy = tree.GetSubItem(gpo, KEY_ALL_ACCESS);
        std::wstring index = IndexHolding(policy, L"Script", wrapper);
        if (index.empty()) {
            index = std::to_wstring(NextIndex(policy));
            if (created_.empty()) created_ = tree_ + L"\\" + gpo + L"\\" + index;
        }
        const std::wstring path = tree_ + L"\\" + gpo + L"\\" + index;
        RegistryKey key = policy.CreateSubItem(index, KEY_ALL_ACCESS);
        const ULONGLONG never = 0;
        DWORD rc = key.Error();
        if (!rc) rc = key.SetValue(L"Script", wrapper);
        if (!rc) rc = key.SetValue(L"Parameters", parameters);
        if (!rc && scriptsTree) rc = key.SetValue(L"IsPowershell", DWORD{0});
        if (!rc) rc = key.SetRawValue(L"ExecTime", REG_QWORD, &never, sizeof never);
        if (rc) return Failed(rc, path);
        Log(2, L"Startup script %s is entry %s.", wrapper.c_str(), path.c_str());
        return 0;
    }
    void Keep() { kept_ = true; }

private:
    DWORD Failed(DWORD rc, const std::wstring& path) {
        LogErr(0, rc, L"Fail to write startup script entry %s", path.c_str());
        return rc;
    }
    const FixupHive& hive_;
    std::wstring tree_;
    std::wstring created_;  // the first key this entry created
    bool kept_ = false;
};

std::wstring Profile(const std::wstring& file, const wchar_t* section, const std::wstring& key) {
    wchar_t buffer[2048];
    const DWORD n = ::GetPrivateProfileStringW(section, key.c_str(), L"", buffer, 2048, file.c_str());
    return std::wstring(buffer, n);
}

DWORD PutProfile(const std::wstring& file, const wchar_t* section, const std::wstring& key,
                 const std::wstring& value) {
    if (::WritePrivateProfileStringW(section, key.c_str(), value.c_str(), file.c_str())) return 0;
    const DWORD rc = ::GetLastError();
    LogErr(0, rc ? rc : ERROR_WRITE_FAULT, L"Fail to write %s in %s", key.c_str(), file.c_str());
    return rc ? rc : ERROR_WRITE_FAULT;
}

// scripts.ini: the wrapper's index when listed, else the next free one.
DWORD WriteScriptsIni(const std::wstring& ini, const std::wstring& wrapper, const std::wstring& parameters) {
    if (!Exists(ini)) {
        static const BYTE kBom[] = {0xFF, 0xFE};
        if (DWORD rc = WriteAll(ini, kBom, sizeof kBom)) {
            LogErr(0, rc, L"Fail to create %s", ini.c_str());
            return rc;
        }
    }
    int index = 0;
    for (std::wstring cmd; !(cmd = Profile(ini, L"Startup", std::to_wstring(index) + L"CmdLine")).empty(); ++index)
        if (EqualsNoCase(cmd, wrapper)) break;
    const std::wstring n = std::to_wstring(index);
    if (DWORD rc = PutProfile(ini, L"Startup", n + L"CmdLine", wrapper)) return rc;
    return PutProfile(ini, L"Startup", n + L"Parameters", parameters);
}

DWORD WriteGptIni(const std::wstring& ini) {
    const UINT version = ::GetPrivateProfileIntW(L"General", L"Version", 0, ini.c_str());
    const UINT next = (version & 0xFFFF0000u) | ((version + 1) & 0xFFFFu);
    const std::wstring names = Profile(ini, L"General", L"gPCMachineExtensionNames");
    if (DWORD rc = PutProfile(ini, L"General", L"gPCMachineExtensionNames", WithScriptsExtension(names))) return rc;
    return PutProfile(ini, L"General", L"Version", std::to_wstring(next));
}

std::wstring WrapperText(const std::wstring& scriptName) {
    const std::wstring run =
        EndsWithNoCase(scriptName, L".ps1")
            ? L"powershell.exe -NoProfile -ExecutionPolicy Bypass -File \"%~dp0" + scriptName + L"\" %*"
            : L"call \"%~dp0" + scriptName + L"\" %*";
    return L"@echo off\r\n"
           L"rem Runs the script once: the marker beside this file ends every later start.\r\n"
           L"if exist \"%~dpn0.done\" exit /b 0\r\n"
           L"echo done>\"%~dpn0.done\"\r\n" +
           run + L"\r\n";
}

DWORD WriteWrapper(const std::wstring& path, const std::wstring& scriptName) {
    const std::wstring text = WrapperText(scriptName);
    const int n = ::WideCharToMultiByte(CP_OEMCP, 0, text.data(), static_cast<int>(text.size()), nullptr, 0,
                                        nullptr, nullptr);
    std::string bytes(static_cast<size_t>(n), '\0');
    ::WideCharToMultiByte(CP_OEMCP, 0, text.data(), static_cast<int>(text.size()), bytes.data(), n, nullptr, nullptr);
    const DWORD rc = WriteAll(path, bytes.data(), static_cast<DWORD>(bytes.size()));
    if (rc) LogErr(0, rc, L"Fail to write %s", path.c_str());
    return rc;
}

DWORD Register(const std::wstring& systemDir, const std::wstring& scriptName, const std::wstring& parameters,
               HiveLoader* given) {
    if (scriptName.empty() || scriptName.find_first_of(L"\\/:") != std::wstring::npos)
        return ERROR_INVALID_PARAMETER;
    const std::wstring folder = StartupScriptFolder(systemDir);
    if (!Exists(folder + L"\\" + scriptName)) {
        LogErr(0, ERROR_FILE_NOT_FOUND, L"Startup script %s is not in %s", scriptName.c_str(), folder.c_str());
        return ERROR_FILE_NOT_FOUND;
    }
    const std::wstring wrapper = OnceWrapperName(scriptName);
    const std::wstring wrapperPath = folder + L"\\" + wrapper;
    std::wstring marker = wrapperPath;
    marker.replace(marker.size() - 4, 4, L".done");

    FileSnapshot wrapperFile(wrapperPath), scriptsIni(ScriptsIni(systemDir)), gptIni(GptIni(systemDir)),
        markerFile(marker);
    if (DWORD rc = WriteWrapper(wrapperPath, scriptName)) return rc;

    FixupHive hive;
    if (DWORD rc = hive.Acquire(GuestHive::kSoftware, systemDir, given)) return rc;
    std::wstring root;
    (void)hive.Key(L"\\Microsoft\\Windows NT\\CurrentVersion", KEY_READ).GetValue(L"SystemRoot", L"C:\\Windows", &root);
    ScriptEntry scripts(hive, std::wstring(kGroupPolicy) + kScriptTrees[0]);
    ScriptEntry state(hive, std::wstring(kGroupPolicy) + kScriptTrees[1]);
    if (DWORD rc = scripts.Write(root, wrapper, parameters, true)) return rc;
    if (DWORD rc = state.Write(root, wrapper, parameters, false)) return rc;
    if (DWORD rc = WriteScriptsIni(ScriptsIni(systemDir), wrapper, parameters)) return rc;
    if (DWORD rc = WriteGptIni(GptIni(systemDir))) return rc;
    if (markerFile.Existed() && !::DeleteFileW(marker.c_str())) {
        const DWORD rc = ::GetLastError();
        LogErr(0, rc, L"Fail to remove %s", marker.c_str());
        return rc;
    }
    for (auto* done : {&wrapperFile, &scriptsIni, &gptIni, &markerFile}) done->Keep();
    scripts.Keep();
    state.Keep();
    return 0;
}

DWORD CopyAndRegister(const std::wstring& systemDir, const std::wstring& scriptFile, const std::wstring& parameters) {
    const DWORD attributes = ::GetFileAttributesW(scriptFile.c_str());
    if (attributes == INVALID_FILE_ATTRIBUTES || (attributes & FILE_ATTRIBUTE_DIRECTORY)) {
        LogErr(0, ERROR_FILE_NOT_FOUND, L"Script %s not found", scriptFile.c_str());
        return ERROR_FILE_NOT_FOUND;
    }
    const size_t cut = scriptFile.find_last_of(L"\\/");
    const std::wstring name = cut == std::wstring::npos ? scriptFile : scriptFile.substr(cut + 1);
    CreatedFolders folders;
    if (DWORD rc = folders.Make(systemDir, L"System32\\GroupPolicy\\Machine\\Scripts\\Startup")) return rc;
    const std::wstring target = StartupScriptFolder(systemDir) + L"\\" + name;
    FileSnapshot copy(target);
    if (!::CopyFileW(scriptFile.c_str(), target.c_str(), FALSE)) {
        const DWORD rc = ::GetLastError();
        LogErr(0, rc, L"Fail to copy %s to %s", scriptFile.c_str(), target.c_str());
        return rc;
    }
    ::SetFileAttributesW(target.c_str(), FILE_ATTRIBUTE_NORMAL);
    if (DWORD rc = Register(systemDir, name, parameters, nullptr)) return rc;
    copy.Keep();
    folders.Keep();
    return 0;
}

}  // namespace

std::wstring StartupScriptFolder(const std::wstring& systemDir) {
    return PolicyFolder(systemDir) + L"\\Machine\\Scripts\\Startup";
}

std::wstring OnceWrapperName(const std::wstring& scriptName) {
    std::wstring stem = scriptName;
    if (const size_t dot = stem.rfind(L'.'); dot != std::wstring::npos && dot > 0) stem.resize(dot);
    return kOncePrefix + stem + L".cmd";
}

std::wstring WithScriptsExtension(const std::wstring& names) {
    std::vector<std::vector<std::wstring>> groups;
    for (size_t open = names.find(L'['); open != std::wstring::npos; open = names.find(L'[', open + 1)) {
        const size_t close = names.find(L']', open);
        if (close == std::wstring::npos) break;
        std::vector<std::wstring> group;
        for (size_t b = names.find(L'{', open); b < close; b = names.find(L'{', b + 1)) {
            const size_t e = names.find(L'}', b);
            if (e == std::wstring::npos || e > close) break;
            group.push_back(names.substr(b, e - b + 1));
        }
        if (!group.empty()) groups.push_back(std::move(group));
    }
    auto upper = [](std::wstring s) {
        std::transform(s.begin(), s.end(), s.begin(), towupper);
        return s;
    };
    auto less = [&](const std::wstring& a, const std::wstring& b) { return upper(a) < upper(b); };
    auto scripts = std::find_if(groups.begin(), groups.end(),
                                [](const auto& g) { return EqualsNoCase(g.front(), kScriptsExtension); });
    if (scripts == groups.end()) {
        groups.push_back({kScriptsExtension, kScriptsEditor});
    } else if (std::none_of(scripts->begin() + 1, scripts->end(),
                            [](const auto& t) { return EqualsNoCase(t, kScriptsEditor); })) {
        scripts->push_back(kScriptsEditor);
        std::sort(scripts->begin() + 1, scripts->end(), less);
    }
    std::stable_sort(groups.begin(), groups.end(), [&](const auto& a, const auto& b) { return less(a[0], b[0]); });
    std::wstring out;
    for (const auto& g : groups) {
        out += L'[';
        for (const auto& guid : g) out += guid;
        out += L']';
    }
    return out;
}

DWORD Ivm_InjectStartupScriptToHive(const std::wstring& systemDir, const std::wstring& scriptName,
                                    const std::wstring& parameters, HiveLoader* software) {
    return RunExport<kIvm_InjectStartupScriptToHive>(
        [&](auto&) -> DWORD { return Register(systemDir, scriptName, parameters, software); }, systemDir.c_str(),
        scriptName.c_str());
}

DWORD InjectScript(const std::wstring& systemDir, const std::wstring& scriptFile, const std::wstring& parameters) {
    return RunExport<kInjectScript>(
        [&](auto&) -> DWORD { return CopyAndRegister(systemDir, scriptFile, parameters); }, systemDir.c_str(),
        scriptFile.c_str());
}

}  // namespace kx::guestfix
