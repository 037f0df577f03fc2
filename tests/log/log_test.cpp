// The debug log: several processes in one log across rotations, the header
// and line format, thresholds from the registry and the shared settings, the
// encoding of existing files, and writers that hang or die holding the file.
#include <gtest/gtest.h>

#include <cwchar>
#include <map>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "common/unique_resource.h"
#include "common/wstring_format.h"
#include "kx_test.h"
#include "log/debug_log.h"
#include "log/logger.h"
#include "test_run.h"

namespace {

using kx::log::Logger;

const wchar_t* const kTitle = L"[   Date        Time      Level  PID     TID   ErrCode    ] .......";
// Time, level, pid, tid, code column (blank or 0X%08x), text.
const std::wregex kLineRe(
    L"\\[\\d{4}/\\d{2}/\\d{2} \\d{2}:\\d{2}:\\d{2}:\\d{3}   (\\d{2})   (\\d{5,})   (\\d{5,})   "
    L"(0X[0-9a-f]{8}|          )\\] (.*)");

// A module name no other test program uses, so that its shared threshold
// is this run's alone.
std::wstring Module(const wchar_t* what) {
    return kx::Format(L"KxLogTest%s%lu", what, ::GetCurrentProcessId());
}

// The title line and the six prefixed summary lines at the start of a file,
// logged at the file's threshold without a code.
void ExpectHeader(const std::vector<std::wstring>& lines, int threshold) {
    ASSERT_GE(lines.size(), 7u);
    EXPECT_EQ(lines[0], kTitle);
    for (int i = 1; i < 7; ++i) {
        std::wsmatch m;
        ASSERT_TRUE(std::regex_match(lines[i], m, kLineRe)) << kxtest::Narrow(lines[i]);
        EXPECT_EQ(std::stoi(m[1].str()), threshold);
        EXPECT_EQ(m[4].str(), L"          ");
    }
    EXPECT_EQ(kxtest::ParseLogLine(lines[1])->text, L"================ SUMMARY LOG =======================");
}

std::vector<std::wstring> Texts(const std::vector<std::wstring>& lines, size_t from) {
    std::vector<std::wstring> out;
    for (size_t i = from; i < lines.size(); ++i) {
        auto l = kxtest::ParseLogLine(lines[i]);
        out.push_back(l ? l->text : lines[i]);
    }
    return out;
}

}  // namespace

// Four processes write 5,000 lines each into one log whose rotation size is
// low enough for several rotations during the run.
TEST(LogFile, FourProcessesShareOneLogAcrossRotations) {
    constexpr int kWriters = 4;
    constexpr int kLines = 5000;
    constexpr uint64_t kLimit = 160 * 1024;
    kxtest::ScratchDir dir;
    const std::wstring stem = dir / L"Shared";
    const std::wstring module = Module(L"Writer");
    Logger holder(stem.c_str(), module.c_str());  // keeps the shared configuration alive for the run
    holder.SetRotationLimit(kLimit);

    const std::wstring goName = kx::Format(L"Local\\KxLogTestGo%lu", ::GetCurrentProcessId());
    kx::unique_handle go(::CreateEventW(nullptr, TRUE, FALSE, goName.c_str()));
    ASSERT_TRUE(go);
    std::vector<kx::unique_handle> children;
    for (int w = 0; w < kWriters; ++w) {
        children.emplace_back(kxtest::SpawnHelper(L"LogFile.DISABLED_WriterProcess",
                                                  kx::Format(L"%s|%s|%d|%d|%llu|%s", stem.c_str(), module.c_str(), w,
                                                             kLines, kLimit, goName.c_str())));
        ASSERT_TRUE(children.back());
    }
    ::SetEvent(go.get());
    for (auto& c : children) {
        ASSERT_EQ(::WaitForSingleObject(c.get(), 240000), WAIT_OBJECT_0);
        DWORD code = 1;
        ::GetExitCodeProcess(c.get(), &code);
        EXPECT_EQ(code, 0u);
    }

    std::vector<std::wstring> files{stem + L".Log"};
    while (kxtest::Exists(kx::Format(L"%s.%08d.log", stem.c_str(), static_cast<int>(files.size()))))
        files.push_back(kx::Format(L"%s.%08d.log", stem.c_str(), static_cast<int>(files.size())));
    ASSERT_GE(files.size(), 4u) << "the run should rotate several times";
    wchar_t current[kx::log::kPathChars];
    holder.CurrentFile(current);
    EXPECT_EQ(files.back(), current);

    std::map<int, std::set<int>> seen;
    std::vector<int> last(kWriters, -1);
    for (size_t f = 0; f < files.size(); ++f) {
        SCOPED_TRACE(kxtest::Narrow(files[f]));
        const auto bytes = kxtest::ReadBytes(files[f]);
        // Every writer moved on together: no file was left before it was full,
        // and none grew by more than the one line that filled it.
        if (f + 1 < files.size()) {
            EXPECT_GE(bytes.size(), kLimit);
            EXPECT_LT(bytes.size(), kLimit + 512);
        }
        const auto lines = kxtest::ReadLogFileLines(files[f]);
        ExpectHeader(lines, kx::log::kDefaultThreshold);
        for (size_t i = 7; i < lines.size(); ++i) {
            std::wsmatch m;
            ASSERT_TRUE(std::regex_match(lines[i], m, kLineRe)) << "torn line: " << kxtest::Narrow(lines[i]);
            int w = -1, n = -1;
            ASSERT_EQ(swscanf(m[5].str().c_str(), L"writer %d line %d", &w, &n), 2) << kxtest::Narrow(lines[i]);
            ASSERT_TRUE(w >= 0 && w < kWriters && n >= 0 && n < kLines);
            EXPECT_EQ(m[5].str(), kx::Format(L"writer %d line %06d %s", w, n,
                                             std::wstring(static_cast<size_t>(n % 41), L'x').c_str()));
            EXPECT_EQ(std::stoi(m[1].str()), 1 + n % 2);
            EXPECT_EQ(m[4].str(), n % 5 == 0 ? kx::Format(L"0X%08x", 0x80070000u + n) : L"          ");
            EXPECT_TRUE(seen[w].insert(n).second) << "line written twice: " << kxtest::Narrow(lines[i]);
            EXPECT_GT(n, last[w]) << "a writer went back to an older file";
            last[w] = n;
        }
    }
    for (int w = 0; w < kWriters; ++w) EXPECT_EQ(seen[w].size(), static_cast<size_t>(kLines)) << "writer " << w;
}

