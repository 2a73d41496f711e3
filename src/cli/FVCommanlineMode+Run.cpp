// The command-line run: one session over the loaded configuration, progress on the terminal,
// the results written back into the destination, and the exit status.

#include "cli/FVCommanlineMode.h"

#include "cli/FVExitStatus.h"
#include "cli/FVOutput.h"
#include "cli/FVRunSignals.h"
#include "fs/FVTestHook.h"
#include "fs/FVText.h"
#include "search/FVSearchText.h"

#include <signal.h>

#include <algorithm>
#include <cstdio>
#include <fmt/format.h>

namespace ferrovane {

FVCommanlineMode::~FVCommanlineMode() = default;

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

    notify({"Starting sync to: " + FVText::lastPathComponent(destinationPath_), "", ""}, false);
    // A signal that came before the start (the cancel it posted found nothing to cancel) keeps
    // the run from starting at all.
    runLoop_.post([this] {
        if (int signal = cancellingSignal_.load()) {
            recordAttempt(FVJobOutcome::Stopped, fmt::format("stopped by signal {}", signal));
            std::printf("Sync canceled.\n");
            std::fflush(stdout);
            runLoop_.stop(FVExitStatus::interrupted(signal));
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
        std::fputs("\nSync canceled.\n", stdout);
        std::fflush(stdout);
        std::_Exit(FVExitStatus::interrupted(first));
    }
    runLoop_.post([this] {
        if (backupSession_) backupSession_->cancel();
    });
}

void FVCommanlineMode::backupSessionProgressDidChange(FVBackupSession& session) {
    // A dry run's output is its list of changes; a progress line would be drawn across it.
    if (dryRun_) return;
    uint64_t items = 0;
    if (FVSyncingBackup* job = session.syncingBackup())
        if (auto worker = job->backupCopyWorker()) items = worker->copiedFiles();
    progress_.update(session.currentTaskDescription(), session.progressPercent(), items,
                     session.sessionTotalBytesCopied());
}

void FVCommanlineMode::backupSessionWouldChange(FVBackupSession&, const std::string& line) {
    std::printf("%s\n", FVSearchText::printable(line).c_str());
}

void FVCommanlineMode::backupSessionDidFinish(FVBackupSession&) {
    runLoop_.post([this] { finishOnMainThread(); });
}

void FVCommanlineMode::finishOnMainThread() {
    progress_.finish();
    std::vector<FVSourceItemPtr> backedUp;
    for (const FVSourceItemPtr& item : configuration_.sources)
        if (item->enabled() == int64_t(FVSourceMode::Backup)) backedUp.push_back(item);
    FVTestHook::reach("saving-results", destinationPath_);
    std::string error;
    if (!dryRun_ && !FVConfigurationFile::writeRunResults(backedUp, settingsPath_, &error))
        FVOutput::warning("the results could not be saved in the configuration {}: {}",
                          FVSearchText::printable(settingsPath_), FVSearchText::printable(error));

    FVUserNotification notification{"Sync finished: " + FVText::lastPathComponent(destinationPath_),
                                    backupSession_->finishedSummary(), ""};
    printNotes();
    std::vector<std::string> errors = backupSession_->errorMessages();
    notification.replacesPrevious = true;
    notification.critical = !errors.empty();
    if (!errors.empty()) {
        notification.informativeText = fmt::format("{} errors occured, please check log.", errors.size());
        printErrors(errors);
        recordAttempt(FVJobOutcome::Errors, errors.front());
        notify(notification, true);
        runLoop_.stop(finishedStatus(FVExitStatus::kRunFailed));
        return;
    }
    // A run that is not recorded made its backup, but not all the user asked of it.
    const std::vector<std::string> warnings = backupSession_->warnings();
    if (!warnings.empty()) {
        notification.informativeText = warnings.front();
        std::printf("\nSync finished with warnings.\n");
        recordAttempt(FVJobOutcome::Warnings, warnings.front());
        std::fflush(stdout);
        notify(notification, true);
        runLoop_.stop(finishedStatus(FVExitStatus::kIncomplete));
        return;
    }
    std::printf(dryRun_ ? "\nDry run finished: nothing was changed.\n" : "\nSync finished successfully.\n");
    recordAttempt(FVJobOutcome::Finished);
    std::fflush(stdout);
    notify(notification, true);
    runLoop_.stop(finishedStatus(FVExitStatus::kOk));
}

// A signal that came while the run was saving its results (they are saved whole) still tells the
// caller that the run was interrupted, as a signal at any earlier moment does.
int FVCommanlineMode::finishedStatus(int status) const {
    const int signal = cancellingSignal_.load();
    return signal ? FVExitStatus::interrupted(signal) : status;
}

// On standard error, after the progress line, so that standard output stays the run's story.
void FVCommanlineMode::printErrors(const std::vector<std::string>& errors) {
    progress_.finish();
    std::fflush(stdout);
    // One line per error, whatever the names in it hold.
    for (const std::string& error : errors)
        FVOutput::error("{}", FVSearchText::printable(FVOutput::withoutErrorTag(error)));
    std::fflush(stderr);
}

// Once per run, on standard error beside the errors.
void FVCommanlineMode::printNotes() {
    progress_.finish();
    std::fflush(stdout);
    for (const std::string& warning : backupSession_->environmentWarnings())
        FVOutput::warning("{}", FVSearchText::printable(warning));
    for (const std::string& note : backupSession_->notes()) FVOutput::warning("{}", FVSearchText::printable(note));
    for (const std::string& warning : backupSession_->warnings())
        FVOutput::warning("{}", FVSearchText::printable(warning));
    std::fflush(stderr);
}

void FVCommanlineMode::backupSessionDidCancel(FVBackupSession& session) {
    printNotes();
    // A run that a full or read-only destination stopped says why.
    std::vector<std::string> errors = session.errorMessages();
    if (!errors.empty()) printErrors(errors);
    progress_.finish();
    // Nobody stopped this run: the destination is too full for it; told apart by its status.
    if (session.stoppedForSpace()) {
        std::printf("Sync stopped before copying: not enough room.\n");
        std::fflush(stdout);
        FVUserNotification notification{"Sync stopped: not enough room on " + FVText::lastPathComponent(destinationPath_),
                                        "", session.refusal(), true, true};
        notify(notification, false);
        recordAttempt(FVJobOutcome::NoSpace, session.refusal());
        runLoop_.stop(FVExitStatus::kIncomplete);
        return;
    }
    std::printf("Sync canceled.\n");
    std::fflush(stdout);
    notify({"Sync canceled: " + FVText::lastPathComponent(destinationPath_), "", "", true}, false);
    const int signal = cancellingSignal_.load();
    if (signal) recordAttempt(FVJobOutcome::Stopped, fmt::format("stopped by signal {}", signal));
    else recordAttempt(FVJobOutcome::Failed, errors.empty() ? std::string("the run stopped") : errors.front());
    runLoop_.stop(signal ? FVExitStatus::interrupted(signal) : FVExitStatus::kRunFailed);
}

}  // namespace ferrovane
