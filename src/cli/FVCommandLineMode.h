#pragma once
// The command-line front end: one backup of the destination named on the command line, with
// the configuration stored in that destination, progress on standard output and an exit status.

#include "cli/FVCommandLineReport.h"
#include "cli/FVCommandLineRun.h"
#include "cli/FVRunAttempt.h"
#include "cli/FVRunOutput.h"
#include "engine/config/FVDestinationLock.h"
#include "engine/run/FVMainQueue.h"
#include "platform/FVUserNotifier.h"

#include <atomic>
#include <memory>
#include <string>

namespace ferrovane {

class FVCommandLineMode {
public:
    FVCommandLineMode(std::unique_ptr<FVUserNotifier> notifier, std::unique_ptr<FVRunAttempt> attempt);
    ~FVCommandLineMode();

    // One backup of the destination, an absolute path. Returns the exit status: 0 after a run
    // without errors, FVDestinationLock::busyExitStatus when another run holds the destination,
    // 128 + the signal's number for a run that a signal cancelled, 255 for every other failure.
    // A dry run prints what the run would change and changes nothing, not even the configuration.
    // A run that a job started (trigger schedule or connect, jobID its UUID) exits 0 when the
    // destination is not connected, and a connect run also when a good run is recent enough;
    // both are recorded in the job status, as is how every other run of a destination with an
    // identity ended.
    // What goes to standard output follows output: the human lines end with the run's summary
    // line, --json prints the summary as one JSON object instead.
    static int main(const std::string& destinationPath, bool noNotifications, bool dryRun,
                    FVJobTrigger trigger = FVJobTrigger::Manual, const std::string& jobID = {},
                    const FVRunOutput& output = {});

    FVCommandLineReport& report() { return report_; }
    int startBackupWithDestinationPath(const std::string& destinationPath);

    // Called from the signal thread: the first signal cancels the run like a cancel in the
    // window, and the run then exits with 128 + its number. A second Ctrl-C during the cancel
    // ends the process at once; a repeated SIGTERM or SIGHUP only cancels.
    void interrupt(int signal);

private:
    // A run that cannot start: the message on standard error and in the run log.
    void refuseToLoad(const std::string& message);
    // Why the configuration cannot be read (the destination or the file missing, or no access),
    // and what to do.
    std::string unavailableMessage() const;
    // Runs the loaded configuration; returns the exit status.
    int runBackup(FVConfiguration configuration, std::vector<std::string> skippedItems, const FVOptions& options);
    // A run the disk started when a good run is recent enough (intervalMinutes): recorded, and
    // nothing else done.
    bool skipsAsRecent(int64_t intervalMinutes);

    FVCommandLineReport report_;
    std::string destinationPath_;
    std::string settingsPath_;
    // Held from before the configuration is read until the process ends.
    FVDestinationLock lock_;
    FVRunLoop runLoop_;
    // The first signal that cancelled the run; 0 while none has.
    std::atomic<int> cancellingSignal_{0};
    std::unique_ptr<FVCommandLineRun> run_;
};

}  // namespace ferrovane