// A writer of FourProcessesShareOneLogAcrossRotations, in a process of its
// own: "<stem>|<module>|<writer>|<lines>|<rotation bytes>|<start event>". The
// text, level and error code of its lines follow from writer and line number.
TEST(LogFile, DISABLED_WriterProcess) {
    const auto task = kxtest::HelperTask();
    ASSERT_EQ(task.size(), 6u);
    Logger log(task[0].c_str(), task[1].c_str());
    log.SetRotationLimit(std::stoull(task[4]));
    if (kx::unique_handle go{::OpenEventW(SYNCHRONIZE, FALSE, task[5].c_str())}) ::WaitForSingleObject(go.get(), 60000);
    for (int i = 0, lines = std::stoi(task[3]); i < lines; ++i) {
        const std::wstring tail(static_cast<size_t>(i % 41), L'x');
        const DWORD error = i % 5 == 0 ? 0x80070000u + static_cast<DWORD>(i) : 0;
        log.Write(1 + i % 2, error, L"writer %s line %06d %s", task[2].c_str(), i, tail.c_str());
    }
}

// An existing narrow file keeps its encoding and gets no header; a new one
// (at most the byte-order mark) is Unicode with the header.
TEST(LogFile, ExistingFileKeepsItsEncoding) {
    kxtest::ScratchDir dir;
    const std::wstring module = Module(L"Encoding");
    kxtest::SetRegValue(kxtest::kDebugKey, module, 2);

    kxtest::WriteText(dir / L"Narrow.Log", "old narrow line\r\n");
    Logger narrow((dir / L"Narrow").c_str(), module.c_str());
    narrow.Write(1, 5, L"appended %s", L"narrow");
    const auto bytes = kxtest::ReadBytes(dir / L"Narrow.Log");
    const std::string text(bytes.begin(), bytes.end());
    EXPECT_TRUE(std::regex_match(text, std::regex("old narrow line\r\n\\[[0-9/ :]{23}   01   \\d{5,}   \\d{5,}   "
                                                  "0X00000005\\] appended narrow\r\n")))
        << text;

    // A file of the mark alone is new: header, then prefixed lines cut at
    // 1023 characters; logging leaves the caller's last error alone.
    const wchar_t mark = 0xFEFF;
    kxtest::WriteBytes(dir / L"Mark.Log", &mark, sizeof mark);
    Logger marked((dir / L"Mark").c_str(), module.c_str());
    ::SetLastError(1234);
    marked.Write(2, 0, L"plain %s %d", L"wide", 7);
    EXPECT_EQ(::GetLastError(), 1234u);
    const std::wstring longText(3000, L'y');
    marked.Write(1, 0, L"%s", longText.c_str());
    const auto lines = kxtest::ReadLogFileLines(dir / L"Mark.Log");
    ExpectHeader(lines, 2);
    EXPECT_EQ(Texts(lines, 7), (std::vector<std::wstring>{L"plain wide 7", longText.substr(0, 1023)}));
}

