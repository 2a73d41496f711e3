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

    // Opens the log for a new run, appending to what is there. A log other than root's
    // /var/log/Ferrovane.log (which logrotate keeps) is rotated first when it grew above its cap.
    // Under systemd (FVJournalSink::connected) every line also goes to the journal.
    void newLog();
    // Appends "<time stamp>: <line>\n" in one write; diverted to the system log when closed and
    // not sent to the journal.
    void addLogLine(std::string_view line);
    // Clears the run context too.
    void closeLog();
    // The destination and the run's stamp that journal entries carry until closeLog.
    void setRunContext(std::string destination, std::string runStamp);

    bool isOpen() const { return fd_.load(std::memory_order_relaxed) >= 0; }
    std::string logPath() const;
    // Why the last newLog could not open the file ("cannot create PATH: reason"); empty when it
    // could. It stays after closeLog, so that a front end can tell the user once per run.
    std::string openProblem() const;
    // The one warning a front end gives when openProblem() is not empty: where the log could not
    // be written, where its lines went, and how to name another file. Empty when it could.
    std::string unwrittenWarning() const;

    ~FVLog();

private:
    FVLog() = default;
    void closeLocked();

    mutable std::shared_mutex mutex_;  // writers share it; opening and closing take it alone
    std::atomic<int> fd_{-1};
    std::string logPath_;
    std::string openProblem_;
    bool journal_ = false;
    std::string destination_;
    std::string runStamp_;
};

}  // namespace ferrovane
