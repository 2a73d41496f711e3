#pragma once
// One whole backup of a destination: every enabled source item in list order, then the cleanup
// of what vanished, then the purge of old archives; with session-wide progress, cancellation,
// sleep prevention, and the per-item results written into the shared items.

#include "engine/FVOptions.h"
#include "engine/FVSourceItem.h"
#include "engine/FVSyncingBackup.h"
#include "platform/FVSleepInhibitor.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace ferrovane {

class FVBackupSession;

// Callbacks arrive on the job's threads; front ends move their work to the main thread.
class FVBackupSessionDelegate {
public:
    virtual ~FVBackupSessionDelegate() = default;
    virtual void backupSessionProgressDidChange(FVBackupSession& session) {}
    virtual void backupSessionDidFinish(FVBackupSession& session) {}
    virtual void backupSessionDidCancel(FVBackupSession& session) {}
};

class FVBackupSession final : public FVSyncingBackupObserver {
public:
    FVBackupSession() = default;
    ~FVBackupSession() override;

    void setDelegate(FVBackupSessionDelegate* delegate) { delegate_ = delegate; }
    void setDestinationPath(std::string path) { destinationPath_ = std::move(path); }
    void setBackupOptions(const FVOptions& options) { backupOptions_ = options; }
    void setBackupSet(std::vector<FVSourceItemPtr> items) { backupSet_ = std::move(items); }
    void setExcludePaths(std::vector<std::string> paths) { excludePaths_ = std::move(paths); }
    void setDestinationPathsToExcludeFromCleanup(std::vector<std::string> paths) { protectedPaths_ = std::move(paths); }
    // Problems found while reading the configuration (source items that were skipped): they are
    // errors of the run, listed first.
    void setConfigurationProblems(std::vector<std::string> problems) { configurationProblems_ = std::move(problems); }

    void start();
    void cancel();

    float progressPercent() const;
    std::vector<std::string> errorMessages() const;
    uint64_t sessionTotalBytesCopied() const;
    uint64_t sessionRequestedFileCount() const;
    uint64_t sessionCopiedFileCount() const;
    std::string currentTaskDescription() const;
    bool shouldPerformCleanup() const { return shouldPerformCleanup_; }
    uint64_t sessionTaskCount() const { return sessionTaskCount_; }
    FVSyncingBackup* syncingBackup() const { return syncingBackup_.get(); }

    // Job notifications.
    void updateTargetDidFinish(FVSyncingBackup& job) override;
    void updateTargetDidCancel(FVSyncingBackup& job) override;
    void progressDidChange(FVSyncingBackup& job) override;
    void cleanupTargetDidFinish(FVSyncingBackup& job) override;

private:
    void startNextItem();
    void finalise();
    void setTaskDescription(std::string text);
    void progressStep();

    FVBackupSessionDelegate* delegate_ = nullptr;
    std::string destinationPath_;
    FVOptions backupOptions_;
    std::vector<std::string> configurationProblems_;
    std::vector<FVSourceItemPtr> backupSet_;
    std::vector<std::string> excludePaths_;
    std::vector<std::string> protectedPaths_;
    std::vector<FVSourceItemPtr> enabledItems_;

    bool shouldPerformCleanup_ = false;
    uint64_t sessionTaskCount_ = 0;
    std::atomic<uint64_t> currentItemIndex_{UINT64_MAX};

    mutable std::mutex taskMutex_;
    std::string currentTaskDescription_;

    FVSleepInhibitor sleepInhibitor_;
    std::unique_ptr<FVSyncingBackup> syncingBackup_;
};

}  // namespace ferrovane