// A module's DWORD sets its threshold and, through the shared settings, that
// of every writer of the module; "DisableGlobalOption" keeps a module to its
// own value.
TEST(Thresholds, RegistryAndSharedSettings) {
    kxtest::ScratchDir dir;
    const std::wstring module = Module(L"Levels");
    kxtest::SetRegValue(kxtest::kDebugKey, module, 3);
    Logger a((dir / L"A").c_str(), module.c_str());
    EXPECT_TRUE(a.Global());
    a.Write(3, 0, L"a at 3");
    a.Write(4, 0, L"a at 4");
    kxtest::SetRegValue(kxtest::kDebugKey, module, 1);
    Logger((dir / L"B").c_str(), module.c_str());  // another writer of the module comes and goes
    EXPECT_EQ(a.Threshold(), 1) << "a later writer's registry value applies to running ones";
    a.Write(2, 0, L"a at 2");
    a.Write(1, 0, L"a at 1");
    kxtest::SetRegValue(kxtest::kDebugKey, L"DisableGlobalOption",
                        L"  Other\t" + kx::Format(L"kxlogtestlevels%lu", ::GetCurrentProcessId()) + L" Third");
    kxtest::SetRegValue(kxtest::kDebugKey, module, 4);
    Logger d((dir / L"D").c_str(), module.c_str());
    EXPECT_FALSE(d.Global());
    EXPECT_EQ(d.Threshold(), 4);
    EXPECT_EQ(a.Threshold(), 1) << "a module off the shared settings must not change them";
    EXPECT_EQ(Texts(kxtest::ReadLogFileLines(dir / L"A.Log"), 7),
              (std::vector<std::wstring>{L"a at 3", L"a at 1"}));
}

// A writer that holds the file too long costs one line, not a hang; one
// that dies holding it is taken over; a log that cannot be made is silent.
TEST(LogFile, OtherWritersCannotHangTheCaller) {
    kxtest::ScratchDir dir;
    const std::wstring module = Module(L"Stuck");
    kxtest::SetRegValue(kxtest::kDebugKey, module, 2);
    Logger log((dir / L"Stuck").c_str(), module.c_str());
    log.Write(1, 0, L"first");
    wchar_t path[kx::log::kPathChars];
    log.CurrentFile(path);
    wchar_t name[8 + kx::log::kMutexPathChars + 1];
    kx::log::FileMutexName(path, name);

    std::thread([&] {
        kx::unique_handle m(::OpenMutexW(SYNCHRONIZE, FALSE, name));
        ASSERT_TRUE(m);
        ASSERT_EQ(::WaitForSingleObject(m.get(), 1000), WAIT_OBJECT_0);  // and never released
    }).join();
    log.Write(1, 0, L"after a dead writer");

    kx::unique_handle held(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    kx::unique_handle release(::CreateEventW(nullptr, TRUE, FALSE, nullptr));
    std::thread holder([&] {
        kx::unique_handle m(::OpenMutexW(SYNCHRONIZE | MUTEX_MODIFY_STATE, FALSE, name));
        ::WaitForSingleObject(m.get(), 1000);
        ::SetEvent(held.get());
        ::WaitForSingleObject(release.get(), 60000);
        ::ReleaseMutex(m.get());
    });
    ::WaitForSingleObject(held.get(), 10000);
    static int traces = 0;
    static wchar_t lastTrace[1024];
    kx::log::testing::SetTraceSink([](const wchar_t* text) { wcsncpy(lastTrace, text, 1023), ++traces; });
    log.Write(1, 0, L"while held");  // gives up after its wait: one trace, no line
    kx::log::testing::SetTraceSink(nullptr);
    ::SetEvent(release.get());
    holder.join();
    log.Write(1, 0, L"after release");

    EXPECT_EQ(traces, 1);
    EXPECT_NE(wcsstr(lastTrace, L"Failed to wait for mutex"), nullptr);
    EXPECT_EQ(Texts(kxtest::ReadLogFileLines(path), 7),
              (std::vector<std::wstring>{L"first", L"after a dead writer", L"after release"}));

    // The log's folder would have to be made inside a file, or its path is
    // too long for a log: lines are dropped quietly.
    kxtest::WriteText(dir / L"plainfile", "x");
    Logger blocked((dir / L"plainfile\\sub\\Blocked").c_str(), module.c_str());
    Logger tooLong((dir / (std::wstring(600, L'z') + L"\\Long")).c_str(), module.c_str());
    ::SetLastError(77);
    blocked.Write(0, 0, L"lost");
    tooLong.Write(0, 0, L"lost");
    EXPECT_EQ(::GetLastError(), 77u);
    EXPECT_FALSE(kxtest::Exists(dir / L"plainfile\\sub"));
}

TEST(DebugLog, LibraryLogUnderInstallPath) {
    // Each test run registers an install folder of its own with detail logging.
    const std::wstring logs = kxtest::CurrentRun().install() + L"\\Logs";
    EXPECT_EQ(kx::log::Folder(), logs);
    EXPECT_EQ(kx::log::CurrentFile().rfind(logs + L"\\KestrixHA.", 0), 0u);

    // Without an install path the log goes to the Windows drive.
    for (auto [install, logs] : {std::pair{L"D:\\Product", L"D:\\Product\\Logs\\"}, {L"D:\\", L"D:\\Logs\\"},
                                 {static_cast<const wchar_t*>(nullptr), L"C:\\Log\\"}}) {
        wchar_t folder[kx::log::kPathChars];
        kx::log::LogFolderFor(install, folder);
        EXPECT_STREQ(folder, logs);
    }
}
