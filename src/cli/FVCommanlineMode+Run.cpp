// The command-line run: one session over the loaded configuration, progress on the terminal,
// the results written back into the destination, and the exit status.

#include "cli/FVCommanlineMode.h"

#include "cli/FVExitStatus.h"
#include "cli/FVOutput.h"
#include "cli/FVRunSignals.h"
#include "engine/FVStrings.h"
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
    backupSession_->setTrigger(jobTriggerName(attempt_ ? attempt_->trigger() : FVJobTrigger::Manual));

    notify({FVStrings::format("notificationbackingup", FVText::lastPathComponent(destinationPath_)), "", ""}, false);
    // A signal that came before the start (the cancel it posted found nothing to cancel) keeps
    // the run from starting at all.
    runLoop_.post([this] {
        if (int signal = cancellingSignal_.load()) {
            recordAttempt(FVJobOutcome::Stopped, fmt::format("stopped by signal {}", signal));
            std::printf("%s\n", FVStrings::localized("backupstopped").c_str());
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
        std::printf("\n%s\n", FVStrings::localized("backupstopped").c_str());
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

// As the hook wrote it, on standard error: standard output stays the run's own (and JSON's).
void FVCommanlineMode::backupSessionHookDidPrint(FVBackupSession&, std::string_view line) {
    progress_.finish();
    std::fflush(stdout);
    std::fwrite(line.data(), 1, line.size(), stderr);
    std::fputc('\n', stderr);
    std::fflush(stderr);
}

void FVCommanlineMode::backupSessionDidFinish(FVBackupSession&) {
    runLoop_.post([this] { finishOnMainThread(); });
}

void FVCommanlineMode::finishOnMainThread() {
    progress_.finish();
    std::vector<FVSourceItemPtr> backedUp;
    for (const FVSourceItemPtr& item : configuration_.sources)
        if (item->enabled() == int64_t(FVSourceMode::Backup)) backedUp.push_back(item);
    std::string error;
    if (!dryRun_ && !FVConfigurationFile::writeRunResults(backedUp, settingsPath_, &error))
        std::fprintf(stderr, "Warning: the results could not be saved in the configuration: %s\n", error.c_str());

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
        runLoop_.stop(255);
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
        runLoop_.stop(1);
        return;
    }
    std::printf(dryRun_ ? "\nDry run finished: nothing was changed.\n" : "\nSync finished successfully.\n");
    recordAttempt(FVJobOutcome::Finished);
    std::fflush(stdout);
    notify(notification, true);
    runLoop_.stop(0);
}

// On standard error, after the progress line, so that standard output stays the run's story.
void FVCommanlineMode::printErrors(const std::vector<std::string>& errors) {
    progress_.finish();
    std::fflush(stdout);
    std::string joined;
    // One line per error, whatever the names in it hold.
    for (size_t i = 0; i < errors.size(); ++i) joined += (i ? "\n" : "") + FVSearchText::printable(errors[i]);
    std::fprintf(stderr, "Backup errors:\n%s\n", joined.c_str());
    std::fflush(stderr);
}

// Once per run, on standard error beside the errors.
void FVCommanlineMode::printNotes() {
    progress_.finish();
    std::fflush(stdout);
    for (const std::string& note : backupSession_->notes())
        std::fprintf(stderr, "Note: %s\n", FVSearchText::printable(note).c_str());
    for (const std::string& warning : backupSession_->warnings())
        std::fprintf(stderr, "Warning: %s\n", FVSearchText::printable(warning).c_str());
    std::fflush(stderr);
}

void FVCommanlineMode::backupSessionDidCancel(FVBackupSession& session) {
    // The user's own precondition said no: nothing was touched, and nothing more is to be said.
    if (session.skippedByBeforeHook()) {
        progress_.finish();
        std::fflush(stdout);
        FVOutput::error("{}", FVSearchText::printable(session.refusal()));
        recordAttempt(FVJobOutcome::Failed, session.refusal());
        runLoop_.stop(FVExitStatus::kIncomplete);
        return;
    }
    printNotes();
    // A run that a full or read-only destination stopped says why.
    std::vector<std::string> errors = session.errorMessages();
    if (!errors.empty()) printErrors(errors);
    progress_.finish();
    // Nobody stopped this run: the destination is too full for it; told apart by its status.
    if (session.stoppedForSpace()) {
        std::printf("Sync stopped before copying: not enough room.\n");
        std::fflush(stdout);
        FVUserNotification notification{FVStrings::format("notificationnoroom", FVText::lastPathComponent(destinationPath_)),
                                        "", session.refusal(), true, true};
        notify(notification, false);
        recordAttempt(FVJobOutcome::NoSpace, session.refusal());
        runLoop_.stop(1);
        return;
    }
    std::printf("%s\n", FVStrings::localized("backupstopped").c_str());
    std::fflush(stdout);
    notify({FVStrings::format("notificationstopped", FVText::lastPathComponent(destinationPath_)), "", "", true}, false);
    const int signal = cancellingSignal_.load();
    if (signal) recordAttempt(FVJobOutcome::Stopped, fmt::format("stopped by signal {}", signal));
    else recordAttempt(FVJobOutcome::Failed, errors.empty() ? std::string("the run stopped") : errors.front());
    runLoop_.stop(signal ? FVExitStatus::interrupted(signal) : FVExitStatus::kRunFailed);
}

}  // namespace ferrovane
