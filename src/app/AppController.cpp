#include "app/AppController.h"

#include "app/FVAlert.h"
#include "app/FVCoverView.h"
#include "app/FVDestinationPopup.h"
#include "app/FVBackupBrowser.h"
#include "app/FVDestinationSchedule.h"
#include "app/FVDestinationSearchSheet.h"
#include "app/FVVerifySheet.h"
#include "app/FVDropZone.h"
#include "app/FVLogViewer.h"
#include "app/FVMainWindow.h"
#include "app/FVOptionsPanel.h"
#include "app/FVOverdueBanner.h"
#include "app/FVQtStrings.h"
#include "app/FVRestoreController.h"
#include "app/FVScheduleFailureAlert.h"
#include "app/FVSourceListModel.h"
#include "app/FVSourceListView.h"
#include "engine/config/FVConfigurationFile.h"
#include "engine/config/FVPlacementChange.h"
#include "engine/run/FVLog.h"

#include <QApplication>
#include <QComboBox>
#include <QDesktopServices>
#include <QFileInfo>
#include <QLabel>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QPushButton>
#include <QSettings>
#include <QStatusBar>
#include <QToolButton>
#include <QUrl>
#include <QVersionNumber>

#include <unistd.h>

namespace ferrovane {

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
      restoreController_(std::make_unique<FVRestoreController>(window_.get(), [this] { return runs_->isRunning() || runs_->isStarting(); })),
      destination_(makeDestinationController()),
      sourceEditor_(makeSourceEditor()),
      runs_(makeRunController()) {
    window_->setSourceModel(sourceModel_.get());
    window_->setCloseHandler([this] { return windowShouldClose(); });

    connectWindowControls();
    connectSourceList();
    connectRunsAndRestores();
    connectWindowActivation();

    destination_->load();
    window_->startButton()->setEnabled(false);
    setOptionWidgetsEnabled(false);
}

AppController::~AppController() = default;

// The destination controls, the buttons and the menus.
void AppController::connectWindowControls() {
    FVMainWindow* w = window_.get();
    connect(w->targetPopup(), &QComboBox::activated, destination_.get(), &FVDestinationController::select);
    connect(w->addTargetButton(), &QToolButton::clicked, destination_.get(), &FVDestinationController::showNewDestinationPanel);
    connect(w->removeTargetButton(), &QToolButton::clicked, destination_.get(), &FVDestinationController::askToRemoveSelected);
    connect(w->startButton(), &QPushButton::clicked, this, &AppController::startOrCancelSync);
    connect(w->optionsButton(), &QPushButton::clicked, this, &AppController::showOptionsPanel);
    connect(w->searchButton(), &QPushButton::clicked, this, &AppController::showSearchBackupPanel);
    connect(w->browseAction(), &QAction::triggered, this, &AppController::showBackupBrowser);
    connect(w->verifyAction(), &QAction::triggered, this, &AppController::showVerifySheet);
    connect(w->addFoldersAction(), &QAction::triggered, sourceEditor_.get(), &FVSourceEditor::addFolders);
    connect(w->addFilesAction(), &QAction::triggered, sourceEditor_.get(), &FVSourceEditor::addFiles);
    connect(w->excludeAction(), &QAction::triggered, this, [this] {
        if (FVOptionsPanel* panel = showOptionsPanel()) panel->focusExclusions();
    });
    connect(w->backUpNowAction(), &QAction::triggered, this, [this] {
        if (!isBusy() && window_->startButton()->isEnabled()) startOrCancelSync();
    });
    connect(w->stopAction(), &QAction::triggered, this, [this] {
        if (runs_->isStarting() || (runs_->isRunning() && !runs_->isCancelling()) || restoreController_->isRunning())
            startOrCancelSync();
    });
    connect(w->overdueBanner()->backUpNowButton(), &QPushButton::clicked, w->backUpNowAction(), &QAction::trigger);
    connect(w->showErrorsAction(), &QAction::triggered, this, &AppController::showLastRunErrors);
    connect(w->aboutAction(), &QAction::triggered, this, &AppController::showAbout);
    connect(w->showLogAction(), &QAction::triggered, this, &AppController::showLog);
}

// The list of sources: its edits are saved, drops and restores are taken.
void AppController::connectSourceList() {
    FVMainWindow* w = window_.get();
    connect(w->sourceListView(), &FVSourceListView::restoreRequested, this, &AppController::restoreSelectedSources);
    connect(w->removeSourceButton(), &QToolButton::clicked, sourceEditor_.get(), &FVSourceEditor::removeSelected);
    connect(w->sourceListView(), &FVSourceListView::removeRequested, sourceEditor_.get(), &FVSourceEditor::removeSelected);
    connect(w->sourceListView(), &QAbstractItemView::doubleClicked, sourceEditor_.get(), &FVSourceEditor::revealSelected);
    connect(w->dropZone(), &FVDropZone::pathsDropped, this, [this](const QStringList& paths) { addSourcePaths(paths, 0); });
    connect(sourceModel_.get(), &FVSourceListModel::pathsDropped, this, &AppController::addSourcePaths);
    connect(sourceModel_.get(), &FVSourceListModel::summaryChanged, this, &AppController::updateSummaryLine);
    connect(sourceModel_.get(), &FVSourceListModel::rowsRearranged, this, [this](int first, int count) {
        window_->sourceListView()->selectRows(first, count);
        writeSettingsIfOpen();
    });
    // Edits of the list are saved at once, so that a scheduled run sees them; never during a run,
    // whose results are written when it finishes.
    connect(sourceModel_.get(), &QAbstractItemModel::modelReset, this, [this] {
        if (!runs_->isRunning()) writeSettingsIfOpen();
    });
    connect(sourceModel_.get(), &QAbstractItemModel::dataChanged, this,
            [this](const QModelIndex& topLeft, const QModelIndex& bottomRight) {
                if (topLeft.column() <= FVSourceListModel::ModeColumn &&
                    bottomRight.column() >= FVSourceListModel::ModeColumn && !runs_->isRunning())
                    writeSettingsIfOpen();
            });
    connect(w->coverView(), &FVCoverView::coverStateChanged, this,
            [this] {
                sourceModel_->setAcceptsDrops(window_->coverView()->isFullyHidden());
                sourceEditor_->addPendingPaths();
            });
}

// Runs and restores share the window and the launcher entry.
void AppController::connectRunsAndRestores() {
    connect(restoreController_.get(), &FVRestoreController::restoreStarted, this, [this] { setRestoreHoldsWindow(true); });
    connect(restoreController_.get(), &FVRestoreController::restoreEnded, this, [this] {
        setRestoreHoldsWindow(false);
        launcherEntry_.clear();
    });
    connect(restoreController_.get(), &FVRestoreController::progressChanged, &launcherEntry_, &FVLauncherEntry::setProgress);
    connect(runs_.get(), &FVRunController::runStarted, this, &AppController::runStarted);
    connect(runs_.get(), &FVRunController::runEnded, &launcherEntry_, &FVLauncherEntry::clear);
    connect(runs_.get(), &FVRunController::runEnded, this, &AppController::runEnded);
    connect(runs_.get(), &FVRunController::emptiedSourceConfirmationRequested, sourceEditor_.get(),
            &FVSourceEditor::confirmEmptiedSource);
}

// The window coming to the front: what changed while it stood behind is looked at again.
void AppController::connectWindowActivation() {
    connect(window_.get(), &FVMainWindow::becameActive, this, [this] {
        destination_->follow();
        // Scheduled runs may have come and gone while the window stood in the background.
        if (!runs_->isRunning() && window_->optionsButton()->isEnabled()) updateScheduleState();
        if (runs_->takeCoverOpenOnActivation()) window_->coverView()->openViewDelayedBy(0.5);
    });
}

std::unique_ptr<FVRunController> AppController::makeRunController() {
    FVRunController::Parts parts{window_.get(), *sourceModel_, backupSetController_, optionsPanelController_, destination_->presence(),
                                 startChecks_, launcherEntry_, environment_.notifier, environment_.jobStatusFolder};
    FVRunController::Host host;
    host.destination = [this]() -> const std::string& { return destination_->path(); };
    host.setControlsEnabled = [this](bool enabled) {
        destination_->setControlsEnabled(enabled);
        setOptionWidgetsEnabled(enabled);
    };
    host.destinationWentAway = [this] { destination_->wentAway(); };
    host.destinationUnusable = [this] { destination_->showUnavailable(); };
    host.writeSettings = [this] { writeSettings(); };
    host.updateScheduleState = [this] { updateScheduleState(); };
    host.updateSizeDisplay = [this] { destination_->updateSizeDisplay(); };
    host.followDestination = [this] { destination_->follow(); };
    return std::make_unique<FVRunController>(std::move(parts), std::move(host));
}

std::unique_ptr<FVSourceEditor> AppController::makeSourceEditor() {
    FVSourceEditor::Host host;
    host.destination = [this]() -> const std::string& { return destination_->path(); };
    host.refusedWhileAway = [this] { return destination_->refusedWhileAway(); };
    host.runIsGoing = [this] { return runs_->isRunning(); };
    host.writeSettings = [this] { writeSettings(); };
    return std::make_unique<FVSourceEditor>(window_.get(), backupSetController_, optionsPanelController_, startChecks_,
                                            std::move(host));
}

std::unique_ptr<FVDestinationController> AppController::makeDestinationController() {
    FVDestinationController::Host host;
    host.isBusy = [this] { return isBusy(); };
    host.runIsGoing = [this] { return runs_->isRunning(); };
    host.setOptionWidgetsEnabled = [this](bool enabled) { setOptionWidgetsEnabled(enabled); };
    host.setRunOutcome = [this](FVRunOutcome outcome) { setRunOutcome(std::move(outcome)); };
    host.runOutcome = [this]() -> const FVRunOutcome& { return runOutcome(); };
    host.readSettings = [this] { readSettings(); };
    host.writeSettingsIfOpen = [this] { writeSettingsIfOpen(); };
    host.updateScheduleState = [this] { updateScheduleState(); };
    host.clearScheduleState = [this] { clearScheduleState(); };
    host.showOverdueWhileAway = [this](const std::string& uuid) { showOverdueWhileAway(uuid); };
    return std::make_unique<FVDestinationController>(
        FVDestinationController::Parts{window_.get(), backupSetController_, optionsPanelController_, launchAgentManager_,
                                       environment_.runningAsRoot},
        std::move(host));
}

bool AppController::isBusy() const { return runs_->isRunning() || runs_->isStarting() || restoreController_->isRunning(); }

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
    destination_->openSelected();
}

