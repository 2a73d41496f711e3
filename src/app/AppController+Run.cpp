// Starting and cancelling a run from the window, following it, and showing its outcome.

#include "app/AppController.h"

#include "app/FVAlert.h"
#include "app/FVCoverView.h"
#include "app/FVDestinationPopup.h"
#include "app/FVErrorPanel.h"
#include "app/FVMainWindow.h"
#include "app/FVQtStrings.h"
#include "app/FVRestoreController.h"
#include "app/FVRunProgress.h"
#include "app/FVSourceListModel.h"
#include "app/FVThinProgressBar.h"
#include "engine/config/FVConfigurationFile.h"
#include "engine/run/FVLog.h"
#include "fs/FVText.h"

#include <QApplication>
#include <QComboBox>
#include <QLabel>
#include <QPushButton>
#include <QSettings>

#include <algorithm>
#include <fmt/format.h>

namespace ferrovane {

namespace {

// Set on a source whose folder was emptied on purpose: the next run may empty its mirror.
constexpr const char* kEmptySourceConfirmedKey = "emptySourceConfirmed";

}  // namespace

QString AppController::destinationName() const { return qPath(FVText::lastPathComponent(currentTargetPath_)); }

void AppController::startOrCancelSync() {
    QPushButton* button = window_->startButton();
    FVCoverView* cover = window_->coverView();
    if (restoreController_->isRunning()) {
        button->setEnabled(false);
        restoreController_->stop();
        return;
    }
    if (backupIsRunning_) {
        button->setEnabled(false);
        cover->clearMessages();
        cover->setMessage(localized("viewstoppingbackup"));
        cancelling_ = true;
        backupSession_->cancel();
        return;
    }
    if (starting_) {
        // Stopped before the session exists: nothing ran, nothing was written.
        abortStart();
        return;
    }
    if (!passesStartChecks()) return;
    window_->targetPopup()->setEnabled(false);
    window_->progressView()->setProgress(0);
    cover->clearMessages();
    cover->setProgress(0);
    cover->setMessage(localized("viewstartingbackup"));
    button->setText(localized("cancelbutton"));
    setDestinationControlsEnabled(false);
    setOptionWidgetsEnabled(false);
    starting_ = true;
    cover->scrollIn([this] { startSync(); });
}

bool AppController::passesStartChecks() {
    using Verdict = FVRunStartChecks::Verdict;
    switch (startChecks_.check(currentTargetPath_, presence_.isPresent(), backupSetController_.arrangedObjects(),
                               FVOptionTable::read(*optionsPanelController_.allOptions()), runLock_)) {
    case Verdict::Passed: return true;
    case Verdict::Refused: return false;
    case Verdict::Away: destinationWentAway(); return false;
    case Verdict::Unusable: resetInterface(); return false;
    }
    return false;
}

void AppController::abortStart() {
    starting_ = false;
    runLock_.release();
    window_->startButton()->setText(localized("syncbutton"));
    window_->coverView()->setProgress(-1);
    window_->coverView()->openView();
    setDestinationControlsEnabled(true);
    setOptionWidgetsEnabled(true);
}

void AppController::startSync() {
    starting_ = false;
    notifyUnlessActive({"Backup started: " + FVText::lastPathComponent(currentTargetPath_), "", ""});
    writeSettings();
    backupIsRunning_ = true;
    backupSetController_.setDisableSizeEvaluation(true);
    backupSetController_.cancelSizeEvaluation();
    window_->progressView()->setProgress(1.0);
    window_->coverView()->setProgress(1.0);

    backupSession_ = std::make_unique<FVBackupSession>();
    backupSession_->setDelegate(this);
    backupSession_->setDestinationPath(currentTargetPath_);
    backupSession_->setBackupOptions(FVOptionTable::read(*optionsPanelController_.allOptions()).options);
    // Items of the file that the list could not take are kept there and reported by the run.
    backupSession_->setConfigurationProblems(
        FVConfigurationFile::read(FVConfigurationFile::formattedPath(currentTargetPath_)).skippedItems);
    backupSession_->setBackupSet(backupSetController_.arrangedObjects());
    backupSession_->setExcludePaths(backupSetController_.excludePaths());
    runClock_.start();
    progressTimer_.start();
    backupSession_->start();
    emit runStarted();
}

// The session calls these on its threads; the window's work is queued to the GUI thread.
void AppController::backupSessionProgressDidChange(FVBackupSession&) {
    // Progress arrives per file: one queued update at a time is enough.
    if (progressPosted_.exchange(true)) return;
    QMetaObject::invokeMethod(this, [this] {
        progressPosted_ = false;
        handleProgress();
    }, Qt::QueuedConnection);
}

void AppController::backupSessionDidCancel(FVBackupSession&) {
    QMetaObject::invokeMethod(this, &AppController::handleCancel, Qt::QueuedConnection);
}

void AppController::backupSessionDidFinish(FVBackupSession&) {
    QMetaObject::invokeMethod(this, &AppController::handleFinish, Qt::QueuedConnection);
}

void AppController::handleProgress() {
    if (!backupIsRunning_ || !backupSession_) return;
    const FVRunProgress progress{backupSession_->totals(), backupSession_->progressPercent(), runClock_.elapsed() / 1000.0,
                                 backupSession_->currentFile()};
    FVCoverView* cover = window_->coverView();
    cover->setProgress(progress.percent);
    cover->setMessage(QString::fromStdString(backupSession_->currentTaskDescription()));
    cover->setDetailMessage(progress.counts());
    cover->setSmallMessage(progress.pace());
    window_->progressView()->setProgress(progress.percent);
    launcherEntry_.setProgress(progress.percent / 100.0, static_cast<qint64>(progress.totals.copied));
}

void AppController::notifyUnlessActive(const FVUserNotification& notification) {
    if (environment_.notifier && !window_->isActiveWindow()) environment_.notifier->deliver(notification);
}

void AppController::showErrorPanel(const std::vector<std::string>& errors) {
    auto* panel = new FVErrorPanel(window_.get(), errors);
    connect(panel, &FVErrorPanel::emptiedSourceConfirmationRequested, this, &AppController::confirmEmptiedSource);
    connect(panel, &QDialog::finished, this, [this] {
        if (!currentTargetPath_.empty()) window_->coverView()->openViewDelayedBy(0.5);
    });
    // The cover, when it is in, says what happened: the list of errors goes under its text.
    FVCoverView* cover = window_->coverView();
    if (cover->isFullyHidden()) panel->open();
    else panel->openBelow(cover->textBottom());
}

void AppController::showLastRunErrors() {
    if (!runOutcome_.errors().empty() && !backupIsRunning_) showErrorPanel(runOutcome_.errors());
}

void AppController::confirmEmptiedSource(const QString& sourcePath) {
    if (refusedWhileAway()) return;
    FVSourceItemPtr source;
    for (const FVSourceItemPtr& item : backupSetController_.arrangedObjects())
        if (qPath(item->sourcePath()) == sourcePath) source = item;
    if (!source || backupIsRunning_) return;
    QMessageBox* box = FVAlert::ask(window_.get(), "confirmempty", "confirmemptylong", "cancelbuttontitle", "confirmemptyaction",
                                    [this, source](bool confirmed) {
                                        if (!confirmed || backupIsRunning_) return;
                                        source->setValue(kEmptySourceConfirmedKey, true);
                                        writeSettings();
                                    });
    box->setText(localizedFormat("confirmempty", FVText::lastPathComponent(source->sourcePath())));
    box->setInformativeText(localizedFormat("confirmemptylong", source->sourcePath()));
}

void AppController::setRunOutcome(FVRunOutcome outcome) {
    runOutcome_ = std::move(outcome);
    sourceModel_->setRunOutcome(runOutcome_);
    const bool known = !currentTargetPath_.empty();
    window_->lastRunLine()->setText(known ? runOutcome_.headline() : QString());
    const bool hasErrors = known && !runOutcome_.errors().empty();
    window_->showErrorsButton()->setVisible(hasErrors);
    window_->showErrorsAction()->setEnabled(hasErrors);
}

// Kept until the next run, also across starts.
void AppController::recordRunOutcome(FVRunOutcome::State state, const std::vector<std::string>& errors,
                                     std::pair<std::string, long long> interrupted, std::string destinationFailure) {
    FVRunOutcome outcome(state, QDateTime::currentDateTime(), errors);
    outcome.setInterruptedSource(std::move(interrupted.first), interrupted.second);
    outcome.setDestinationFailure(std::move(destinationFailure));
    outcome.save(qPath(currentTargetPath_));
    setRunOutcome(std::move(outcome));
}

void AppController::recordJobAttempt(FVJobOutcome outcome, const std::string& message) {
    const std::string uuid = optionsPanelController_.uuid();
    if (uuid.empty()) return;
    std::string line = message.substr(0, message.find('\n'));
    const FVJobAttempt attempt{std::time(nullptr), FVJobTrigger::Manual, outcome, std::move(line)};
    const int64_t overdueDays = FVOptionTable::read(*optionsPanelController_.allOptions()).options.overdueDays;
    std::string error;
    // The run itself is done and recorded in the destination; only the status outside it is missing.
    if (!FVJobStatusStore(environment_.jobStatusFolder).record(uuid, currentTargetPath_, attempt, overdueDays, &error))
        FVLog::currentLog().addLogLine("Could not record the run in the job status: " + error);
}

void AppController::resumeSizeEvaluation() {
    backupSetController_.setDisableSizeEvaluation(false);
    // The run's write removed every measured size; this measures them all again.
    backupSetController_.evaluateItemModeChange();
}

void AppController::handleCancel() {
    progressTimer_.stop();
    FVCoverView* cover = window_->coverView();
    window_->progressView()->setProgress(0);
    cover->setProgress(-1);
    cover->clearMessages();
    window_->startButton()->setText(localized("syncbutton"));
    window_->startButton()->setEnabled(true);
    setDestinationControlsEnabled(true);
    setOptionWidgetsEnabled(true);

    std::vector<std::string> errors = backupSession_->errorMessages();
    // What stands in the mirror, not what the analysis had queued.
    const auto copied = static_cast<long long>(backupSession_->totals().copied);
    // Nobody stopped a run that could not fit: it says why, and the schedule knows the disk is full.
    const bool noRoom = backupSession_->stoppedForSpace();
    const std::string refusal = backupSession_->refusal();
    const std::string disk = FVText::lastPathComponent(currentTargetPath_);
    // Nor one whose disk failed or went away: the cause comes first, the errors it caused after.
    const std::string diskFailure = backupSession_->destinationFailure();
    if (!diskFailure.empty())
        std::stable_partition(errors.begin(), errors.end(), [&](const std::string& error) { return error == diskFailure; });
    // Rather than an empty cover until the alert is dismissed.
    cover->setMessage(noRoom ? QString::fromStdString(refusal) : localized("backupstopped"));
    if (!noRoom) cover->setDetailMessage(FVRunProgress{backupSession_->totals(), 0, 0, {}}.counts());
    recordRunOutcome(noRoom ? FVRunOutcome::State::NoRoom : FVRunOutcome::State::Stopped, errors,
                     {backupSession_->interruptedSourcePath(), static_cast<long long>(backupSession_->copiedInSourceItem())},
                     diskFailure);
    if (noRoom) recordJobAttempt(FVJobOutcome::NoSpace, refusal);
    else if (!diskFailure.empty()) recordJobAttempt(FVJobOutcome::Failed, diskFailure);
    else if (backupSession_->skippedByBeforeHook()) recordJobAttempt(FVJobOutcome::Failed, refusal);
    else recordJobAttempt(FVJobOutcome::Stopped, "stopped in the window");
    updateScheduleState();
    FVUserNotification notification{FVStrings::format("notificationstopped", disk), "", ""};
    if (noRoom) {
        notification = {FVStrings::format("notificationnoroom", disk), "", refusal, false, true};
    } else if (!diskFailure.empty()) {
        const std::string cause = FVRunOutcome::causeOf(diskFailure);
        notification = {FVStrings::format("notificationdiskfailed", disk), "", cause, false, true};
        cover->setMessage(localizedFormat("backupdiskfailed", disk));
        cover->setDetailMessage(QString::fromStdString(cause));
    } else if (!errors.empty())
        notification.subtitle = FVStrings::formatPlural("notificationerrors", static_cast<long long>(errors.size()));
    notifyUnlessActive(notification);

    backupIsRunning_ = false;
    cancelling_ = false;
    runLock_.release();
    resumeSizeEvaluation();
    updateSizeDisplay();
    if (closeAfterRun_) {
        finishRunAndMaybeClose();
        return;
    }
    if (noRoom) {
        // What the check found, not the errors of a run that never began: any others stay
        // behind Show Errors….
        QMessageBox* box = FVAlert::show(window_.get(), "noroomalert", "noroomalertlong", QMessageBox::Warning,
                                         [this] { window_->coverView()->openView(); });
        box->setText(localizedFormat("noroomalert", disk));
        box->setInformativeText(localized("noroomalertlong") + "\n\n" + QString::fromStdString(refusal));
        box->raise();
    } else if (!errors.empty()) {
        showErrorPanel(errors);
    } else {
        // The run has already stopped: this tells what is left, it asks nothing.
        QMessageBox* box = FVAlert::show(window_.get(), "cancelalert", "cancelalertlong", QMessageBox::Information,
                                         [this] { window_->coverView()->openView(); });
        box->setInformativeText(copied == 0 ? localized("cancelalertnone")
                                            : QString::fromStdString(FVStrings::formatPlural("cancelalertlong", copied)));
        box->raise();
    }
    finishRunAndMaybeClose();
}

void AppController::handleFinish() {
    // A stop that came too late to interrupt the last step is still a stop for the user.
    if (cancelling_) {
        handleCancel();
        return;
    }
    progressTimer_.stop();
    writeSettings();
    runLock_.release();
    backupIsRunning_ = false;
    cancelling_ = false;
    setDestinationControlsEnabled(true);
    setOptionWidgetsEnabled(true);

    const int32_t updated = backupSession_->updatedFileCount();
    const double share = backupSession_->changedPercent();
    FVSyncingBackup* job = backupSession_->syncingBackup();
    std::string duration = job ? job->currentDurationString() : "";

    std::vector<std::string> errors = backupSession_->errorMessages();
    // An unrecorded run is no success: the window shows its warning with the errors.
    const size_t errorCount = errors.size();
    for (const std::string& warning : backupSession_->warnings()) errors.push_back(warning);
    recordRunOutcome(FVRunOutcome::State::Finished, errors);
    if (errorCount > 0)
        recordJobAttempt(FVJobOutcome::Errors, errorCount == 1 ? errors.front()
                                                               : fmt::format("{} errors, the first: {}", errorCount, errors.front()));
    else if (!errors.empty())
        recordJobAttempt(FVJobOutcome::Warnings, errors.front());
    else
        recordJobAttempt(FVJobOutcome::Finished, "");
    updateScheduleState();
    QSettings().setValue("backupCompleted", true);

    FVCoverView* cover = window_->coverView();
    cover->clearMessages();
    if (errors.empty())
        cover->setMessage(QString::fromStdString(FVStrings::formatPlural("viewbackupfinished", updated, share)));
    else
        cover->setMessage(QString::fromStdString(FVStrings::formatPlural("viewbackupfinishederrors", (long long)errors.size(), updated)));
    cover->setDetailMessage(localizedFormat("backupduration", duration));
    cover->setProgress(-1);
    window_->progressView()->setProgress(0);
    window_->startButton()->setText(localized("syncbutton"));
    window_->startButton()->setEnabled(true);
    updateSizeDisplay();

    FVUserNotification notification{FVStrings::format("notificationfinished", FVText::lastPathComponent(currentTargetPath_)),
                                    backupSession_->finishedSummary(), ""};
    if (!errors.empty())
        notification.informativeText = FVStrings::formatPlural("notificationerrors", static_cast<long long>(errors.size()));
    notification.critical = !errors.empty();
    notifyUnlessActive(notification);

    resumeSizeEvaluation();
    if (!closeAfterRun_) {
        if (!errors.empty()) {
            showErrorPanel(errors);
        } else {
            QApplication::alert(window_.get());
            if (window_->isActiveWindow()) cover->openViewDelayedBy(4.0);
            else coverViewShouldOpenOnBecomeMain_ = true;
        }
    }
    finishRunAndMaybeClose();
}

void AppController::finishRunAndMaybeClose() {
    // The ended session still holds the destination's folders open: the disk must be free to
    // eject while the window idles.
    backupSession_.reset();
    followDestination();
    emit runEnded();
    if (closeAfterRun_) window_->close();
}

bool AppController::windowShouldClose() {
    if (starting_) abortStart();
    // A restore stops with the window; what it restored so far stays, whole.
    restoreController_->stop();
    if (!backupIsRunning_) {
        writeSettingsIfOpen();
        closeAfterRun_ = false;
        return true;
    }
    if (closeAfterRun_) return false;  // already stopping; the window closes when the run has ended
    FVAlert::ask(window_.get(), "quitwhilerunning", "quitwhilerunninglong", "continuebutton", "stopandquitbutton",
                 [this](bool stop) {
                     if (!stop || !backupIsRunning_) return;
                     closeAfterRun_ = true;
                     if (!cancelling_) startOrCancelSync();
                 });
    return false;
}

}  // namespace ferrovane
