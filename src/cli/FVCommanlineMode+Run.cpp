// The command-line run: one session over the loaded configuration, progress on the terminal,
// the results written back into the destination, and the exit status.

#include "cli/FVCommanlineMode.h"

#include "cli/FVExitStatus.h"
#include "cli/FVLocaleText.h"
#include "cli/FVOutput.h"
#include "cli/FVRunJson.h"
#include "cli/FVRunSignals.h"
#include "engine/FVStrings.h"
#include "fs/FVTestHook.h"
#include "fs/FVText.h"
#include "search/FVSearchText.h"

#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <fmt/format.h>

namespace ferrovane {

FVCommanlineMode::~FVCommanlineMode() = default;

void FVCommanlineMode::setOutput(const FVRunOutput& output) {
    output_ = output;
    FVProgressLine::Style style = FVProgressLine::styleFor(STDOUT_FILENO);
    if (output.progress == FVRunOutput::Progress::Json) style = FVProgressLine::Style::Json;
    else if (output.progress == FVRunOutput::Progress::None || !output.human()) style = FVProgressLine::Style::None;
    progress_ = std::make_unique<FVProgressLine>(stdout, style);
}

void FVCommanlineMode::say(const std::string& line) {
    if (output_.human()) progress_->interject(FVLocaleText::shown(line));
}

void FVCommanlineMode::itemChanged(FVItemChange change, const std::string& path) {
    {
        std::lock_guard lock(lastItemMutex_);
        lastItem_ = path;
    }
    if (output_.verbosity != FVRunOutput::Verbosity::Verbose) return;
    const char* what = change == FVItemChange::Copied ? "Copied" : change == FVItemChange::Archived ? "Archived" : "Deleted";
    say(fmt::format("{}: {}", what, FVSearchText::printable(path)));
}

void FVCommanlineMode::end(std::string_view outcome, const FVRunSummary& summary, int status) {
    progress_->finish();
    if (output_.json) FVOutput::print(stdout, "{}\n", FVRunJson::summary(destinationPath_, *backupSession_, summary, outcome));
    else say(summary.line());
    std::fflush(stdout);
    runLoop_.stop(finishedStatus(status));
}

int FVCommanlineMode::runBackup() {
    backupSetController_ = std::make_unique<BackupSetController>();
    backupSetController_->setDisableSizeEvaluation(true);
    for (const FVSourceItemPtr& item : configuration_.sources) backupSetController_->addBackupItem(item);

    backupSession_ = std::make_unique<FVBackupSession>();
    backupSession_->setDelegate(this);
    backupSession_->setDestinationPath(destinationPath_);
    backupSession_->setBackupOptions(options_);
    backupSession_->setConfigurationProblems(skippedItems_);
    backupSession_->setBackupSet(backupSetController_->arrangedObjects());
    backupSession_->setExcludePaths(backupSetController_->excludePaths());
    backupSession_->setDryRun(dryRun_);
    backupSession_->setItemListener([this](FVItemChange change, const std::string& path) { itemChanged(change, path); });
    backupSession_->setTrigger(jobTriggerName(attempt_ ? attempt_->trigger() : FVJobTrigger::Manual));

    notify({FVStrings::format("notificationbackingup", FVText::lastPathComponent(destinationPath_)), "", ""}, false);
    // A signal that came before the start (the cancel it posted found nothing to cancel) keeps
    // the run from starting at all.
    runLoop_.post([this] {
        if (int signal = cancellingSignal_.load()) {
            recordAttempt(FVJobOutcome::Stopped, fmt::format("stopped by signal {}", signal));
            say(FVStrings::localized("backupstopped"));
            end("stopped", FVRunSummary{{}, 0, 0, dryRun_, true}, FVExitStatus::interrupted(signal));
            return;
        }
        backupSession_->start();
    });
    return runLoop_.run();
}

void FVCommanlineMode::interrupt(int signal) {
    int first = 0;
    if (!cancellingSignal_.compare_exchange_strong(first, signal)) {
        if (signal != SIGINT) return;
        if (output_.human()) std::printf("\n%s\n", FVStrings::localized("backupstopped").c_str());
        std::fflush(stdout);
        std::_Exit(FVExitStatus::interrupted(first));
    }
    runLoop_.post([this] {
        if (backupSession_) backupSession_->cancel();
    });
}

FVProgressStep FVCommanlineMode::progressStep(FVBackupSession& session) {
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

void FVCommanlineMode::backupSessionProgressDidChange(FVBackupSession& session) {
    // A dry run's output is its list of changes; a progress line would be drawn across it.
    if (dryRun_ && output_.progress != FVRunOutput::Progress::Json) return;
    progress_->update(progressStep(session));
}

void FVCommanlineMode::backupSessionWouldChange(FVBackupSession&, const std::string& line) {
    say(FVSearchText::printable(line));
}

// As the hook wrote it, on standard error: standard output stays the run's own (and JSON's).
void FVCommanlineMode::backupSessionHookDidPrint(FVBackupSession&, std::string_view line) {
    progress_->finish();
    std::fflush(stdout);
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

void FVCommanlineMode::backupSessionDidFinish(FVBackupSession&) {
    runLoop_.post([this] { finishOnMainThread(); });
}

void FVCommanlineMode::finishOnMainThread() {
    progress_->finish();
    std::vector<FVSourceItemPtr> backedUp;
    for (const FVSourceItemPtr& item : configuration_.sources)
        if (item->enabled() == int64_t(FVSourceMode::Backup)) backedUp.push_back(item);
    FVTestHook::reach("saving-results", destinationPath_);
    std::string error;
    if (!dryRun_ && !FVConfigurationFile::writeRunResults(backedUp, settingsPath_, &error))
        FVOutput::warning("the results could not be saved in the configuration {}: {}",
                          FVSearchText::printable(settingsPath_), FVSearchText::printable(error));

    FVUserNotification notification{FVStrings::format("notificationfinished", FVText::lastPathComponent(destinationPath_)),
                                    backupSession_->finishedSummary(), ""};
    printNotes();
    std::vector<std::string> errors = backupSession_->errorMessages();
    notification.replacesPrevious = true;
    notification.critical = !errors.empty();
    if (!errors.empty()) {
        notification.informativeText = FVStrings::formatPlural("notificationerrors", static_cast<long long>(errors.size()));
        printErrors(errors);
        recordAttempt(FVJobOutcome::Errors, errors.front());
        notify(notification, true);
        end("errors", backupSession_->summary(), FVExitStatus::kRunFailed);
        return;
    }
    // A run that is not recorded made its backup, but not all the user asked of it.
    const std::vector<std::string> warnings = backupSession_->warnings();
    if (!warnings.empty()) {
        notification.informativeText = warnings.front();
        say("\nSync finished with warnings.");
        recordAttempt(FVJobOutcome::Warnings, warnings.front());
        notify(notification, true);
        end("warnings", backupSession_->summary(), FVExitStatus::kIncomplete);
        return;
    }
    say(dryRun_ ? "\nDry run finished: nothing was changed." : "\nSync finished successfully.");
    recordAttempt(FVJobOutcome::Finished);
    notify(notification, true);
    end("finished", backupSession_->summary(), FVExitStatus::kOk);
}

// A signal that came while the run was saving its results (they are saved whole) still tells the
// caller that the run was interrupted, as a signal at any earlier moment does.
int FVCommanlineMode::finishedStatus(int status) const {
    const int signal = cancellingSignal_.load();
    return signal ? FVExitStatus::interrupted(signal) : status;
}

// On standard error, after the progress line, so that standard output stays the run's story.
void FVCommanlineMode::printErrors(const std::vector<std::string>& errors) {
    progress_->finish();
    std::fflush(stdout);
    // One line per error, whatever the names in it hold.
    for (const std::string& error : errors)
        FVOutput::error("{}", FVLocaleText::shown(FVSearchText::printable(FVOutput::withoutErrorTag(error))));
    std::fflush(stderr);
}

// Once per run, on standard error beside the errors.
void FVCommanlineMode::printNotes() {
    progress_->finish();
    std::fflush(stdout);
    for (const std::string& warning : backupSession_->environmentWarnings())
        FVOutput::warning("{}", FVLocaleText::shown(FVSearchText::printable(warning)));
    // Quiet output keeps what went wrong and what makes the exit status; a note is neither.
    if (output_.verbosity != FVRunOutput::Verbosity::Quiet)
        for (const std::string& note : backupSession_->notes())
            FVOutput::warning("{}", FVLocaleText::shown(FVSearchText::printable(note)));
    for (const std::string& warning : backupSession_->warnings())
        FVOutput::warning("{}", FVLocaleText::shown(FVSearchText::printable(warning)));
    std::fflush(stderr);
}

void FVCommanlineMode::backupSessionDidCancel(FVBackupSession& session) {
    // The user's own precondition said no: nothing was touched, and nothing more is to be said.
    if (session.skippedByBeforeHook()) {
        progress_->finish();
        std::fflush(stdout);
        FVOutput::error("{}", FVSearchText::printable(session.refusal()));
        recordAttempt(FVJobOutcome::Failed, session.refusal());
        end("skipped", session.summary(), FVExitStatus::kIncomplete);
        return;
    }
    printNotes();
    // A run that a full or read-only destination stopped says why.
    std::vector<std::string> errors = session.errorMessages();
    if (!errors.empty()) printErrors(errors);
    progress_->finish();
    // Nobody stopped this run: the destination is too full for it; told apart by its status.
    if (session.stoppedForSpace()) {
        say("Sync stopped before copying: not enough room.");
        FVUserNotification notification{FVStrings::format("notificationnoroom", FVText::lastPathComponent(destinationPath_)),
                                        "", session.refusal(), true, true};
        notify(notification, false);
        recordAttempt(FVJobOutcome::NoSpace, session.refusal());
        end("no-space", session.summary(), FVExitStatus::kIncomplete);
        return;
    }
    say(FVStrings::localized("backupstopped"));
    notify({FVStrings::format("notificationstopped", FVText::lastPathComponent(destinationPath_)), "", "", true}, false);
    const int signal = cancellingSignal_.load();
    if (signal) recordAttempt(FVJobOutcome::Stopped, fmt::format("stopped by signal {}", signal));
    else recordAttempt(FVJobOutcome::Failed, errors.empty() ? std::string("the run stopped") : errors.front());
    end(signal ? "stopped" : "failed", session.summary(),
        signal ? FVExitStatus::interrupted(signal) : FVExitStatus::kRunFailed);
}

}  // namespace ferrovane
