// Progress of a long export on a terminal: a thread follows the debug log
// for this process's step lines (the session being prepared, the disk being
// read) and shows the latest one. Quiet when stdout is not a terminal.
#pragma once

#include <windows.h>

#include <atomic>
#include <string>
#include <thread>

namespace kxha {

class LogProgress {
public:
    LogProgress();
    ~LogProgress();  // stops the thread and clears the line
    LogProgress(const LogProgress&) = delete;
    LogProgress& operator=(const LogProgress&) = delete;

private:
    void Run();
    std::wstring file_;
    unsigned long long offset_ = 0;
    std::atomic<bool> stop_{false};
    std::thread thread_;
    bool shown_ = false;
};

}  // namespace kxha
