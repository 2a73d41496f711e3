#pragma once
// The command-line front end: one backup of the destination named on the command line, with
// the configuration stored in that destination, progress on standard output and an exit status.

#include "backupset/BackupSetController.h"
#include "cli/FVProgressLine.h"
#include "cli/FVRunAttempt.h"
#include "engine/FVBackupSession.h"
#include "engine/FVConfigurationFile.h"
#include "engine/FVDestinationLock.h"
#include "engine/FVMainQueue.h"
#include "platform/FVUserNotifier.h"

#include <unistd.h>

#include <atomic>
#include <memory>
#include <string>

namespace ferrovane {

class FVCommanlineMode final : public FVBackupSessionDelegate {
public:
    explicit FVCommanlineMode(std::unique_ptr<FVUserNotifier> notifier);
    ~FVCommanlineMode() override;

    // One backup of the destination, an absolute path. Returns the exit status: 0 after a run
    // without errors, FVDestinationLock::busyExitStatus when another run holds the destination,
    // 128 + the signal's number for a run that a signal cancelled, 255 for every other failure.
    // A dry run prints what the run would change and changes nothing, not even the configuration.
    // A run that a job started (trigger schedule or connect, jobID its UUID) exits 0 when the
    // destination is not connected, and a connect run also when a good run is recent enough;
    // both are recorded in the job status, as is how every other run of a destination with an
    // identity ended.
    static int main(const std::string& destinationPath, bool noNotifications, bool dryRun,
                    FVJobTrigger trigger = FVJobTrigger::Manual, const std::string& jobID = {});

    void setDisableUserNotifications(bool disable) { disableUserNotifications_ = disable; }
    void setDryRun(bool dryRun) { dryRun_ = dryRun; }
    void setAttempt(std::unique_ptr<FVRunAttempt> attempt) { attempt_ = std::move(attempt); }
    int startBackupWithDestinationPath(const std::string& destinationPath);

    void backupSessionProgressDidChange(FVBackupSession& session) override;
    void backupSessionDidFinish(FVBackupSession& session) override;
    void backupSessionDidCancel(FVBackupSession& session) override;
    void backupSessionWouldChange(FVBackupSession& session, const std::string& line) override;
    void backupSessionHookDidPrint(FVBackupSession& session, std::string_view line) override;

    // Called from the signal thread: the first signal cancels the run like a cancel in the
    // window, and the run then exits with 128 + its number. A second Ctrl-C during the cancel
    // ends the process at once; a repeated SIGTERM or SIGHUP only cancels.
    void interrupt(int signal);

private:
    void finishOnMainThread();
    void printErrors(const std::vector<std::string>& errors);
    void printNotes();
    void notify(const FVUserNotification& notification, bool wait);
    // Runs the loaded configuration; returns the exit status.
    int runBackup();
    // Records how the run ended for the schedule (nothing for a dry run).
    void recordAttempt(FVJobOutcome outcome, const std::string& message = {});
    // A run the disk started when a good run is recent enough: recorded, and nothing else done.
    bool skipsAsRecent();

    std::unique_ptr<FVUserNotifier> notifier_;
    FVProgressLine progress_{stdout, isatty(STDOUT_FILENO) != 0};
    bool disableUserNotifications_ = false;
    bool dryRun_ = false;
    std::string destinationPath_;
    std::string settingsPath_;
    // Held from before the configuration is read until the process ends.
    FVDestinationLock lock_;
    FVConfiguration configuration_;
    std::vector<std::string> skippedItems_;
    FVOptions options_;
    FVRunLoop runLoop_;
    std::unique_ptr<BackupSetController> backupSetController_;
    std::unique_ptr<FVBackupSession> backupSession_;
    std::unique_ptr<FVRunAttempt> attempt_;
    // The first signal that cancelled the run; 0 while none has.
    std::atomic<int> cancellingSignal_{0};
};

}  // namespace ferrovane
