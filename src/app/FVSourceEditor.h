#pragma once
// Edits of the open destination's source list from the window: folders and files added through
// the dialogs, by dropping or from another start of the program, rows removed, a row shown in the
// file manager and an emptied source confirmed. Each edit waits while the destination is away.

#include <QObject>
#include <QStringList>

#include <functional>
#include <string>

namespace ferrovane {

class BackupSetController;
class FVMainWindow;
class FVOptionsPanelController;
class FVRunStartChecks;

class FVSourceEditor : public QObject {
    Q_OBJECT
public:
    // What the edits ask of the window around them.
    struct Host {
        std::function<const std::string&()> destination;
        // Whether an edit must wait for the destination's return; says so when it must.
        std::function<bool()> refusedWhileAway;
        std::function<bool()> runIsGoing;
        std::function<void()> writeSettings;
    };
    FVSourceEditor(FVMainWindow* window, BackupSetController& sources, FVOptionsPanelController& options,
                   FVRunStartChecks& startChecks, Host host, QObject* parent = nullptr);

    void addFolders();
    void addFiles();
    // At index of the list, unless the layout they would make is refused.
    void addPaths(const QStringList& paths, int index);
    // Taken once a destination is open and no run is under way.
    void addWhenIdle(const QStringList& paths);
    void addPendingPaths();
    void removeSelected();
    void revealSelected();
    void confirmEmptiedSource(const QString& sourcePath);

private:
    FVMainWindow* window_;
    BackupSetController& sources_;
    FVOptionsPanelController& options_;
    FVRunStartChecks& startChecks_;
    Host host_;
    QStringList pendingPaths_;
};

}  // namespace ferrovane
