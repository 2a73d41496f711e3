#pragma once
// The main window's controller: the destinations and the opening of one, the source list, the
// checks before a run, the run and its outcome, the options and search sheets, and writing the
// destination's configuration. Restores are FVRestoreController's; this one only keeps a backup
// and a restore from sharing the window.

#include "app/FVDestinationList.h"
#include "app/FVDestinationPresence.h"
#include "app/FVLauncherEntry.h"
#include "app/FVQtMainQueue.h"
#include "app/FVRunOutcome.h"
#include "app/FVRunStartChecks.h"
#include "backupset/BackupSetController.h"
#include "engine/config/FVDestinationLock.h"
#include "engine/session/FVBackupSession.h"
#include "platform/FVCommandRunner.h"
#include "platform/FVUserNotifier.h"
#include "scheduling/FVLaunchAgentManager.h"
#include "scheduling/FVJobStatus.h"
#include "scheduling/FVOptionsPanelController.h"

#include <QElapsedTimer>
#include <QObject>
#include <QPointer>
#include <QStringList>
#include <QTimer>

#include <atomic>
#include <memory>
#include <string>
#include <utility>

class QMessageBox;

namespace ferrovane {

class FVMainWindow;
class FVOptionsPanel;
class FVRestoreController;
class FVSourceListModel;

// What the controller takes from the system, replaceable in tests.
struct AppEnvironment {
    bool runningAsRoot = false;
    std::shared_ptr<FVCommandRunner> commandRunner;
    std::shared_ptr<FVUserNotifier> notifier;
    // Where the outcomes of run attempts are kept for the schedule line and overdue notices.
    std::string jobStatusFolder;
    static AppEnvironment system();
};

class AppController : public QObject, public FVBackupSessionDelegate {
    Q_OBJECT
public:
    explicit AppController(AppEnvironment environment, QObject* parent = nullptr);
    ~AppController() override;

    FVMainWindow* window() const { return window_.get(); }
    BackupSetController& backupSetController() { return backupSetController_; }
    FVOptionsPanelController& optionsPanelController() { return optionsPanelController_; }
    const FVDestinationList& destinations() const { return destinations_; }
    const std::string& currentTargetPath() const { return currentTargetPath_; }
    FVBackupSession* backupSession() const { return backupSession_.get(); }
    bool isBackupRunning() const { return backupIsRunning_; }
    const FVRunOutcome& runOutcome() const { return runOutcome_; }
    FVRestoreController& restoreController() { return *restoreController_; }

    // Start-up: shows the window, asks for a donation unless suppressed, checks for updates
    // when an address is configured, opens the destination selected last.
    void initialiseApplication();
    // Another start of the program handed over its paths: the window comes forward and takes
    // them as sources, unless no destination is open.
    void activateFromAnotherStart(const QStringList& paths);

    // Destinations.
    void showNewBackupPanel();
    void addAndOpenNewDestination(const QString& path);
    void performTargetMenuSelection(int index);
    void removeTargetWidgetClicked();
    void openRecentTargetPath();

    // Sources.
    void addSourceFolders();
    void addSourceFiles();
    void addSourcePaths(const QStringList& paths, int index);
    void removeSelectedSources();
    void tableViewDoubleAction();

    // Runs.
    void startOrCancelSync();

    FVOptionsPanel* showOptionsPanel();
    void showSearchBackupPanel();
    void showBackupBrowser();
    void showVerifySheet();
    // The open destination's recent runs; without one, the log file in another program.
    void showLog();
    void openLogFile();
    void showLastRunErrors();
    void showAbout();

    void readSettings();
    void writeSettings();
    void writeSettingsIfOpen();

    void backupSessionProgressDidChange(FVBackupSession& session) override;
    void backupSessionDidFinish(FVBackupSession& session) override;
    void backupSessionDidCancel(FVBackupSession& session) override;

signals:
    // startSync has started the session.
    void runStarted();
    // The window is back to idle after a finished or cancelled run.
    void runEnded();

private:
    void performSelectTargetMenuItem();
    void removeSelectedDestinationAndUpdateForSelectedItem();
    void resetInterface();
    void reloadTargetPopup();
    void saveDestinations();
    void setDestinationControlsEnabled(bool enabled);
    void setOptionWidgetsEnabled(bool enabled);
    void showDestinationUnusable(const char* messageKey);
    // The open destination's disk is gone: its list is put away and nothing can be changed until
    // it is back, which reopens it.
    void destinationWentAway();
    void destinationCameBack();
    // Whether an edit must wait for the destination's return; says so when it must.
    bool refusedWhileAway();
    // After a run or a restore, which noticed a missing destination by itself.
    void followDestination();
    void updateSizeDisplay();
    void updateSummaryLine();
    // The schedule line and the overdue banner of the open destination; both empty without one.
    void updateScheduleState();
    void clearScheduleState();
    // The banner of a destination that is away, from its job's status alone.
    void showOverdueWhileAway(const std::string& uuid);
    void updateAutomationsAfterOptions();
    void checkForUpdates();

    bool passesStartChecks();
    void startSync();
    void abortStart();
    void handleProgress();
    void handleCancel();
    void handleFinish();
    void showErrorPanel(const std::vector<std::string>& errors);
    void confirmEmptiedSource(const QString& sourcePath);
    void setRunOutcome(FVRunOutcome outcome);
    void recordRunOutcome(FVRunOutcome::State state, const std::vector<std::string>& errors,
                          std::pair<std::string, long long> interrupted = {{}, -1}, std::string destinationFailure = {});
    // Kept outside the destination for the schedule line and overdue notices, when it has an identity.
    void recordJobAttempt(FVJobOutcome outcome, const std::string& message);
    void measureAfterWrite();
    void addPendingSourcePaths();
    void notifyUnlessActive(const FVUserNotification& notification);
    void resumeSizeEvaluation();
    void finishRunAndMaybeClose();
    bool windowShouldClose();
    void restoreSelectedSources(const QList<int>& rows);
    void setRestoreHoldsWindow(bool holds);
    QString destinationName() const;

    AppEnvironment environment_;
    FVQtMainQueue mainQueue_;
    BackupSetController backupSetController_;
    FVLaunchAgentManager launchAgentManager_;
    FVOptionsPanelController optionsPanelController_;
    FVDestinationList destinations_;
    std::string currentTargetPath_;
    // After the source list, which the model observes; the window goes first.
    std::unique_ptr<FVSourceListModel> sourceModel_;
    std::unique_ptr<FVMainWindow> window_;
    FVRunStartChecks startChecks_;
    // After the window, which it drives while a restore runs.
    std::unique_ptr<FVRestoreController> restoreController_;
    FVDestinationPresence presence_;

    FVRunOutcome runOutcome_;
    FVLauncherEntry launcherEntry_;
    QStringList pendingSourcePaths_;
    std::unique_ptr<FVBackupSession> backupSession_;
    // Held from the start checks until the run's outcome is written.
    FVDestinationLock runLock_;
    bool backupIsRunning_ = false;
    bool starting_ = false;
    bool cancelling_ = false;
    bool closeAfterRun_ = false;
    bool coverViewShouldOpenOnBecomeMain_ = false;
    std::atomic<bool> progressPosted_{false};
    QElapsedTimer runClock_;
    QTimer progressTimer_;
};

}  // namespace ferrovane
