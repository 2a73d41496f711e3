#include "app/FVRunController.h"

#include "app/FVAlert.h"
#include "app/FVCoverView.h"
#include "app/FVDestinationPopup.h"
#include "app/FVDestinationPresence.h"
#include "app/FVErrorPanel.h"
#include "app/FVMainWindow.h"
#include "app/FVQtStrings.h"
#include "app/FVRunProgress.h"
#include "app/FVSourceListModel.h"
#include "app/FVThinProgressBar.h"
#include "backupset/BackupSetController.h"
#include "engine/config/FVConfigurationFile.h"
#include "engine/run/FVLog.h"
#include "fs/FVText.h"
#include "scheduling/FVOptionsPanelController.h"

#include <QApplication>
#include <QEventLoop>
#include <QLabel>
#include <QPushButton>
#include <QSettings>

#include <algorithm>
#include <fmt/format.h>

namespace ferrovane {

FVRunController::FVRunController(Parts parts, Host host, QObject* parent)
    : QObject(parent), parts_(std::move(parts)), host_(std::move(host)) {
    // Copies are published without a progress report of their own: the counts are read again
    // a few times a second while a run goes on.
    progressTimer_.setInterval(250);
    connect(&progressTimer_, &QTimer::timeout, this, &FVRunController::handleProgress);
}

FVRunController::~FVRunController() {
    if (backupSession_ && backupIsRunning_) {
        backupSession_->cancel();
        QEventLoop loop;
        connect(this, &FVRunController::runEnded, &loop, &QEventLoop::quit);
        if (backupIsRunning_) loop.exec();
    }
}

std::string FVRunController::diskName() const { return FVText::lastPathComponent(host_.destination()); }

void FVRunController::startOrCancel() {
    QPushButton* button = parts_.window->startButton();
    FVCoverView* cover = parts_.window->coverView();
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
    parts_.window->targetPopup()->setEnabled(false);
    parts_.window->progressView()->setProgress(0);
    cover->clearMessages();
    cover->setProgress(0);
    cover->setMessage(localized("viewstartingbackup"));
    button->setText(localized("cancelbutton"));
    host_.setControlsEnabled(false);
    starting_ = true;
    cover->scrollIn([this] { startSync(); });
}

bool FVRunController::passesStartChecks() {
    using Verdict = FVRunStartChecks::Verdict;
    switch (parts_.startChecks.check(host_.destination(), parts_.presence.isPresent(), parts_.sources.arrangedObjects(),
                                     FVOptionTable::read(*parts_.options.allOptions()), runLock_)) {
    case Verdict::Passed: return true;
    case Verdict::Refused: return false;
    case Verdict::Away: host_.destinationWentAway(); return false;
    case Verdict::Unusable: host_.destinationUnusable(); return false;
    }
    return false;
}

void FVRunController::abortStart() {
    if (!starting_) return;
    starting_ = false;
    runLock_.release();
    parts_.window->startButton()->setText(localized("syncbutton"));
    parts_.window->coverView()->setProgress(-1);
    parts_.window->coverView()->openView();
    host_.setControlsEnabled(true);
}

void FVRunController::startSync() {
    starting_ = false;
    const std::string& destination = host_.destination();
    notifyUnlessActive({"Backup started: " + diskName(), "", ""});
    host_.writeSettings();
    backupIsRunning_ = true;
    parts_.sources.setDisableSizeEvaluation(true);
    parts_.sources.cancelSizeEvaluation();
    parts_.window->progressView()->setProgress(1.0);
    parts_.window->coverView()->setProgress(1.0);

    backupSession_ = std::make_unique<FVBackupSession>();
    backupSession_->setDelegate(this);
    backupSession_->setDestinationPath(destination);
    backupSession_->setBackupOptions(parts_.options.options());
    // Items of the file that the list could not take are kept there and reported by the run.
    backupSession_->setConfigurationProblems(
        FVConfigurationFile::read(FVConfigurationFile::formattedPath(destination)).skippedItems);
    backupSession_->setBackupSet(parts_.sources.arrangedObjects());
    backupSession_->setExcludePaths(parts_.sources.excludePaths());
    runClock_.start();
    progressTimer_.start();
    backupSession_->start();
    emit runStarted();
}

// The session calls these on its threads; the window's work is queued to the GUI thread.
void FVRunController::backupSessionProgressDidChange(FVBackupSession&) {
    // Progress arrives per file: one queued update at a time is enough.
    if (progressPosted_.exchange(true)) return;
    QMetaObject::invokeMethod(this, [this] {
        progressPosted_ = false;
        handleProgress();
    }, Qt::QueuedConnection);
}

void FVRunController::backupSessionDidCancel(FVBackupSession&) {
    QMetaObject::invokeMethod(this, &FVRunController::handleCancel, Qt::QueuedConnection);
}

void FVRunController::backupSessionDidFinish(FVBackupSession&) {
    QMetaObject::invokeMethod(this, &FVRunController::handleFinish, Qt::QueuedConnection);
}

void FVRunController::handleProgress() {
    if (!backupIsRunning_ || !backupSession_) return;
    const FVRunProgress progress{backupSession_->totals(), backupSession_->progressPercent(), runClock_.elapsed() / 1000.0,
                                 backupSession_->currentFile()};
    FVCoverView* cover = parts_.window->coverView();
    cover->setProgress(progress.percent);
    cover->setMessage(QString::fromStdString(backupSession_->currentTaskDescription()));
    cover->setDetailMessage(progress.counts());
    cover->setSmallMessage(progress.pace());
    parts_.window->progressView()->setProgress(progress.percent);
    parts_.launcherEntry.setProgress(progress.percent / 100.0, static_cast<qint64>(progress.totals.copied));
}

void FVRunController::notifyUnlessActive(const FVUserNotification& notification) {
    if (parts_.notifier && !parts_.window->isActiveWindow()) parts_.notifier->deliver(notification);
}

// The errors of the last run, headed by the failure of its disk when it had one.
void FVRunController::showErrorPanel() {
    auto* panel = new FVErrorPanel(parts_.window, runOutcome_.errors());
    if (!runOutcome_.destinationFailure().empty()) panel->setHeading(runOutcome_.diskFailureSummary(diskName()));
    connect(panel, &FVErrorPanel::emptiedSourceConfirmationRequested, this, &FVRunController::emptiedSourceConfirmationRequested);
    connect(panel, &QDialog::finished, this, [this] {
        // Seen: the count of what the failed disk kept out goes from the launcher too.
        if (!backupIsRunning_) parts_.launcherEntry.clear();
        if (!host_.destination().empty()) parts_.window->coverView()->openViewDelayedBy(0.5);
    });
    // The cover, when it is in, says what happened: the list of errors goes under its text.
    FVCoverView* cover = parts_.window->coverView();
    if (cover->isFullyHidden()) panel->open();
    else panel->openBelow(cover->textBottom());
}

void FVRunController::showLastRunErrors() {
    if (!runOutcome_.errors().empty() && !backupIsRunning_) showErrorPanel();
}

void FVRunController::setOutcome(FVRunOutcome outcome) {
    runOutcome_ = std::move(outcome);
    parts_.sourceModel.setRunOutcome(runOutcome_);
    const bool known = !host_.destination().empty();
    parts_.window->lastRunLine()->setText(known ? runOutcome_.headline() : QString());
    const bool hasErrors = known && !runOutcome_.errors().empty();
    parts_.window->showErrorsButton()->setVisible(hasErrors);
    parts_.window->showErrorsAction()->setEnabled(hasErrors);
}

// Kept until the next run, also across starts.
void FVRunController::recordRunOutcome(FVRunOutcome::State state, const std::vector<std::string>& errors,
                                       std::pair<std::string, long long> interrupted, std::string destinationFailure,
                                       long long notCopied) {
    FVRunOutcome outcome(state, QDateTime::currentDateTime(), errors);
    outcome.setInterruptedSource(std::move(interrupted.first), interrupted.second);
    outcome.setDestinationFailure(std::move(destinationFailure), notCopied);
    outcome.save(qPath(host_.destination()));
    setOutcome(std::move(outcome));
}

void FVRunController::recordJobAttempt(FVJobOutcome outcome, const std::string& message) {
    const std::string uuid = parts_.options.uuid();
    if (uuid.empty()) return;
    std::string line = message.substr(0, message.find('\n'));
    const FVJobAttempt attempt{std::time(nullptr), FVJobTrigger::Manual, outcome, std::move(line)};
    std::string error;
    // The run itself is done and recorded in the destination; only the status outside it is missing.
    if (!FVJobStatusStore(parts_.jobStatusFolder)
             .record(uuid, host_.destination(), attempt, parts_.options.options().overdueDays, &error))
        FVLog::currentLog().addLogLine("Could not record the run in the job status: " + error);
}

void FVRunController::resumeSizeEvaluation() {
    parts_.sources.setDisableSizeEvaluation(false);
    // The run's write removed every measured size; this measures them all again.
    parts_.sources.evaluateItemModeChange();
}

void FVRunController::handleCancel() {
    progressTimer_.stop();
    FVCoverView* cover = parts_.window->coverView();
    parts_.window->progressView()->setProgress(0);
    cover->setProgress(-1);
    cover->clearMessages();
    parts_.window->startButton()->setText(localized("syncbutton"));
    parts_.window->startButton()->setEnabled(true);
    host_.setControlsEnabled(true);

    std::vector<std::string> errors = backupSession_->errorMessages();
    // What stands in the mirror, not what the analysis had queued.
    const FVRunTotals totals = backupSession_->totals();
    // Nobody stopped a run that could not fit: it says why, and the schedule knows the disk is full.
    const bool noRoom = backupSession_->stoppedForSpace();
    const std::string refusal = backupSession_->refusal();
    // Nor one whose disk failed or went away: the cause comes first, the errors it caused after.
    const std::string diskFailure = backupSession_->destinationFailure();
    if (!diskFailure.empty())
        std::stable_partition(errors.begin(), errors.end(), [&](const std::string& error) { return error == diskFailure; });
    // Rather than an empty cover until the alert is dismissed.
    cover->setMessage(noRoom ? QString::fromStdString(refusal) : localized("backupstopped"));
    if (!noRoom) cover->setDetailMessage(FVRunProgress{totals, 0, 0, {}}.counts());
    recordRunOutcome(noRoom ? FVRunOutcome::State::NoRoom : FVRunOutcome::State::Stopped, errors,
                     {backupSession_->interruptedSourcePath(), static_cast<long long>(backupSession_->copiedInSourceItem())},
                     diskFailure, totals.toCopy > totals.copied ? static_cast<long long>(totals.toCopy - totals.copied) : 0);
    if (!diskFailure.empty()) {
        cover->setMessage(runOutcome_.diskFailureSummary(diskName()));
        cover->setDetailMessage(QString::fromStdString(FVRunOutcome::causeOf(diskFailure)));
    }
    if (noRoom) recordJobAttempt(FVJobOutcome::NoSpace, refusal);
    else if (!diskFailure.empty()) recordJobAttempt(FVJobOutcome::Failed, diskFailure);
    else if (backupSession_->skippedByBeforeHook()) recordJobAttempt(FVJobOutcome::Failed, refusal);
    else recordJobAttempt(FVJobOutcome::Stopped, "stopped in the window");
    host_.updateScheduleState();
    notifyStop(noRoom, refusal, diskFailure, errors.size());

    backupIsRunning_ = false;
    cancelling_ = false;
    runLock_.release();
    resumeSizeEvaluation();
    host_.updateSizeDisplay();
    if (!closeAfterRun_) showStopAlert(noRoom, refusal, static_cast<long long>(totals.copied));
    finishRunAndMaybeClose();
}

void FVRunController::notifyStop(bool noRoom, const std::string& refusal, const std::string& diskFailure, size_t errorCount) {
    const std::string disk = diskName();
    FVUserNotification notification{FVStrings::format("notificationstopped", disk), "", ""};
    if (noRoom) {
        notification = {FVStrings::format("notificationnoroom", disk), "", refusal, false, true};
    } else if (!diskFailure.empty()) {
        const std::string cause = FVRunOutcome::causeOf(diskFailure);
        notification = {FVStrings::format("notificationdiskfailed", disk),
                        FVStrings::formatPlural("notificationnotcopied", runOutcome_.notCopied()), cause, false, true};
    } else if (errorCount > 0)
        notification.subtitle = FVStrings::formatPlural("notificationerrors", static_cast<long long>(errorCount));
    notifyUnlessActive(notification);
}

void FVRunController::showStopAlert(bool noRoom, const std::string& refusal, long long copied) {
    if (noRoom) {
        // What the check found, not the errors of a run that never began: any others stay
        // behind Show Errors….
        QMessageBox* box = FVAlert::show(parts_.window, "noroomalert", "noroomalertlong", QMessageBox::Warning,
                                         [this] { parts_.window->coverView()->openView(); });
        box->setText(localizedFormat("noroomalert", diskName()));
        box->setInformativeText(localized("noroomalertlong") + "\n\n" + QString::fromStdString(refusal));
        box->raise();
    } else if (!runOutcome_.errors().empty()) {
        showErrorPanel();
    } else {
        // The run has already stopped: this tells what is left, it asks nothing.
        QMessageBox* box = FVAlert::show(parts_.window, "cancelalert", "cancelalertlong", QMessageBox::Information,
                                         [this] { parts_.window->coverView()->openView(); });
        box->setInformativeText(copied == 0 ? localized("cancelalertnone")
                                            : QString::fromStdString(FVStrings::formatPlural("cancelalertlong", copied)));
        box->raise();
    }
}

void FVRunController::handleFinish() {
    // A stop that came too late to interrupt the last step is still a stop for the user.
    if (cancelling_) {
        handleCancel();
        return;
    }
    progressTimer_.stop();
    host_.writeSettings();
    runLock_.release();
    backupIsRunning_ = false;
    cancelling_ = false;
    host_.setControlsEnabled(true);

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
    host_.updateScheduleState();
    QSettings().setValue("backupCompleted", true);

    FVCoverView* cover = parts_.window->coverView();
    cover->clearMessages();
    if (errors.empty())
        cover->setMessage(QString::fromStdString(FVStrings::formatPlural("viewbackupfinished", updated, share)));
    else
        cover->setMessage(QString::fromStdString(FVStrings::formatPlural("viewbackupfinishederrors", (long long)errors.size(), updated)));
    cover->setDetailMessage(localizedFormat("backupduration", duration));
    cover->setProgress(-1);
    parts_.window->progressView()->setProgress(0);
    parts_.window->startButton()->setText(localized("syncbutton"));
    parts_.window->startButton()->setEnabled(true);
    host_.updateSizeDisplay();

    FVUserNotification notification{FVStrings::format("notificationfinished", diskName()), backupSession_->finishedSummary(), ""};
    if (!errors.empty())
        notification.informativeText = FVStrings::formatPlural("notificationerrors", static_cast<long long>(errors.size()));
    notification.critical = !errors.empty();
    notifyUnlessActive(notification);

    resumeSizeEvaluation();
    if (!closeAfterRun_) {
        if (!errors.empty()) {
            showErrorPanel();
        } else {
            QApplication::alert(parts_.window);
            if (parts_.window->isActiveWindow()) cover->openViewDelayedBy(4.0);
            else coverOpensOnActivation_ = true;
        }
    }
    finishRunAndMaybeClose();
}

void FVRunController::finishRunAndMaybeClose() {
    // The ended session still holds the destination's folders open: the disk must be free to
    // eject while the window idles.
    backupSession_.reset();
    host_.followDestination();
    emit runEnded();
    // Until its errors are seen, the launcher counts what a failed disk kept out of the mirror.
    if (!runOutcome_.destinationFailure().empty() && runOutcome_.notCopied() > 0)
        parts_.launcherEntry.showCount(runOutcome_.notCopied());
    if (closeAfterRun_) parts_.window->close();
}

bool FVRunController::windowMayClose() {
    abortStart();
    if (!backupIsRunning_) {
        closeAfterRun_ = false;
        return true;
    }
    if (closeAfterRun_) return false;  // already stopping; the window closes when the run has ended
    FVAlert::ask(parts_.window, "quitwhilerunning", "quitwhilerunninglong", "continuebutton", "stopandquitbutton",
                 [this](bool stop) {
                     if (!stop || !backupIsRunning_) return;
                     closeAfterRun_ = true;
                     if (!cancelling_) startOrCancel();
                 });
    return false;
}

}  // namespace ferrovane
