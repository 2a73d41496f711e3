#pragma once
// What the user and the schedule learn of a command-line run: its story on standard output beside
// the progress line, errors and notes on standard error, desktop notifications, and how the
// attempt ended in the job status (nothing of it for a dry run).

#include "cli/FVProgressLine.h"
#include "cli/FVRunAttempt.h"
#include "cli/FVRunOutput.h"
#include "platform/FVUserNotifier.h"

#include <memory>
#include <string>
#include <vector>

namespace ferrovane {

class FVBackupSession;

class FVCommandLineReport {
public:
    // attempt: where the outcome is recorded; null records nothing.
    FVCommandLineReport(std::unique_ptr<FVUserNotifier> notifier, std::unique_ptr<FVRunAttempt> attempt);

    void setOutput(const FVRunOutput& output);
    void setDisableUserNotifications(bool disable) { disableUserNotifications_ = disable; }
    void setDryRun(bool dryRun) { dryRun_ = dryRun; }
    const FVRunOutput& output() const { return output_; }
    bool dryRun() const { return dryRun_; }
    FVRunAttempt* attempt() const { return attempt_.get(); }
    FVProgressLine& progress() { return *progress_; }

    // A line of the run's story on standard output, unless the output is quiet or JSON.
    void say(const std::string& line);
    // wait: gives the notification server time to take it before the process ends.
    void notify(const FVUserNotification& notification, bool wait);
    // Records how the run ended for the schedule (nothing for a dry run).
    void recordAttempt(FVJobOutcome outcome, const std::string& message = {});
    // On standard error, after the progress line, so that standard output stays the run's story.
    void printErrors(const std::vector<std::string>& errors);
    // The session's notes and warnings, once per run, on standard error beside the errors.
    void printNotes(const FVBackupSession& session);

private:
    std::unique_ptr<FVUserNotifier> notifier_;
    std::unique_ptr<FVRunAttempt> attempt_;
    FVRunOutput output_;
    std::unique_ptr<FVProgressLine> progress_ =
        std::make_unique<FVProgressLine>(stdout, FVProgressLine::styleFor(STDOUT_FILENO));
    bool disableUserNotifications_ = false;
    bool dryRun_ = false;
};

}  // namespace ferrovane
