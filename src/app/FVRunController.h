#pragma once
// A backup from the window: the checks before it, the session, its progress on the cover and the
// launcher, and its outcome, recorded, told on the desktop and shown. The destination, the list
// and the controls around it stay AppController's, reached through the Host's calls.

#include "app/FVLauncherEntry.h"
#include "app/FVRunOutcome.h"
#include "app/FVRunStartChecks.h"
#include "engine/config/FVDestinationLock.h"
#include "engine/session/FVBackupSession.h"
#include "platform/FVUserNotifier.h"
#include "scheduling/FVJobStatus.h"

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <utility>

namespace ferrovane {

class BackupSetController;
class FVDestinationPresence;
class FVMainWindow;
class FVOptionsPanelController;
class FVSourceListModel;

class FVRunController : public QObject, public FVBackupSessionDelegate {
    Q_OBJECT
public:
    // What the run asks of the window around it.
    struct Host {
        std::function<const std::string&()> destination;
        // The destination and the editing controls, locked while a run goes on.
        std::function<void(bool)> setControlsEnabled;
        std::function<void()> destinationWentAway;
        std::function<void()> destinationUnusable;
        std::function<void()> writeSettings;
        std::function<void()> updateScheduleState;
        std::function<void()> updateSizeDisplay;
        // Whether the destination is still there, once nothing holds the window.
        std::function<void()> followDestination;
    };
    struct Parts {
        FVMainWindow* window;
        FVSourceListModel& sourceModel;
        BackupSetController& sources;
        FVOptionsPanelController& options;
        FVDestinationPresence& presence;
        FVRunStartChecks& startChecks;
        FVLauncherEntry& launcherEntry;
        std::shared_ptr<FVUserNotifier> notifier;
        std::string jobStatusFolder;
    };
    FVRunController(Parts parts, Host host, QObject* parent = nullptr);
    // A session still running would call back into a destroyed window: it is stopped and awaited.
    ~FVRunController() override;

    bool isRunning() const { return backupIsRunning_; }
    bool isStarting() const { return starting_; }
    bool isCancelling() const { return cancelling_; }
    FVBackupSession* session() const { return backupSession_.get(); }
    const FVRunOutcome& outcome() const { return runOutcome_; }

    // Starts a run after its checks, or stops the one starting or running.
    void startOrCancel();
    // Stops a run that has not begun copying yet.
    void abortStart();
    // The outcome shown for the open destination: its row marks, the line under the list, Show Errors.
    void setOutcome(FVRunOutcome outcome);
    void showLastRunErrors();
    // Whether the window may close now; otherwise it asks, and closes once the run has stopped.
    bool windowMayClose();
    // The cover opens again once the window is in front after a good run it did not see.
    bool takeCoverOpenOnActivation() { return std::exchange(coverOpensOnActivation_, false); }

    void backupSessionProgressDidChange(FVBackupSession& session) override;
    void backupSessionDidFinish(FVBackupSession& session) override;
    void backupSessionDidCancel(FVBackupSession& session) override;

signals:
    void runStarted();
    // The window is back to idle after a finished or cancelled run.
    void runEnded();
    void emptiedSourceConfirmationRequested(const QString& sourcePath);

private:
    bool passesStartChecks();
    void startSync();
    void handleProgress();
    void handleCancel();
    void handleFinish();
    void showErrorPanel();
    void showStopAlert(bool noRoom, const std::string& refusal, long long copied);
    void notifyStop(bool noRoom, const std::string& refusal, const std::string& diskFailure, size_t errorCount);
    void recordRunOutcome(FVRunOutcome::State state, const std::vector<std::string>& errors,
                          std::pair<std::string, long long> interrupted = {{}, -1}, std::string destinationFailure = {},
                          long long notCopied = 0);
    // Kept outside the destination for the schedule line and overdue notices, when it has an identity.
    void recordJobAttempt(FVJobOutcome outcome, const std::string& message);
    void notifyUnlessActive(const FVUserNotification& notification);
    void resumeSizeEvaluation();
    void finishRunAndMaybeClose();
    std::string diskName() const;

    Parts parts_;
    Host host_;
    FVRunOutcome runOutcome_;
    std::unique_ptr<FVBackupSession> backupSession_;
    // Held from the start checks until the run's outcome is written.
    FVDestinationLock runLock_;
    bool backupIsRunning_ = false;
    bool starting_ = false;
    bool cancelling_ = false;
    bool closeAfterRun_ = false;
    bool coverOpensOnActivation_ = false;
    std::atomic<bool> progressPosted_{false};
    QElapsedTimer runClock_;
    QTimer progressTimer_;
};

}  // namespace ferrovane
