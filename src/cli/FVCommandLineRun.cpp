#include "cli/FVCommandLineRun.h"

#include "cli/FVExitStatus.h"
#include "cli/FVOutput.h"
#include "cli/FVRunJson.h"
#include "engine/run/FVStrings.h"
#include "fs/FVTestHook.h"
#include "fs/FVText.h"
#include "search/FVSearchText.h"

#include <cstdio>
#include <fmt/format.h>

namespace ferrovane {

FVCommandLineRun::FVCommandLineRun(FVCommandLineReport& report, FVRunLoop& loop,
                                   const std::atomic<int>& cancellingSignal, std::string destinationPath,
                                   std::string settingsPath, FVConfiguration configuration,
                                   std::vector<std::string> skippedItems, const FVOptions& options)
    : report_(report), loop_(loop), cancellingSignal_(cancellingSignal), destinationPath_(std::move(destinationPath)),
      settingsPath_(std::move(settingsPath)), configuration_(std::move(configuration)) {
    backupSetController_ = std::make_unique<BackupSetController>();
    backupSetController_->setDisableSizeEvaluation(true);
    for (const FVSourceItemPtr& item : configuration_.sources) backupSetController_->addBackupItem(item);

    backupSession_ = std::make_unique<FVBackupSession>();
    backupSession_->setDelegate(this);
    backupSession_->setDestinationPath(destinationPath_);
    backupSession_->setBackupOptions(options);
    backupSession_->setConfigurationProblems(std::move(skippedItems));
    backupSession_->setBackupSet(backupSetController_->arrangedObjects());
    backupSession_->setExcludePaths(backupSetController_->excludePaths());
    backupSession_->setDryRun(report_.dryRun());
    backupSession_->setItemListener([this](FVItemChange change, const std::string& path) { itemChanged(change, path); });
    FVRunAttempt* attempt = report_.attempt();
    backupSession_->setTrigger(jobTriggerName(attempt ? attempt->trigger() : FVJobTrigger::Manual));
}

FVCommandLineRun::~FVCommandLineRun() = default;

void FVCommandLineRun::itemChanged(FVItemChange change, const std::string& path) {
    {
        std::lock_guard lock(lastItemMutex_);
        lastItem_ = path;
    }
    if (report_.output().verbosity != FVRunOutput::Verbosity::Verbose) return;
    const char* what = change == FVItemChange::Copied ? "Copied" : change == FVItemChange::Archived ? "Archived" : "Deleted";
    report_.say(fmt::format("{}: {}", what, FVSearchText::printable(path)));
}

void FVCommandLineRun::end(std::string_view outcome, const FVRunSummary& summary, int status) {
    report_.progress().finish();
    if (report_.output().json) FVOutput::print(stdout, "{}\n", FVRunJson::summary(destinationPath_, *backupSession_, summary, outcome));
    else report_.say(summary.line());
    std::fflush(stdout);
    loop_.stop(finishedStatus(status));
}

void FVCommandLineRun::start() {
    report_.notify({FVStrings::format("notificationbackingup", FVText::lastPathComponent(destinationPath_)), "", ""},
                   false);
    // A signal that came before the start (the cancel it posted found nothing to cancel) keeps
    // the run from starting at all.
    loop_.post([this] {
        if (int signal = cancellingSignal_.load()) {
            report_.recordAttempt(FVJobOutcome::Stopped, fmt::format("stopped by signal {}", signal));
            report_.say(FVStrings::localized("backupstopped"));
            end("stopped", FVRunSummary{{}, 0, 0, report_.dryRun(), true}, FVExitStatus::interrupted(signal));
            return;
        }
        backupSession_->start();
    });
}

void FVCommandLineRun::cancel() { backupSession_->cancel(); }

FVProgressStep FVCommandLineRun::progressStep(FVBackupSession& session) {
    const FVRunTotals totals = session.totals();
    FVProgressStep step;
    step.task = session.currentTaskDescription();
    step.percent = session.progressPercent();
    step.checked = totals.checked;
    step.files = totals.copied;
    step.bytes = totals.bytesCopied;
    std::lock_guard lock(lastItemMutex_);
    step.path = lastItem_;
    return step;
}

void FVCommandLineRun::backupSessionProgressDidChange(FVBackupSession& session) {
    // A dry run's output is its list of changes; a progress line would be drawn across it.
    if (report_.dryRun() && report_.output().progress != FVRunOutput::Progress::Json) return;
    report_.progress().update(progressStep(session));
}

void FVCommandLineRun::backupSessionWouldChange(FVBackupSession&, const std::string& line) {
    report_.say(FVSearchText::printable(line));
}

// As the hook wrote it, on standard error: standard output stays the run's own (and JSON's).
void FVCommandLineRun::backupSessionHookDidPrint(FVBackupSession&, std::string_view line) {
    report_.progress().finish();
    std::fflush(stdout);
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

void FVCommandLineRun::backupSessionDidFinish(FVBackupSession&) {
    loop_.post([this] { finishOnMainThread(); });
}

void FVCommandLineRun::finishOnMainThread() {
    report_.progress().finish();
    std::vector<FVSourceItemPtr> backedUp;
    for (const FVSourceItemPtr& item : configuration_.sources)
        if (item->enabled() == int64_t(FVSourceMode::Backup)) backedUp.push_back(item);
    FVTestHook::reach("saving-results", destinationPath_);
    std::string error;
    if (!report_.dryRun() && !FVConfigurationFile::writeRunResults(backedUp, settingsPath_, &error))
        FVOutput::warning("the results could not be saved in the configuration {}: {}",
                          FVSearchText::printable(settingsPath_), FVSearchText::printable(error));

    FVUserNotification notification{FVStrings::format("notificationfinished", FVText::lastPathComponent(destinationPath_)),
                                    backupSession_->finishedSummary(), ""};
    report_.printNotes(*backupSession_);
    std::vector<std::string> errors = backupSession_->errorMessages();
    notification.replacesPrevious = true;
    notification.critical = !errors.empty();
    if (!errors.empty()) {
        notification.informativeText = FVStrings::formatPlural("notificationerrors", static_cast<long long>(errors.size()));
        report_.printErrors(errors);
        report_.recordAttempt(FVJobOutcome::Errors, errors.front());
        report_.notify(notification, true);
        end("errors", backupSession_->summary(), FVExitStatus::kRunFailed);
        return;
    }
    // A run that is not recorded made its backup, but not all the user asked of it.
    const std::vector<std::string> warnings = backupSession_->warnings();
    if (!warnings.empty()) {
        notification.informativeText = warnings.front();
        report_.say("\nSync finished with warnings.");
        report_.recordAttempt(FVJobOutcome::Warnings, warnings.front());
        report_.notify(notification, true);
        end("warnings", backupSession_->summary(), FVExitStatus::kIncomplete);
        return;
    }
    report_.say(report_.dryRun() ? "\nDry run finished: nothing was changed." : "\nSync finished successfully.");
    report_.recordAttempt(FVJobOutcome::Finished);
    report_.notify(notification, true);
    end("finished", backupSession_->summary(), FVExitStatus::kOk);
}

// A signal that came while the run was saving its results (they are saved whole) still tells the
// caller that the run was interrupted, as a signal at any earlier moment does.
int FVCommandLineRun::finishedStatus(int status) const {
    const int signal = cancellingSignal_.load();
    return signal ? FVExitStatus::interrupted(signal) : status;
}

void FVCommandLineRun::backupSessionDidCancel(FVBackupSession& session) {
    // The user's own precondition said no: nothing was touched, and nothing more is to be said.
    if (session.skippedByBeforeHook()) {
        report_.progress().finish();
        std::fflush(stdout);
        FVOutput::error("{}", FVSearchText::printable(session.refusal()));
        report_.recordAttempt(FVJobOutcome::Failed, session.refusal());
        end("skipped", session.summary(), FVExitStatus::kIncomplete);
        return;
    }
    report_.printNotes(*backupSession_);
    // A run that a full or read-only destination stopped says why.
    std::vector<std::string> errors = session.errorMessages();
    if (!errors.empty()) report_.printErrors(errors);
    report_.progress().finish();
    // Nobody stopped this run: the destination is too full for it; told apart by its status.
    if (session.stoppedForSpace()) {
        report_.say("Sync stopped before copying: not enough room.");
        FVUserNotification notification{FVStrings::format("notificationnoroom", FVText::lastPathComponent(destinationPath_)),
                                        "", session.refusal(), true, true};
        report_.notify(notification, false);
        report_.recordAttempt(FVJobOutcome::NoSpace, session.refusal());
        end("no-space", session.summary(), FVExitStatus::kIncomplete);
        return;
    }
    report_.say(FVStrings::localized("backupstopped"));
    report_.notify({FVStrings::format("notificationstopped", FVText::lastPathComponent(destinationPath_)), "", "", true}, false);
    const int signal = cancellingSignal_.load();
    if (signal) report_.recordAttempt(FVJobOutcome::Stopped, fmt::format("stopped by signal {}", signal));
    else report_.recordAttempt(FVJobOutcome::Failed, errors.empty() ? std::string("the run stopped") : errors.front());
    end(signal ? "stopped" : "failed", session.summary(),
        signal ? FVExitStatus::interrupted(signal) : FVExitStatus::kRunFailed);
}

}  // namespace ferrovane
