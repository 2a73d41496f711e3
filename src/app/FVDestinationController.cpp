#include "app/FVDestinationController.h"

#include "app/FVAlert.h"
#include "app/FVBackupBrowser.h"
#include "app/FVCoverView.h"
#include "app/FVDestinationPopup.h"
#include "app/FVDestinationSearchSheet.h"
#include "app/FVFileDialog.h"
#include "app/FVMainWindow.h"
#include "app/FVOptionsPanel.h"
#include "app/FVQtStrings.h"
#include "app/FVThinProgressBar.h"
#include "app/FVVerifySheet.h"
#include "backupset/BackupSetController.h"
#include "engine/config/FVConfigurationFile.h"
#include "fs/FVFileStatus.h"
#include "fs/FVMountTable.h"
#include "fs/FVText.h"
#include "scheduling/FVLaunchAgentManager.h"
#include "scheduling/FVOptionsPanelController.h"

#include <QComboBox>
#include <QFileDialog>
#include <QFileIconProvider>
#include <QFileInfo>
#include <QHash>
#include <QLabel>
#include <QPushButton>
#include <QSettings>
#include <QStorageInfo>
#include <QStyle>
#include <QToolButton>

#include <sys/stat.h>
#include <unistd.h>

namespace ferrovane {

namespace {

bool isReadableAndWritable(const std::string& path) { return FVFileStatus::access(path.c_str(), R_OK | W_OK) == 0; }

QPixmap iconFor(const QString& path) { return QFileIconProvider().icon(QFileInfo(path)).pixmap(32, 32); }

QPixmap noDestinationIcon(QWidget* widget) {
    return widget->style()->standardIcon(QStyle::SP_MessageBoxQuestion).pixmap(32, 32, QIcon::Disabled);
}

}  // namespace

FVDestinationController::FVDestinationController(Parts parts, Host host, QObject* parent)
    : QObject(parent), window_(parts.window), sources_(parts.sources), options_(parts.options),
      launchAgentManager_(parts.launchAgentManager), runningAsRoot_(parts.runningAsRoot), host_(std::move(host)) {
    connect(&presence_, &FVDestinationPresence::wentAway, this, [this] {
        // A run notices it by itself and ends; the window follows once it has.
        if (!host_.isBusy()) wentAway();
    });
    connect(&presence_, &FVDestinationPresence::cameBack, this, &FVDestinationController::cameBack);
}

void FVDestinationController::load() {
    QSettings settings;
    list_.load(settings);
    reloadPopup();
}

void FVDestinationController::rememberUUID(const std::string& uuid) {
    const int index = list_.indexOf(qPath(path_));
    if (index < 0) return;
    list_.setUUID(index, QString::fromStdString(uuid));
    save();
}

void FVDestinationController::reloadPopup() {
    FVDestinationPopup* popup = window_->targetPopup();
    popup->clear();
    QHash<QString, int> nameCounts;
    for (const FVDestination& entry : list_.entries()) ++nameCounts[QFileInfo(entry.targetPath).fileName()];
    for (const FVDestination& entry : list_.entries()) {
        QString name = QFileInfo(entry.targetPath).fileName();
        // Two disks both called "Backup" are told apart by where they are.
        if (nameCounts.value(name) > 1) name = localizedFormat("destinationwithpath", stdPath(name), stdPath(entry.targetPath));
        popup->addDestination(QFileIconProvider().icon(QFileInfo(entry.targetPath)), name.isEmpty() ? entry.targetPath : name,
                              entry.targetPath);
    }
    popup->setCurrentIndex(list_.isEmpty() ? -1 : list_.selectedIndex());
    window_->removeTargetButton()->setEnabled(!list_.isEmpty());
}

void FVDestinationController::save() {
    QSettings settings;
    list_.save(settings);
}

void FVDestinationController::setControlsEnabled(bool enabled) {
    window_->targetPopup()->setEnabled(enabled);
    window_->addTargetButton()->setEnabled(enabled);
    window_->removeTargetButton()->setEnabled(enabled && !list_.isEmpty());
}

void FVDestinationController::showNewDestinationPanel() {
    QFileDialog* panel = FVFileDialog::make(window_, localized("adddestinationtitle"), "addDestinationDialog",
                                            QFileDialog::Directory, localized("selecttargetpanelbutton"));
    connect(panel, &QFileDialog::fileSelected, this, [this](const QString& path) {
        window_->progressView()->setProgress(0);
        window_->coverView()->setProgress(-1);
        window_->startButton()->setEnabled(false);
        addAndOpen(path);
    });
    panel->open();
}

void FVDestinationController::addAndOpen(const QString& path) {
    host_.writeSettingsIfOpen();
    QString clean = qPath(FVText::standardizedPath(stdPath(QFileInfo(path).absoluteFilePath())));
    list_.setSelectedIndex(list_.add(clean));
    save();
    reloadPopup();
    window_->startButton()->setEnabled(false);
    window_->coverView()->setMessage(localized("selectingbackup"));
    window_->coverView()->scrollIn([this] { reopen(); });
}

void FVDestinationController::select(int index) {
    if (index < 0 || index >= list_.count()) return;
    host_.writeSettingsIfOpen();
    list_.setSelectedIndex(index);
    save();
    window_->progressView()->setProgress(0);
    window_->coverView()->setProgress(-1);
    window_->startButton()->setEnabled(false);
    FVCoverView* cover = window_->coverView();
    cover->clearMessages();
    cover->setMessage(localized("selectingbackup"));
    if (isReadableAndWritable(stdPath(list_.at(index).targetPath))) {
        cover->scrollIn([this] { reopen(); });
        return;
    }
    // The question is about the new destination: nothing of the one before stays in view.
    path_.clear();
    presence_.stop();
    sources_.removeAllItems();
    host_.setRunOutcome({});
    window_->destinationIcon()->setPixmap(noDestinationIcon(window_));
    window_->progressInfo()->clear();
    host_.setOptionWidgetsEnabled(false);
    cover->scrollIn([this] {
        FVAlert::ask(window_, "removetarget", "removetargetlong", "keepbutton", "removebutton", [this](bool remove) {
            if (remove) {
                removeSelected();
                return;
            }
            showUnavailable();
            host_.setOptionWidgetsEnabled(false);
            path_.clear();
            openSelected();
        });
    });
}

void FVDestinationController::reopen() {
    sources_.removeAllItems();
    host_.setOptionWidgetsEnabled(false);
    openSelected();
}

void FVDestinationController::showUnusable(const char* messageKey) {
    FVCoverView* cover = window_->coverView();
    cover->clearMessages();
    cover->setMessage(localized(messageKey));
    cover->setSmallMessage(qPath(path_));
    cover->scrollIn();
    // Nothing of a destination that cannot be used stays behind the cover, nor is measured.
    sources_.removeAllItems();
    host_.setRunOutcome({});
    window_->destinationIcon()->setPixmap(noDestinationIcon(window_));
    window_->progressInfo()->clear();
    window_->startButton()->setEnabled(false);
    host_.setOptionWidgetsEnabled(false);
    host_.clearScheduleState();
}

void FVDestinationController::wentAway() {
    if (path_.empty()) return;
    presence_.awaitReturn(path_);
    for (QDialog* sheet : window_->findChildren<QDialog*>())
        if (qobject_cast<FVOptionsPanel*>(sheet) || qobject_cast<FVDestinationSearchSheet*>(sheet) ||
            qobject_cast<FVBackupBrowser*>(sheet) || qobject_cast<FVVerifySheet*>(sheet))
            sheet->reject();
    showUnusable("destinationaway");
    window_->coverView()->setMessage(localizedFormat("destinationaway", stdPath(name())));
    window_->coverView()->setHeld(true);
    // How its last run ended is known without the disk.
    host_.setRunOutcome(FVRunOutcome::load(qPath(path_)));
    if (!host_.runOutcome().destinationFailure().empty())
        window_->coverView()->setDetailMessage(host_.runOutcome().diskFailureSummary(stdPath(name())));
    const int index = list_.indexOf(qPath(path_));
    if (index >= 0) host_.showOverdueWhileAway(list_.at(index).uuid.toStdString());
}

void FVDestinationController::follow() {
    if (path_.empty() || host_.isBusy()) return;
    if (presence_.isAway() || !presence_.isPresent()) wentAway();
}

void FVDestinationController::cameBack() {
    if (host_.isBusy()) return;
    // Read again from its configuration: nothing of the list before it went away is kept.
    window_->coverView()->clearMessages();
    window_->coverView()->setMessage(localized("selectingbackup"));
    reopen();
}

bool FVDestinationController::refusedWhileAway() {
    // A destination closed for another reason (permissions, root's) is not waited for.
    if (!presence_.isWatching() || presence_.isPresent()) return false;
    QMessageBox* box = FVAlert::show(window_, "destinationaway", "destinationawaylong");
    box->setText(localizedFormat("destinationaway", stdPath(name())));
    return true;
}

void FVDestinationController::openSelected() {
    FVCoverView* cover = window_->coverView();
    if (list_.isEmpty()) {
        path_.clear();
        presence_.stop();
        host_.setRunOutcome({});
        window_->destinationIcon()->clear();
        window_->progressInfo()->clear();
        cover->clearMessages();
        cover->setMessage(localized("viewnobackupselected"));
        cover->scrollIn();
        window_->startButton()->setEnabled(false);
        host_.setOptionWidgetsEnabled(false);
        host_.clearScheduleState();
        return;
    }
    cover->clearMessages();
    cover->setMessage(localized("selectingbackup"));
    const int index = list_.selectedIndex();
    path_ = stdPath(list_.at(index).targetPath);
    presence_.stop();
    if (FVFileStatus::access(path_.c_str(), F_OK) != 0) {
        wentAway();
        return;
    }
    if (!isReadableAndWritable(path_)) {
        showUnusable("destinationnopermissions");
        return;
    }
    presence_.watch(path_);
    window_->coverView()->setHeld(false);
    if (FVFileStatus::access(FVConfigurationFile::currentPath(path_).c_str(), F_OK) != 0 &&
        FVFileStatus::access(FVConfigurationFile::legacyPath(path_).c_str(), F_OK) == 0)
        FVAlert::show(window_, "Ferrovane3UpgradeAlertMessage", "Ferrovane3UpgradeAlertText", QMessageBox::Information);
    host_.readSettings();
    if (options_.options().isSuperuserBackup && !runningAsRoot_) {
        presence_.stop();
        showUnusable("destinationrequiressuperuser");
        return;
    }
    updateSizeDisplay();
    host_.setRunOutcome(FVRunOutcome::load(qPath(path_)));
    QString uuid = QString::fromStdString(options_.uuid());
    if (!uuid.isEmpty() && list_.at(index).uuid != uuid) {
        list_.setUUID(index, uuid);
        save();
    }
    window_->destinationIcon()->setPixmap(iconFor(qPath(path_)));
    window_->startButton()->setEnabled(true);
    host_.setOptionWidgetsEnabled(true);
    host_.updateScheduleState();
    cover->openViewDelayedBy(0.5);

    for (const FVSourceItemPtr& item : sources_.arrangedObjects()) {
        if (item->enabled() != int64_t(FVSourceMode::Backup)) continue;
        struct stat st;
        if (FVFileStatus::lstat(item->sourcePath().c_str(), &st) != 0) {
            FVAlert::show(window_, "sourcesunavailable", "sourcesunavailablelong", QMessageBox::Critical);
            break;
        }
    }
}

void FVDestinationController::showUnavailable() {
    window_->progressView()->setProgress(0);
    FVCoverView* cover = window_->coverView();
    cover->setProgress(-1);
    cover->clearMessages();
    cover->setMessage(localized(list_.isEmpty() ? "viewnobackupselected" : "destinationunavailable"));
    cover->scrollIn();
    window_->startButton()->setText(localized("syncbutton"));
    window_->startButton()->setEnabled(false);
    sources_.removeAllItems();
    host_.clearScheduleState();
}

void FVDestinationController::askToRemoveSelected() {
    if (list_.isEmpty() || host_.runIsGoing()) return;
    host_.writeSettingsIfOpen();
    QMessageBox* box = FVAlert::ask(window_, "removetargetclicked", "removetargetclickedlong", "cancelbuttontitle",
                                    "removebutton", [this](bool remove) {
                                        if (remove) removeSelected();
                                    });
    box->setText(localizedFormat("removetargetclicked", stdPath(window_->targetPopup()->currentText())));
}

void FVDestinationController::removeSelected() {
    int index = window_->targetPopup()->currentIndex();
    list_.removeAt(index);
    if (index >= list_.count()) index = 0;
    list_.setSelectedIndex(index);
    save();
    reloadPopup();
    std::vector<std::string> ids;
    for (const QString& id : list_.uuids()) ids.push_back(id.toStdString());
    launchAgentManager_.cleanJobsWithoutIDs(ids);
    window_->startButton()->setEnabled(false);
    window_->coverView()->clearMessages();
    window_->coverView()->setMessage(localized("selectingbackup"));
    window_->coverView()->scrollIn([this] { reopen(); });
}

void FVDestinationController::updateSizeDisplay() {
    QString value = "--";
    std::string type = FVMountTable::fileSystemTypeAtPath(path_);
    if (type != "webdav" && type != "davfs" && type != "fuse.davfs") {
        double free = double(QStorageInfo(qPath(path_)).bytesAvailable());
        double megabytes = free * 1e-6;
        if (megabytes > 1000.0) value = localizedFormat("gbfree", free * 1e-9);
        else if (megabytes > 0.0) value = localizedFormat("mbfree", megabytes);
    }
    window_->progressInfo()->setText(localizedFormat("availablespace", value.toStdString()));
}

QString FVDestinationController::name() const { return qPath(FVText::lastPathComponent(path_)); }

}  // namespace ferrovane
