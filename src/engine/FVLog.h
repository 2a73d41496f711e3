#pragma once
// The run log: one file per user account, appended to by every run, written by many threads.

#include <atomic>
#include <shared_mutex>
#include <string>
#include <string_view>

namespace ferrovane {

class FVLog {
public:
    // The superuser's log is /var/log/Ferrovane.log; everybody else's lives in
    // $XDG_STATE_HOME/Ferrovane/ (default ~/.local/state/Ferrovane/). FERROVANE_LOG_FILE, when
    // set, names the file instead (for tests and for users who want it elsewhere).
    static std::string logFilePath();
    static FVLog& currentLog();

    // Opens the log for a new run, appending to what is there.
    void newLog();
    // Appends "<time stamp>: <line>\n" in one write; diverted to the system log when closed.
    void addLogLine(std::string_view line);
    void closeLog();

    bool isOpen() const { return fd_.load(std::memory_order_relaxed) >= 0; }
    std::string logPath() const;

    ~FVLog();

private:
    FVLog() = default;
    void closeLocked();

    mutable std::shared_mutex mutex_;  // writers share it; opening and closing take it alone
    std::atomic<int> fd_{-1};
    std::string logPath_;
};

}  // namespace ferrovane
