#pragma once
// Restores from the window, a version in the destination or items as a complete run recorded them:
// asks where to (the original place or a chosen folder), plans off the main thread, asks before
// replacing anything, copies with its progress on the cover view, and shows the outcome. One
// restore at a time, never during a backup, and the destination stays locked against other runs
// meanwhile.

#include "app/FVRestoreJob.h"
#include "engine/config/FVDestinationLock.h"
#include "engine/record/FVRunRecords.h"
#include "engine/record/FVVersionCatalog.h"

#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

class QWidget;

namespace ferrovane {

class FVMainWindow;

class FVRestoreController : public QObject {
    Q_OBJECT
public:
    // windowIsBusy tells whether a backup holds the window.
    FVRestoreController(FVMainWindow* window, std::function<bool()> windowIsBusy, QObject* parent = nullptr);
    ~FVRestoreController() override;

    // From the moment the plan starts until the outcome is shown.
    bool isRunning() const { return running_; }

    // A version inside destination (the mirror copy or an archived one); the questions open over
    // dialogParent. An archived folder comes back whole, as the run before its archiving recorded
    // it, when a complete run did.
    void restoreVersion(const QString& destination, const QString& versionPath, QWidget* dialogParent);
    // Whole source items, from the mirror.
    void restoreSourceItems(const QString& destination, const QStringList& sourcePaths);
    // Items (mirror paths, none inside another) as a complete run recorded them.
    void restorePointInTime(const QString& destination, const FVRunRecord& run, const std::vector<std::string>& mirrorPaths,
                            QWidget* dialogParent);
    // Cancels the copy; what was restored stays, nothing half-written does.
    void stop();

signals:
    // The window is the restore's from here until restoreEnded.
    void restoreStarted();
    void restoreEnded();
    // fraction from 0 to 1 of the items to restore, done of them restored.
    void progressChanged(double fraction, qint64 done);

private:
    struct Request {
        std::string destination;
        std::string name;  // what the questions call it
        // Where it came from (the folders several items came from); nothing when no source holds
        // it any more.
        std::optional<std::string> original;
        bool several = false;
        // For items as a run recorded them: which run, said in the question.
        QString asRecordedBy;
        // The job that restores it into a folder, or to its original place when the folder is "".
        std::function<std::unique_ptr<FVRestoreJob>(const std::string& toFolder, std::string* problem)> job;
    };

    static Request versionRequest(const FVVersionCatalog& catalog, const std::string& mirror, const std::string& versionPath);
    void askTarget(const Request& request, QWidget* parent);
    void chooseFolder(const Request& request, QWidget* parent);
    void start(const Request& request, const std::string& toFolder);
    void planned();
    void askAboutConflicts();
    void copy(bool replace);
    void showProgress();
    void finished();
    void end();
    void joinWorker();

    FVMainWindow* window_;
    std::function<bool()> windowIsBusy_;
    bool running_ = false;
    FVDestinationLock lock_;
    std::string destination_;
    std::string name_;
    std::thread worker_;
    std::unique_ptr<FVRestoreJob> job_;
    std::string target_;
    // Written by the worker before it posts back; read on the main thread after the join.
    std::string planProblem_;
    FVRestoreJob::Outcome outcome_;
    std::mutex errorsMutex_;
    std::vector<std::string> errors_;
    std::atomic<bool> interrupt_{false};
    std::atomic<uint64_t> done_{0}, total_{0};
    std::atomic<bool> progressPosted_{false};
};

}  // namespace ferrovane
