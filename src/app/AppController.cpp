#include "app/AppController.h"
#include "fs/FVMountTable.h"

#include "app/FVAlert.h"
#include "app/FVCoverView.h"
#include "app/FVDestinationPopup.h"
#include "app/FVBackupBrowser.h"
#include "app/FVDestinationSchedule.h"
#include "app/FVDestinationSearchSheet.h"
#include "app/FVVerifySheet.h"
#include "app/FVDropZone.h"
#include "app/FVFileDialog.h"
#include "app/FVFileReveal.h"
#include "app/FVLogViewer.h"
#include "app/FVMainWindow.h"
#include "app/FVOptionsPanel.h"
#include "app/FVOverdueBanner.h"
#include "app/FVQtStrings.h"
#include "app/FVRestoreController.h"
#include "app/FVScheduleFailureAlert.h"
#include "app/FVSourceListModel.h"
#include "app/FVSourceListView.h"
#include "app/FVThinProgressBar.h"
#include "engine/config/FVConfigurationFile.h"
#include "engine/config/FVPlacementChange.h"
#include "engine/run/FVLog.h"
#include "fs/FVText.h"

#include <QApplication>
#include <QComboBox>
#include <QEventLoop>
#include <QDesktopServices>
#include <QFileDialog>
#include <QFileIconProvider>
#include <QFileInfo>
#include <QHash>
#include <QLabel>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPushButton>
#include <QSettings>
#include <QStatusBar>
#include <QStorageInfo>
#include <QToolButton>
#include <QUrl>
#include <QVersionNumber>

#include <sys/stat.h>
#include <unistd.h>

