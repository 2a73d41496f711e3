#pragma once
// The window's destinations: the list in the popup, opening the chosen one (or saying why it
// cannot be used), watching its disk go and come back, removing one, and its free space. What
// an open destination shows (its sources, options, last run, schedule) is filled in through the
// Host's calls.

#include "app/FVDestinationList.h"
#include "app/FVDestinationPresence.h"
#include "app/FVRunOutcome.h"

#include <QObject>
#include <QString>

#include <functional>
#include <string>

namespace ferrovane {

class BackupSetController;
class FVLaunchAgentManager;
class FVMainWindow;
class FVOptionsPanelController;

class FVDestinationController : public QObject {
    Q_OBJECT
public:
    struct Host {
        // A backup, starting or running, or a restore holds the window.
        std::function<bool()> isBusy;
        std::function<bool()> runIsGoing;
        std::function<void(bool)> setOptionWidgetsEnabled;
        std::function<void(FVRunOutcome)> setRunOutcome;
        std::function<const FVRunOutcome&()> runOutcome;
        // The open destination's configuration into the window, and back.
        std::function<void()> readSettings;
        std::function<void()> writeSettingsIfOpen;
        std::function<void()> updateScheduleState;
        std::function<void()> clearScheduleState;
        std::function<void(const std::string&)> showOverdueWhileAway;
    };
    struct Parts {
        FVMainWindow* window;
        BackupSetController& sources;
        FVOptionsPanelController& options;
        FVLaunchAgentManager& launchAgentManager;
        bool runningAsRoot;
    };
    FVDestinationController(Parts parts, Host host, QObject* parent = nullptr);

    // The open destination; empty when none is.
    const std::string& path() const { return path_; }
    QString name() const;
    const FVDestinationList& list() const { return list_; }
    FVDestinationPresence& presence() { return presence_; }

    // The remembered destinations into the popup.
    void load();
    void showNewDestinationPanel();
    void addAndOpen(const QString& path);
    // The popup's choice; one that cannot be used offers its removal.
    void select(int index);
    void askToRemoveSelected();
    // Opens the selected destination, or says why it cannot be used.
    void openSelected();
    // The open destination's disk is gone: its list is put away and nothing can be changed until
    // it is back, which reopens it.
    void wentAway();
    // After a run or a restore, which noticed a missing destination by itself.
    void follow();
    // Whether an edit must wait for the destination's return; says so when it must.
    bool refusedWhileAway();
    // The window without a destination it can use.
    void showUnavailable();
    void setControlsEnabled(bool enabled);
    void updateSizeDisplay();
    // The open destination's scheduled job's identity, kept with it in the list.
    void rememberUUID(const std::string& uuid);

private:
    void reloadPopup();
    void save();
    void reopen();
    void showUnusable(const char* messageKey);
    void cameBack();
    void removeSelected();

    FVMainWindow* window_;
    BackupSetController& sources_;
    FVOptionsPanelController& options_;
    FVLaunchAgentManager& launchAgentManager_;
    bool runningAsRoot_;
    Host host_;
    FVDestinationList list_;
    std::string path_;
    FVDestinationPresence presence_;
};

}  // namespace ferrovane