void AppController::activateFromAnotherStart(const QStringList& paths) {
    if (window_->isMinimized()) window_->showNormal();
    window_->show();
    window_->raise();
    window_->activateWindow();
    // Taken as sources once a destination is open and no run is under way.
    sourceEditor_->addWhenIdle(paths);
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

// ---- Window controls

void AppController::setOptionWidgetsEnabled(bool enabled) {
    window_->sourceListView()->setRestoreEnabled(enabled);
    window_->optionsButton()->setEnabled(enabled);
    window_->searchButton()->setEnabled(enabled);
    window_->browseAction()->setEnabled(enabled);
    window_->verifyAction()->setEnabled(enabled);
    window_->addSourceButton()->setEnabled(enabled);
    window_->removeSourceButton()->setEnabled(enabled && backupSetController_.count() > 0);
}

// ---- Configuration

void AppController::readSettings() {
    backupSetController_.removeAllItems();
    const bool isNew = FVConfigurationFile::isNewDestination(destination_->path());
    FVConfigurationFile::convertLegacyFile(destination_->path());
    FVConfigurationReadResult read = FVConfigurationFile::read(FVConfigurationFile::currentPath(destination_->path()));
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
    if (destination_->path().empty() || !destination_->presence().isPresent()) return;
    if (environment_.runningAsRoot) FVOptionTable::store(*optionsPanelController_.allOptions(), &FVOptions::isSuperuserBackup, true);
    FVConfigurationFile::writeSettingsForSourceConfiguration(backupSetController_.arrangedObjects(),
                                                             *optionsPanelController_.allOptions(),
                                                             FVConfigurationFile::formattedPath(destination_->path()));
    measureAfterWrite();
}

void AppController::measureAfterWrite() {
    // The write leaves no measured size in the items; a run measures again once it has ended.
    if (runs_->isRunning() || backupSetController_.count() == 0) return;
    backupSetController_.measureMissingSizes();
}

void AppController::writeSettingsIfOpen() {
    if (window_->coverView()->isFullyHidden()) writeSettings();
}

void AppController::updateSummaryLine() {
    window_->summaryLine()->setText(backupSetController_.count() == 0
                                        ? QString()
                                        : QString::fromStdString(backupSetController_.totalSizeString()));
}

// ---- Sources

void AppController::addSourcePaths(const QStringList& paths, int index) { sourceEditor_->addPaths(paths, index); }

void AppController::showLog() {
    if (destination_->path().empty()) return openLogFile();
    (new FVLogViewer(window_.get(), qPath(destination_->path()), qPath(FVLog::logFilePath())))->open();
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
    if (destination_->refusedWhileAway()) return nullptr;
    auto* panel = new FVOptionsPanel(window_.get(), optionsPanelController_, environment_.runningAsRoot);
    const bool folderPerSource = optionsPanelController_.options().syncMode != 0;
    if (!destination_->path().empty() &&
        !FVPlacementChange(destination_->path(), folderPerSource, !folderPerSource, backupSetController_.arrangedObjects())
             .strandedMirrors()
             .empty())
        panel->lockPlacement(localizedFormat("optionssyncmodelocked", destination_->path()));
    connect(panel, &QDialog::finished, this, &AppController::updateAutomationsAfterOptions);
    panel->open();
    return panel;
}

void AppController::updateAutomationsAfterOptions() {
    // Closed because the destination went away: what was changed waits for nothing, it is re-read.
    if (destination_->presence().isAway()) return;
    std::string error;
    bool scheduled = optionsPanelController_.updateAutomations(destination_->path(), &error);
    const std::string uuid = optionsPanelController_.uuid();
    destination_->rememberUUID(uuid);
    writeSettingsIfOpen();
    updateScheduleState();
    if (scheduled) FVScheduleFailureAlert::forget(uuid);
    else FVScheduleFailureAlert::showOnce(window_.get(), launchAgentManager_, uuid, error);
}

void AppController::updateScheduleState() {
    if (destination_->path().empty()) return clearScheduleState();
    const FVOptions options = optionsPanelController_.options();
    const std::string uuid = optionsPanelController_.uuid();
    const std::optional<FVJobStatus> status =
        uuid.empty() ? std::nullopt : FVJobStatusStore(environment_.jobStatusFolder).read(uuid);
    const FVDestinationSchedule shown =
        FVDestinationSchedule::of(destination_->path(), options, status, std::time(nullptr));
    window_->scheduleLine()->setText(QString::fromStdString(shown.line));
    window_->overdueBanner()->setText(shown.overdue ? QString::fromStdString(shown.overdue->text()) : QString());
}

void AppController::showOverdueWhileAway(const std::string& uuid) {
    if (uuid.empty()) return;
    const std::optional<FVOverdueNotice> notice = FVDestinationSchedule::overdueWhileAway(
        destination_->path(), FVJobStatusStore(environment_.jobStatusFolder).read(uuid), std::time(nullptr));
    if (notice) window_->overdueBanner()->setText(QString::fromStdString(notice->text()), false);
}

void AppController::clearScheduleState() {
    window_->scheduleLine()->clear();
    window_->overdueBanner()->setText({});
}

void AppController::showSearchBackupPanel() {
    if (destination_->refusedWhileAway()) return;
    if (destination_->path().empty()) return;
    auto* sheet = new FVDestinationSearchSheet(window_.get(), mainQueue_, qPath(destination_->path()));
    connect(sheet, &FVDestinationSearchSheet::restoreRequested, this, [this, sheet](const QString& versionPath) {
        restoreController_->restoreVersion(qPath(destination_->path()), versionPath, sheet);
    });
    sheet->open();
}

void AppController::showBackupBrowser() {
    if (destination_->path().empty() || !window_->browseAction()->isEnabled() || destination_->refusedWhileAway()) return;
    auto* browser = new FVBackupBrowser(window_.get(), destination_->path());
    connect(browser, &FVBackupBrowser::restoreRequested, this, [this, browser] {
        if (const FVRunRecord* run = browser->shownRun())
            restoreController_->restorePointInTime(qPath(destination_->path()), *run, browser->selectedPaths(), browser);
    });
    browser->open();
}

void AppController::showVerifySheet() {
    if (destination_->refusedWhileAway()) return;
    if (destination_->path().empty()) return;
    auto* sheet = new FVVerifySheet(window_.get(), qPath(destination_->path()));
    sheet->open();
    sheet->start();
}

// ---- Restores

void AppController::restoreSelectedSources(const QList<int>& rows) {
    std::vector<FVSourceItemPtr> items = backupSetController_.arrangedObjects();
    QStringList paths;
    for (int row : rows)
        if (row >= 0 && size_t(row) < items.size()) paths << qPath(items[size_t(row)]->sourcePath());
    if (paths.isEmpty() || destination_->path().empty() || destination_->refusedWhileAway()) return;
    // The restore reads the sources from the destination's configuration.
    writeSettingsIfOpen();
    restoreController_->restoreSourceItems(qPath(destination_->path()), paths);
}

void AppController::setRestoreHoldsWindow(bool holds) {
    // The restore's progress is on the cover, under which the search sheet would stand.
    if (holds)
        for (QDialog* sheet : window_->findChildren<QDialog*>())
            if (qobject_cast<FVDestinationSearchSheet*>(sheet) || qobject_cast<FVBackupBrowser*>(sheet)) sheet->reject();
    QPushButton* button = window_->startButton();
    button->setText(localized(holds ? "cancelbutton" : "syncbutton"));
    button->setEnabled(true);
    destination_->setControlsEnabled(!holds);
    setOptionWidgetsEnabled(!holds);
    if (!holds) destination_->follow();
}

// ---- Runs

void AppController::startOrCancelSync() {
    if (restoreController_->isRunning()) {
        window_->startButton()->setEnabled(false);
        restoreController_->stop();
        return;
    }
    runs_->startOrCancel();
}

void AppController::showLastRunErrors() { runs_->showLastRunErrors(); }

bool AppController::windowShouldClose() {
    runs_->abortStart();
    // A restore stops with the window; what it restored so far stays, whole.
    restoreController_->stop();
    if (!runs_->windowMayClose()) return false;
    writeSettingsIfOpen();
    return true;
}

}  // namespace ferrovane