namespace ferrovane {

namespace {

bool isReadableAndWritable(const std::string& path) { return access(path.c_str(), R_OK | W_OK) == 0; }

QPixmap iconFor(const QString& path) { return QFileIconProvider().icon(QFileInfo(path)).pixmap(32, 32); }

QPixmap noDestinationIcon(QWidget* widget) {
    return widget->style()->standardIcon(QStyle::SP_MessageBoxQuestion).pixmap(32, 32, QIcon::Disabled);
}

}  // namespace

AppEnvironment AppEnvironment::system() {
    return {geteuid() == 0, std::make_shared<FVProcessCommandRunner>(), makeDesktopNotifier(),
            FVJobStatusStore::defaultFolder()};
}

AppController::AppController(AppEnvironment environment, QObject* parent)
    : QObject(parent),
      environment_(std::move(environment)),
      mainQueue_(this),
      backupSetController_(&mainQueue_),
      launchAgentManager_(environment_.commandRunner),
      optionsPanelController_(launchAgentManager_),
      sourceModel_(std::make_unique<FVSourceListModel>(backupSetController_)),
      window_(std::make_unique<FVMainWindow>()),
      startChecks_(window_.get(), environment_.runningAsRoot),
      restoreController_(std::make_unique<FVRestoreController>(window_.get(), [this] { return backupIsRunning_ || starting_; })) {
    FVMainWindow* w = window_.get();
    // Copies are published without a progress report of their own: the counts are read again
    // a few times a second while a run goes on.
    progressTimer_.setInterval(250);
    connect(&progressTimer_, &QTimer::timeout, this, &AppController::handleProgress);
    w->setSourceModel(sourceModel_.get());
    w->setCloseHandler([this] { return windowShouldClose(); });

    connect(w->targetPopup(), &QComboBox::activated, this, &AppController::performTargetMenuSelection);
    connect(w->addTargetButton(), &QToolButton::clicked, this, &AppController::showNewBackupPanel);
    connect(w->removeTargetButton(), &QToolButton::clicked, this, &AppController::removeTargetWidgetClicked);
    connect(w->startButton(), &QPushButton::clicked, this, &AppController::startOrCancelSync);
    connect(w->optionsButton(), &QPushButton::clicked, this, &AppController::showOptionsPanel);
    connect(w->searchButton(), &QPushButton::clicked, this, &AppController::showSearchBackupPanel);
    connect(w->browseAction(), &QAction::triggered, this, &AppController::showBackupBrowser);
    connect(w->verifyAction(), &QAction::triggered, this, &AppController::showVerifySheet);
    connect(w->addFoldersAction(), &QAction::triggered, this, &AppController::addSourceFolders);
    connect(w->addFilesAction(), &QAction::triggered, this, &AppController::addSourceFiles);
    connect(w->excludeAction(), &QAction::triggered, this, [this] {
        if (FVOptionsPanel* panel = showOptionsPanel()) panel->focusExclusions();
    });
    connect(w->backUpNowAction(), &QAction::triggered, this, [this] {
        if (!backupIsRunning_ && !starting_ && !restoreController_->isRunning() && window_->startButton()->isEnabled())
            startOrCancelSync();
    });
    connect(w->stopAction(), &QAction::triggered, this, [this] {
        if (starting_ || (backupIsRunning_ && !cancelling_) || restoreController_->isRunning()) startOrCancelSync();
    });
    connect(w->sourceListView(), &FVSourceListView::restoreRequested, this, &AppController::restoreSelectedSources);
    connect(restoreController_.get(), &FVRestoreController::restoreStarted, this, [this] { setRestoreHoldsWindow(true); });
    connect(restoreController_.get(), &FVRestoreController::restoreEnded, this, [this] {
        setRestoreHoldsWindow(false);
        launcherEntry_.clear();
    });
    connect(restoreController_.get(), &FVRestoreController::progressChanged, &launcherEntry_, &FVLauncherEntry::setProgress);
    connect(this, &AppController::runEnded, &launcherEntry_, &FVLauncherEntry::clear);
    connect(w->overdueBanner()->backUpNowButton(), &QPushButton::clicked, w->backUpNowAction(), &QAction::trigger);
    connect(w->showErrorsAction(), &QAction::triggered, this, &AppController::showLastRunErrors);
    connect(w->aboutAction(), &QAction::triggered, this, &AppController::showAbout);
    connect(w->removeSourceButton(), &QToolButton::clicked, this, &AppController::removeSelectedSources);
    connect(w->sourceListView(), &FVSourceListView::removeRequested, this, &AppController::removeSelectedSources);
    connect(w->sourceListView(), &QAbstractItemView::doubleClicked, this, &AppController::tableViewDoubleAction);
    connect(w->dropZone(), &FVDropZone::pathsDropped, this, [this](const QStringList& paths) { addSourcePaths(paths, 0); });
    connect(w->showLogAction(), &QAction::triggered, this, &AppController::showLog);
    connect(sourceModel_.get(), &FVSourceListModel::pathsDropped, this, &AppController::addSourcePaths);
    connect(sourceModel_.get(), &FVSourceListModel::summaryChanged, this, &AppController::updateSummaryLine);
    connect(sourceModel_.get(), &FVSourceListModel::rowsRearranged, this, [this](int first, int count) {
        window_->sourceListView()->selectRows(first, count);
        writeSettingsIfOpen();
    });
    // Edits of the list are saved at once, so that a scheduled run sees them; never during a run,
    // whose results are written when it finishes.
    connect(sourceModel_.get(), &QAbstractItemModel::modelReset, this, [this] {
        if (!backupIsRunning_) writeSettingsIfOpen();
    });
    connect(sourceModel_.get(), &QAbstractItemModel::dataChanged, this,
            [this](const QModelIndex& topLeft, const QModelIndex& bottomRight) {
                if (topLeft.column() <= FVSourceListModel::ModeColumn &&
                    bottomRight.column() >= FVSourceListModel::ModeColumn && !backupIsRunning_)
                    writeSettingsIfOpen();
            });
    connect(w->coverView(), &FVCoverView::coverStateChanged, this,
            [this] {
                sourceModel_->setAcceptsDrops(window_->coverView()->isFullyHidden());
                addPendingSourcePaths();
            });
    connect(&presence_, &FVDestinationPresence::wentAway, this, [this] {
        // A run notices it by itself and ends; the window follows once it has.
        if (!backupIsRunning_ && !starting_ && !restoreController_->isRunning()) destinationWentAway();
    });
    connect(&presence_, &FVDestinationPresence::cameBack, this, &AppController::destinationCameBack);
    connect(w, &FVMainWindow::becameActive, this, [this] {
        followDestination();
        // Scheduled runs may have come and gone while the window stood in the background.
        if (!backupIsRunning_ && window_->optionsButton()->isEnabled()) updateScheduleState();
        if (!coverViewShouldOpenOnBecomeMain_) return;
        coverViewShouldOpenOnBecomeMain_ = false;
        window_->coverView()->openViewDelayedBy(0.5);
    });

    QSettings settings;
    destinations_.load(settings);
    reloadTargetPopup();
    w->startButton()->setEnabled(false);
    setOptionWidgetsEnabled(false);
}

AppController::~AppController() {
    // A session still running would call back into a destroyed controller.
    if (backupSession_ && backupIsRunning_) {
        backupSession_->cancel();
        QEventLoop loop;
        connect(this, &AppController::runEnded, &loop, &QEventLoop::quit);
        if (backupIsRunning_) loop.exec();
    }
}

void AppController::initialiseApplication() {
    window_->show();
    window_->raise();
    window_->activateWindow();
    QSettings settings;
    // Never before the first backup, and not at all without a page to donate on.
    const QString donationAddress = FERROVANE_DONATION_URL;
    if (!donationAddress.isEmpty() && settings.value("backupCompleted").toBool() &&
        !settings.value("suppressDonationRequest").toBool()) {
        auto* box = new QMessageBox(window_.get());
        box->setObjectName("alert-donationText");
        box->setAttribute(Qt::WA_DeleteOnClose);
        box->setWindowModality(Qt::WindowModal);
        box->setIcon(QMessageBox::Information);
        box->setText(localized("donationText"));
        box->setInformativeText(localized("donationInformativeText"));
        QPushButton* donate = box->addButton(localized("donationDonate"), QMessageBox::AcceptRole);
        box->addButton(localized("donationLater"), QMessageBox::RejectRole);
        QPushButton* done = box->addButton(localized("donationDone"), QMessageBox::DestructiveRole);
        connect(box, &QMessageBox::finished, box, [box, donate, done, donationAddress] {
            if (box->clickedButton() == donate) QDesktopServices::openUrl(QUrl(donationAddress));
            if (box->clickedButton() == done) QSettings().setValue("suppressDonationRequest", true);
        });
        box->open();
    }
    if (!settings.value("disableUpdateCheck").toBool()) checkForUpdates();
    openRecentTargetPath();
}

void AppController::activateFromAnotherStart(const QStringList& paths) {
    if (window_->isMinimized()) window_->showNormal();
    window_->show();
    window_->raise();
    window_->activateWindow();
    // Taken as sources once a destination is open and no run is under way.
    pendingSourcePaths_ << paths;
    addPendingSourcePaths();
}

void AppController::addPendingSourcePaths() {
    if (pendingSourcePaths_.isEmpty() || !window_->coverView()->isFullyHidden() || backupIsRunning_) return;
    addSourcePaths(std::exchange(pendingSourcePaths_, {}), 0);
}

void AppController::checkForUpdates() {
    const QString address = FERROVANE_UPDATE_URL;
    if (address.isEmpty()) return;
    auto* network = new QNetworkAccessManager(this);
    QNetworkRequest request{QUrl(address)};
    request.setAttribute(QNetworkRequest::CacheLoadControlAttribute, QNetworkRequest::AlwaysNetwork);
    QNetworkReply* reply = network->get(request);
    connect(reply, &QNetworkReply::finished, this, [this, reply, network] {
        QVersionNumber latest = QVersionNumber::fromString(QString::fromUtf8(reply->readAll()).trimmed());
        if (reply->error() == QNetworkReply::NoError && latest > QVersionNumber::fromString(QApplication::applicationVersion()))
            window_->statusBar()->showMessage(localizedFormat("updateavailable", latest.toString().toStdString()));
        reply->deleteLater();
        network->deleteLater();
    });
}

// ---- Destinations

void AppController::reloadTargetPopup() {
    FVDestinationPopup* popup = window_->targetPopup();
    popup->clear();
    QHash<QString, int> nameCounts;
    for (const FVDestination& entry : destinations_.entries()) ++nameCounts[QFileInfo(entry.targetPath).fileName()];
    for (const FVDestination& entry : destinations_.entries()) {
        QString name = QFileInfo(entry.targetPath).fileName();
        // Two disks both called "Backup" are told apart by where they are.
        if (nameCounts.value(name) > 1) name = localizedFormat("destinationwithpath", stdPath(name), stdPath(entry.targetPath));
        popup->addDestination(QFileIconProvider().icon(QFileInfo(entry.targetPath)), name.isEmpty() ? entry.targetPath : name,
                              entry.targetPath);
    }
    popup->setCurrentIndex(destinations_.isEmpty() ? -1 : destinations_.selectedIndex());
    window_->removeTargetButton()->setEnabled(!destinations_.isEmpty());
}

void AppController::saveDestinations() {
    QSettings settings;
    destinations_.save(settings);
}

void AppController::setDestinationControlsEnabled(bool enabled) {
    window_->targetPopup()->setEnabled(enabled);
    window_->addTargetButton()->setEnabled(enabled);
    window_->removeTargetButton()->setEnabled(enabled && !destinations_.isEmpty());
}

void AppController::setOptionWidgetsEnabled(bool enabled) {
    window_->sourceListView()->setRestoreEnabled(enabled);
    window_->optionsButton()->setEnabled(enabled);
    window_->searchButton()->setEnabled(enabled);
    window_->browseAction()->setEnabled(enabled);
    window_->verifyAction()->setEnabled(enabled);
    window_->addSourceButton()->setEnabled(enabled);
    window_->removeSourceButton()->setEnabled(enabled && backupSetController_.count() > 0);
}

void AppController::showNewBackupPanel() {
    QFileDialog* panel = FVFileDialog::make(window_.get(), localized("adddestinationtitle"), "addDestinationDialog",
                                            QFileDialog::Directory, localized("selecttargetpanelbutton"));
    connect(panel, &QFileDialog::fileSelected, this, [this](const QString& path) {
        window_->progressView()->setProgress(0);
        window_->coverView()->setProgress(-1);
        window_->startButton()->setEnabled(false);
        addAndOpenNewDestination(path);
    });
    panel->open();
}

void AppController::addAndOpenNewDestination(const QString& path) {
    writeSettingsIfOpen();
    QString clean = qPath(FVText::standardizedPath(stdPath(QFileInfo(path).absoluteFilePath())));
    destinations_.setSelectedIndex(destinations_.add(clean));
    saveDestinations();
    reloadTargetPopup();
    window_->startButton()->setEnabled(false);
    window_->coverView()->setMessage(localized("selectingbackup"));
    window_->coverView()->scrollIn([this] { performSelectTargetMenuItem(); });
}

void AppController::performTargetMenuSelection(int index) {
    if (index < 0 || index >= destinations_.count()) return;
    writeSettingsIfOpen();
    destinations_.setSelectedIndex(index);
    saveDestinations();
    window_->progressView()->setProgress(0);
    window_->coverView()->setProgress(-1);
    window_->startButton()->setEnabled(false);
    FVCoverView* cover = window_->coverView();
    cover->clearMessages();
    cover->setMessage(localized("selectingbackup"));
    if (isReadableAndWritable(stdPath(destinations_.at(index).targetPath))) {
        cover->scrollIn([this] { performSelectTargetMenuItem(); });
        return;
    }
    // The question is about the new destination: nothing of the one before stays in view.
    currentTargetPath_.clear();
    presence_.stop();
    backupSetController_.removeAllItems();
    setRunOutcome({});
    window_->destinationIcon()->setPixmap(noDestinationIcon(window_.get()));
    window_->progressInfo()->clear();
    setOptionWidgetsEnabled(false);
    cover->scrollIn([this] {
        FVAlert::ask(window_.get(), "removetarget", "removetargetlong", "keepbutton", "removebutton", [this](bool remove) {
            if (remove) {
                removeSelectedDestinationAndUpdateForSelectedItem();
                return;
            }
            resetInterface();
            setOptionWidgetsEnabled(false);
            currentTargetPath_.clear();
            openRecentTargetPath();
        });
    });
}

void AppController::performSelectTargetMenuItem() {
    backupSetController_.removeAllItems();
    setOptionWidgetsEnabled(false);
    openRecentTargetPath();
}

void AppController::showDestinationUnusable(const char* messageKey) {
    FVCoverView* cover = window_->coverView();
    cover->clearMessages();
    cover->setMessage(localized(messageKey));
    cover->setSmallMessage(qPath(currentTargetPath_));
    cover->scrollIn();
    // Nothing of a destination that cannot be used stays behind the cover, nor is measured.
    backupSetController_.removeAllItems();
    setRunOutcome({});
    window_->destinationIcon()->setPixmap(noDestinationIcon(window_.get()));
    window_->progressInfo()->clear();
    window_->startButton()->setEnabled(false);
    setOptionWidgetsEnabled(false);
    clearScheduleState();
}

void AppController::destinationWentAway() {
    if (currentTargetPath_.empty()) return;
    presence_.awaitReturn(currentTargetPath_);
    for (QDialog* sheet : window_->findChildren<QDialog*>())
        if (qobject_cast<FVOptionsPanel*>(sheet) || qobject_cast<FVDestinationSearchSheet*>(sheet) ||
            qobject_cast<FVBackupBrowser*>(sheet) || qobject_cast<FVVerifySheet*>(sheet))
            sheet->reject();
    showDestinationUnusable("destinationaway");
    window_->coverView()->setMessage(localizedFormat("destinationaway", stdPath(destinationName())));
    window_->coverView()->setHeld(true);
    // How its last run ended is known without the disk.
    setRunOutcome(FVRunOutcome::load(qPath(currentTargetPath_)));
    const int index = destinations_.indexOf(qPath(currentTargetPath_));
    if (index >= 0) showOverdueWhileAway(destinations_.at(index).uuid.toStdString());
}

void AppController::followDestination() {
    if (currentTargetPath_.empty() || backupIsRunning_ || starting_ || restoreController_->isRunning()) return;
    if (presence_.isAway() || !presence_.isPresent()) destinationWentAway();
}

void AppController::destinationCameBack() {
    if (backupIsRunning_ || starting_ || restoreController_->isRunning()) return;
    // Read again from its configuration: nothing of the list before it went away is kept.
    window_->coverView()->clearMessages();
    window_->coverView()->setMessage(localized("selectingbackup"));
    performSelectTargetMenuItem();
}

bool AppController::refusedWhileAway() {
    // A destination closed for another reason (permissions, root's) is not waited for.
    if (!presence_.isWatching() || presence_.isPresent()) return false;
    QMessageBox* box = FVAlert::show(window_.get(), "destinationaway", "destinationawaylong");
    box->setText(localizedFormat("destinationaway", stdPath(destinationName())));
    return true;
}

void AppController::openRecentTargetPath() {
    FVCoverView* cover = window_->coverView();
    if (destinations_.isEmpty()) {
        currentTargetPath_.clear();
        presence_.stop();
        setRunOutcome({});
        window_->destinationIcon()->clear();
        window_->progressInfo()->clear();
        cover->clearMessages();
        cover->setMessage(localized("viewnobackupselected"));
        cover->scrollIn();
        window_->startButton()->setEnabled(false);
        setOptionWidgetsEnabled(false);
        clearScheduleState();
        return;
    }
    cover->clearMessages();
    cover->setMessage(localized("selectingbackup"));
    const int index = destinations_.selectedIndex();
    currentTargetPath_ = stdPath(destinations_.at(index).targetPath);
    presence_.stop();
    if (access(currentTargetPath_.c_str(), F_OK) != 0) {
        destinationWentAway();
        return;
    }
    if (!isReadableAndWritable(currentTargetPath_)) {
        showDestinationUnusable("destinationnopermissions");
        return;
    }
    presence_.watch(currentTargetPath_);
    window_->coverView()->setHeld(false);
    if (access(FVConfigurationFile::currentPath(currentTargetPath_).c_str(), F_OK) != 0 &&
        access(FVConfigurationFile::legacyPath(currentTargetPath_).c_str(), F_OK) == 0)
        FVAlert::show(window_.get(), "Ferrovane3UpgradeAlertMessage", "Ferrovane3UpgradeAlertText", QMessageBox::Information);
    readSettings();
    if (optionsPanelController_.boolForOptionsKey(FVOptionKey::isSuperuserBackup) && !environment_.runningAsRoot) {
        presence_.stop();
        showDestinationUnusable("destinationrequiressuperuser");
        return;
    }
    updateSizeDisplay();
    setRunOutcome(FVRunOutcome::load(qPath(currentTargetPath_)));
    QString uuid = QString::fromStdString(optionsPanelController_.uuid());
    if (!uuid.isEmpty() && destinations_.at(index).uuid != uuid) {
        destinations_.setUUID(index, uuid);
        saveDestinations();
    }
    window_->destinationIcon()->setPixmap(iconFor(qPath(currentTargetPath_)));
    window_->startButton()->setEnabled(true);
    setOptionWidgetsEnabled(true);
    updateScheduleState();
    cover->openViewDelayedBy(0.5);

    for (const FVSourceItemPtr& item : backupSetController_.arrangedObjects()) {
        if (item->enabled() != int64_t(FVSourceMode::Backup)) continue;
        struct stat st;
        if (lstat(item->sourcePath().c_str(), &st) != 0) {
            FVAlert::show(window_.get(), "sourcesunavailable", "sourcesunavailablelong", QMessageBox::Critical);
            break;
        }
    }
}

void AppController::resetInterface() {
    window_->progressView()->setProgress(0);
    FVCoverView* cover = window_->coverView();
    cover->setProgress(-1);
    cover->clearMessages();
    cover->setMessage(localized(destinations_.isEmpty() ? "viewnobackupselected" : "destinationunavailable"));
    cover->scrollIn();
    window_->startButton()->setText(localized("syncbutton"));
    window_->startButton()->setEnabled(false);
    backupSetController_.removeAllItems();
    clearScheduleState();
}

void AppController::removeTargetWidgetClicked() {
    if (destinations_.isEmpty() || backupIsRunning_) return;
    writeSettingsIfOpen();
    QMessageBox* box = FVAlert::ask(window_.get(), "removetargetclicked", "removetargetclickedlong", "cancelbuttontitle",
                                    "removebutton", [this](bool remove) {
                                        if (remove) removeSelectedDestinationAndUpdateForSelectedItem();
                                    });
    box->setText(localizedFormat("removetargetclicked", stdPath(window_->targetPopup()->currentText())));
}

void AppController::removeSelectedDestinationAndUpdateForSelectedItem() {
    int index = window_->targetPopup()->currentIndex();
    destinations_.removeAt(index);
    if (index >= destinations_.count()) index = 0;
    destinations_.setSelectedIndex(index);
    saveDestinations();
    reloadTargetPopup();
    std::vector<std::string> ids;
    for (const QString& id : destinations_.uuids()) ids.push_back(id.toStdString());
    launchAgentManager_.cleanJobsWithoutIDs(ids);
    window_->startButton()->setEnabled(false);
    window_->coverView()->clearMessages();
    window_->coverView()->setMessage(localized("selectingbackup"));
    window_->coverView()->scrollIn([this] { performSelectTargetMenuItem(); });
}

// ---- Configuration

void AppController::readSettings() {
    backupSetController_.removeAllItems();
    const bool isNew = FVConfigurationFile::isNewDestination(currentTargetPath_);
    FVConfigurationFile::convertLegacyFile(currentTargetPath_);
    FVConfigurationReadResult read = FVConfigurationFile::read(FVConfigurationFile::currentPath(currentTargetPath_));
    if (read.status == FVConfigurationReadStatus::Ok) {
        backupSetController_.addBackupItems(read.configuration.sources);
        optionsPanelController_.setAllOptions(read.configuration.settings);
    } else if (isNew) {
        // A new destination: it starts with versions kept and the free-space rule on.
        optionsPanelController_.setAllOptions(FVConfigurationFile::newDestinationOptions());
    } else {
        // Unreadable or malformed: treated as missing, and replaced by the write below.
        optionsPanelController_.setAllOptions(nullptr);
    }
    writeSettings();
}

void AppController::writeSettings() {
    // Never into the empty folder an unmounted disk leaves behind.
    if (currentTargetPath_.empty() || !presence_.isPresent()) return;
    if (environment_.runningAsRoot) optionsPanelController_.allOptions()->set(FVOptionKey::isSuperuserBackup, true);
    FVConfigurationFile::writeSettingsForSourceConfiguration(backupSetController_.arrangedObjects(),
                                                             *optionsPanelController_.allOptions(),
                                                             FVConfigurationFile::formattedPath(currentTargetPath_));
    measureAfterWrite();
}

void AppController::measureAfterWrite() {
    // The write leaves no measured size in the items; a run measures again once it has ended.
    if (backupIsRunning_ || backupSetController_.count() == 0) return;
    backupSetController_.measureMissingSizes();
}

void AppController::writeSettingsIfOpen() {
    if (window_->coverView()->isFullyHidden()) writeSettings();
}

void AppController::updateSizeDisplay() {
    QString value = "--";
    std::string type = FVMountTable::fileSystemTypeAtPath(currentTargetPath_);
    if (type != "webdav" && type != "davfs" && type != "fuse.davfs") {
        double free = double(QStorageInfo(qPath(currentTargetPath_)).bytesAvailable());
        double megabytes = free * 1e-6;
        if (megabytes > 1000.0) value = localizedFormat("gbfree", free * 1e-9);
        else if (megabytes > 0.0) value = localizedFormat("mbfree", megabytes);
    }
    window_->progressInfo()->setText(localizedFormat("availablespace", value.toStdString()));
}

void AppController::updateSummaryLine() {
    window_->summaryLine()->setText(backupSetController_.count() == 0
                                        ? QString()
                                        : QString::fromStdString(backupSetController_.totalSizeString()));
}

// ---- Sources

void AppController::addSourceFolders() {
    QFileDialog* panel = FVFileDialog::make(window_.get(), localized("addfolderstitle"), "addFoldersDialog",
                                            QFileDialog::Directory, localized("addsourcebutton"));
    // Several folders at once: the dialog's own views allow it once asked to.
    for (QAbstractItemView* view : panel->findChildren<QAbstractItemView*>())
        if (view->objectName() == "listView" || view->objectName() == "treeView")
            view->setSelectionMode(QAbstractItemView::ExtendedSelection);
    connect(panel, &QFileDialog::filesSelected, this, [this](const QStringList& paths) { addSourcePaths(paths, 0); });
    panel->open();
}

void AppController::addSourceFiles() {
    QFileDialog* panel = FVFileDialog::make(window_.get(), localized("addfilestitle"), "addFilesDialog",
                                            QFileDialog::ExistingFiles, localized("addsourcebutton"));
    connect(panel, &QFileDialog::filesSelected, this, [this](const QStringList& paths) { addSourcePaths(paths, 0); });
    panel->open();
}

void AppController::addSourcePaths(const QStringList& paths, int index) {
    if (refusedWhileAway()) return;
    std::vector<std::string> items;
    for (const QString& path : paths) items.push_back(FVText::standardizedPath(stdPath(QFileInfo(path).absoluteFilePath())));
    std::vector<FVSourceItemPtr> wouldBe = backupSetController_.arrangedObjects();
    for (const std::string& item : items) wouldBe.push_back(FVSourceItem::make(item, FVSourceMode::Backup));
    if (!startChecks_.acceptsLayout(currentTargetPath_, FVOptionTable::read(*optionsPanelController_.allOptions()).options, wouldBe))
        return;
    if (backupSetController_.addBackupPaths(items, size_t(std::max(index, 0))) < items.size()) QApplication::beep();
    // Added all the same: the run leaves the destination out of that source's walk.
    for (const std::string& item : items) {
        if (currentTargetPath_.empty() || !FVText::isPathWithin(currentTargetPath_, item)) continue;
        QMessageBox* box = FVAlert::show(window_.get(), "sourcecontainsdestination", "sourcecontainsdestinationlong",
                                         QMessageBox::Warning);
        box->setInformativeText(localizedFormat("sourcecontainsdestinationlong", item));
        break;
    }
}

void AppController::removeSelectedSources() {
    if (refusedWhileAway()) return;
    QList<int> rows = window_->sourceListView()->selectedRows();
    std::vector<size_t> indexes(rows.begin(), rows.end());
    if (!indexes.empty()) backupSetController_.removeItemsAtIndexes(indexes);
}

void AppController::tableViewDoubleAction() {
    QList<int> rows = window_->sourceListView()->selectedRows();
    if (rows.isEmpty()) return;
    std::vector<FVSourceItemPtr> items = backupSetController_.arrangedObjects();
    if (size_t(rows.first()) >= items.size()) return;
    QPointer<FVMainWindow> window = window_.get();
    FVFileReveal::revealPath(qPath(items[size_t(rows.first())]->sourcePath()), [window] {
        if (window) FVAlert::show(window, "revealfailed", "revealfailedlong");
    });
}

void AppController::showLog() {
    if (currentTargetPath_.empty()) return openLogFile();
    (new FVLogViewer(window_.get(), qPath(currentTargetPath_), qPath(FVLog::logFilePath())))->open();
}

void AppController::openLogFile() {
    QString path = qPath(FVLog::logFilePath());
    if (QFileInfo::exists(path) && QDesktopServices::openUrl(QUrl::fromLocalFile(path))) return;
    QMessageBox* box = FVAlert::show(window_.get(), "logopenfailed", "logopenfailedlong");
    box->setInformativeText(localizedFormat("logopenfailedlong", stdPath(path)));
}

void AppController::showAbout() {
    auto* box = new QMessageBox(window_.get());
    box->setObjectName("aboutBox");
    box->setAttribute(Qt::WA_DeleteOnClose);
    box->setWindowTitle(localized("abouttitle"));
    box->setIconPixmap(QApplication::windowIcon().pixmap(64, 64));
    box->setText(localizedFormat("abouttext", QApplication::applicationVersion().toStdString()));
    box->setInformativeText(localizedFormat("aboutinformative", FVLog::logFilePath()));
    box->setTextInteractionFlags(Qt::TextSelectableByMouse);
    QPushButton* openLog = box->addButton(localized("aboutopenlog"), QMessageBox::ActionRole);
    box->setEscapeButton(box->addButton(localized("closebutton"), QMessageBox::AcceptRole));
    connect(box, &QMessageBox::finished, this, [this, box, openLog] {
        if (box->clickedButton() == openLog) openLogFile();
    });
    box->open();
}

// ---- Sheets

FVOptionsPanel* AppController::showOptionsPanel() {
    if (refusedWhileAway()) return nullptr;
    auto* panel = new FVOptionsPanel(window_.get(), optionsPanelController_, environment_.runningAsRoot);
    const bool folderPerSource = FVOptionTable::read(*optionsPanelController_.allOptions()).options.syncMode != 0;
    if (!currentTargetPath_.empty() &&
        !FVPlacementChange(currentTargetPath_, folderPerSource, !folderPerSource, backupSetController_.arrangedObjects())
             .strandedMirrors()
             .empty())
        panel->lockPlacement(localizedFormat("optionssyncmodelocked", currentTargetPath_));
    connect(panel, &QDialog::finished, this, &AppController::updateAutomationsAfterOptions);
    panel->open();
    return panel;
}

void AppController::updateAutomationsAfterOptions() {
    // Closed because the destination went away: what was changed waits for nothing, it is re-read.
    if (presence_.isAway()) return;
    std::string error;
    bool scheduled = optionsPanelController_.updateAutomations(currentTargetPath_, &error);
    const std::string uuid = optionsPanelController_.uuid();
    int index = destinations_.indexOf(qPath(currentTargetPath_));
    if (index >= 0) {
        destinations_.setUUID(index, QString::fromStdString(uuid));
        saveDestinations();
    }
    writeSettingsIfOpen();
    updateScheduleState();
    if (scheduled) FVScheduleFailureAlert::forget(uuid);
    else FVScheduleFailureAlert::showOnce(window_.get(), launchAgentManager_, uuid, error);
}

void AppController::updateScheduleState() {
    if (currentTargetPath_.empty()) return clearScheduleState();
    const FVOptions options = FVOptionTable::read(*optionsPanelController_.allOptions()).options;
    const std::string uuid = optionsPanelController_.uuid();
    const std::optional<FVJobStatus> status =
        uuid.empty() ? std::nullopt : FVJobStatusStore(environment_.jobStatusFolder).read(uuid);
    const FVDestinationSchedule shown =
        FVDestinationSchedule::of(currentTargetPath_, options, status, std::time(nullptr));
    window_->scheduleLine()->setText(QString::fromStdString(shown.line));
    window_->overdueBanner()->setText(shown.overdue ? QString::fromStdString(shown.overdue->text()) : QString());
}

void AppController::showOverdueWhileAway(const std::string& uuid) {
    if (uuid.empty()) return;
    const std::optional<FVOverdueNotice> notice = FVDestinationSchedule::overdueWhileAway(
        currentTargetPath_, FVJobStatusStore(environment_.jobStatusFolder).read(uuid), std::time(nullptr));
    if (notice) window_->overdueBanner()->setText(QString::fromStdString(notice->text()), false);
}

void AppController::clearScheduleState() {
    window_->scheduleLine()->clear();
    window_->overdueBanner()->setText({});
}

void AppController::showSearchBackupPanel() {
    if (refusedWhileAway()) return;
    if (currentTargetPath_.empty()) return;
    auto* sheet = new FVDestinationSearchSheet(window_.get(), mainQueue_, qPath(currentTargetPath_));
    connect(sheet, &FVDestinationSearchSheet::restoreRequested, this, [this, sheet](const QString& versionPath) {
        restoreController_->restoreVersion(qPath(currentTargetPath_), versionPath, sheet);
    });
    sheet->open();
}

void AppController::showBackupBrowser() {
    if (currentTargetPath_.empty() || !window_->browseAction()->isEnabled() || refusedWhileAway()) return;
    auto* browser = new FVBackupBrowser(window_.get(), currentTargetPath_);
    connect(browser, &FVBackupBrowser::restoreRequested, this, [this, browser] {
        if (const FVRunRecord* run = browser->shownRun())
            restoreController_->restorePointInTime(qPath(currentTargetPath_), *run, browser->selectedPaths(), browser);
    });
    browser->open();
}

void AppController::showVerifySheet() {
    if (refusedWhileAway()) return;
    if (currentTargetPath_.empty()) return;
    auto* sheet = new FVVerifySheet(window_.get(), qPath(currentTargetPath_));
    sheet->open();
    sheet->start();
}

// ---- Restores

void AppController::restoreSelectedSources(const QList<int>& rows) {
    std::vector<FVSourceItemPtr> items = backupSetController_.arrangedObjects();
    QStringList paths;
    for (int row : rows)
        if (row >= 0 && size_t(row) < items.size()) paths << qPath(items[size_t(row)]->sourcePath());
    if (paths.isEmpty() || currentTargetPath_.empty() || refusedWhileAway()) return;
    // The restore reads the sources from the destination's configuration.
    writeSettingsIfOpen();
    restoreController_->restoreSourceItems(qPath(currentTargetPath_), paths);
}

void AppController::setRestoreHoldsWindow(bool holds) {
    // The restore's progress is on the cover, under which the search sheet would stand.
    if (holds)
        for (QDialog* sheet : window_->findChildren<QDialog*>())
            if (qobject_cast<FVDestinationSearchSheet*>(sheet) || qobject_cast<FVBackupBrowser*>(sheet)) sheet->reject();
    QPushButton* button = window_->startButton();
    button->setText(localized(holds ? "cancelbutton" : "syncbutton"));
    button->setEnabled(true);
    setDestinationControlsEnabled(!holds);
    setOptionWidgetsEnabled(!holds);
    if (!holds) followDestination();
}

}  // namespace ferrovane
