#pragma once
// The sync engine of one run towards one destination: it walks each source item, hands what
// changed to a copy worker, archives what it overwrites or what vanished from the sources,
// purges old archives, and collects the run's errors.

#include "fs/FVConfinedDirectory.h"
#include "fs/FVDirectoryWalker.h"
#include "engine/FVFileCopyWorker.h"
#include "engine/FVOptions.h"
#include "engine/FVPathSet.h"
#include "engine/FVPlist.h"
#include "engine/FVSerialQueue.h"
#include "engine/FVSourceItem.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace ferrovane {

class FVMountWatcher;
class FVSyncingBackup;

// How the job tells the session where it stands. Called on the job's or the copy worker's
// threads; observers move to their own thread where they need to.
class FVSyncingBackupObserver {
public:
    virtual ~FVSyncingBackupObserver() = default;
    virtual void updateTargetDidFinish(FVSyncingBackup& job) = 0;
    virtual void updateTargetDidCancel(FVSyncingBackup& job) = 0;
    virtual void progressDidChange(FVSyncingBackup& job) = 0;
    virtual void cleanupTargetDidFinish(FVSyncingBackup& job) = 0;
};

class FVSyncingBackup final : public FVFileCopyWorkerDelegate {
public:
    FVSyncingBackup(std::string destinationPath, std::vector<FVSourceItemPtr> backupSet, const FVOptions& options,
                    FVSyncingBackupObserver* observer);
    ~FVSyncingBackup() override;
    FVSyncingBackup(const FVSyncingBackup&) = delete;
    FVSyncingBackup& operator=(const FVSyncingBackup&) = delete;

    // Set by the session before the first item.
    void setWillPerformCleanup(bool cleanup) { willPerformCleanup_ = cleanup; }
    void setArchiveFolderName(std::string name) { archiveFolderName_ = std::move(name); }
    void setDestinationPathsToExcludeFromCleanup(std::vector<std::string> paths) { protectedPaths_ = std::move(paths); }
    void addExcludedFiles(const std::vector<std::string>& patterns);

    // Starts one source item; returns at once. Ends with updateTargetDidFinish or ...DidCancel.
    void updateTargetPathFromSourcePath(const std::string& sourcePath, std::optional<int64_t> fileCountEstimation);
    // The walk of one source item (normally run by updateTargetPathFromSourcePath).
    void buildSourceFilesToUpdate(const std::string& sourcePath, const std::string& targetPath, bool reportProgress);
    bool itemNeedsBackup(FVFileSystemItem& source, FVFileSystemItem& target);

    // Archives or removes what vanished from the sources; returns at once, ends with
    // cleanupTargetDidFinish or updateTargetDidCancel.
    void removeDeletedFilesArchivingFiles(bool archive, int32_t cleanupFileCount);
    // Deletes archive folders at least the given number of days old; runs on the caller's thread.
    void purgeRemovedArchive(bool purgeRemoved, int32_t removedAge, bool purgeChanged, int32_t changedAge);

    // Puts what the run wrote on the destination's disk (syncfs); a failure is an error of the run.
    void flushDestination();

    void cancelUpdate();
    // A mount point went away; cancels the run when the destination lies on it.
    void checkVolumeDidUnmount(const std::string& mountPoint);

    void reportProgress();
    float progressStatus() const;
    std::string currentDurationString() const;

    const std::string& targetPath() const { return targetPath_; }
    const std::string& archiveFolderName() const { return archiveFolderName_; }
    bool syncMode() const { return syncMode_; }
    bool isCancelled() const { return cancelUpdate_.load(std::memory_order_relaxed); }
    uint64_t currentUpdateCount() const { return currentUpdateCount_.load(std::memory_order_relaxed); }
    uint64_t currentTotalFilesCount() const { return currentTotalFilesCount_.load(std::memory_order_relaxed); }
    std::vector<std::string> errorMessages() const;
    std::shared_ptr<FVFileCopyWorker> backupCopyWorker() const;

    // The copy worker's delegate.
    bool respondsToWillOverwriteDestination() const override { return true; }
    bool respondsToProgressDidChange() const override { return true; }
    bool copyWorkerWillOverwriteDestination(FVFileSystemItem& destination) override;
    void copyWorkerProgressDidChange(float fraction) override;
    void copyWorkerDidGenerateMessage(const std::string& message, FVMessageLevel level) override;
    void copyWorkerDidFinishCopy() override;
    void copyWorkerDidCancel() override;

private:
    void addError(std::string message);
    void logLine(const std::string& line);
    void verboseLog(const std::string& line);
    bool isExcluded(const std::string& path, const std::string* currentSourceItemPath) const;
    // Logs and keeps a source item that could not be read: its mirror is left as it is.
    void reportUnreadableSource(const std::string& path, int error);
    // Whether the cleanup must leave the mirror of this source path (and all below it) alone.
    bool isBelowUnreadableSource(const std::string& sourcePath) const;
    bool isWithinDestination(const std::string& sourcePath) const;
    void addFixedPatterns(const std::string& sourcePath);
    void analyse(const std::string& sourcePath);
    void handToWorker(FVFileSystemItemPtr source, FVFileSystemItemPtr destination);
    // The destination folder of a source item.
    std::string itemTargetPath(const std::string& sourcePath) const;
    void cleanup();
    void cleanupSourceRoot(const std::string& sourceRoot, bool emptySourceConfirmed, int& handled, bool& cancelled);
    enum class CleanupDecision { Keep, ArchiveOrRemove, RemoveLeftover };
    CleanupDecision decideMirrorEntry(const std::string& sourceRoot, const std::string& sourcePath,
                                      const FVDirectoryWalker::Entry& entry);
    void removeDeletedItem(const std::string& sourceRoot, const std::string& relative, const std::string& itemPath);
    // Runs change (which takes the item away) and gives the item's folder its dates back.
    void keepingParentDates(const std::string& itemPath, const std::function<void()>& change);
    void purgeFolder(const std::string& folder, int32_t age);
    void postCancelOnce();
    // The part of an absolute path below the destination root, doubled separators folded;
    // nothing for a path outside it.
    std::optional<std::string> destinationRelative(const std::string& path) const;
    // Moves within the destination without following links; never replaces an archived item.
    // Both return 0 or the errno of the failure.
    int moveWithinDestination(const std::string& from, const std::string& to);
    int removeWithinDestination(const std::string& path);
    // A read-only or full destination ends the run at once with one error instead of one per
    // item; returns whether the error was of that kind.
    bool stopOnFatalDestinationError(int error);
    // Clears the immutable flag of a destination item (and, recursively, of all below it),
    // reaching it without following links like every other change.
    void unlockWithinDestination(const std::string& path, bool recursively = false);

    FVSyncingBackupObserver* observer_;
    std::string targetPath_;
    FVConfinedDirectory destination_;
    std::vector<FVSourceItemPtr> backupSet_;
    std::string fstype_;
    double initTimeStamp_ = 0;

    bool syncMode_ = false;
    bool ignoreFileFlagChanges_ = false;
    bool verboseLogging_ = false;
    bool archiveChangedFiles_ = false;
    bool disableACLClone_ = false;
    bool preallocate_ = false;
    bool excludeSymlinks_ = false;
    int64_t maxThreads_ = 0;

    bool willPerformCleanup_ = false;
    std::string archiveFolderName_;
    std::vector<std::string> protectedPaths_;
    // Filled before the first item and by the analysis, which runs on queue_ only.
    std::vector<std::string> excludedFiles_;
    FVPathSet sourcePathsCache_;
    // Source items the analysis could not read, and the places where a source holds the
    // destination itself; few, so plain lists.
    std::vector<std::string> unreadableSourcePaths_;
    std::vector<std::string> destinationSourcePaths_;
    dev_t destinationDevice_ = 0;
    ino_t destinationInode_ = 0;
    std::string currentSourcePath_;
    int64_t estimatedItemFilecount_ = 2000000;
    bool archive_ = false;
    int32_t cleanupFileCount_ = 0;

    std::atomic<bool> cancelUpdate_{false};
    std::atomic<bool> cancelReported_{false};
    std::atomic<uint64_t> currentUpdateCount_{0};
    std::atomic<uint64_t> currentTotalFilesCount_{0};
    std::atomic<float> analyseProgressStatus_{0};
    std::atomic<float> copyProgressStatus_{0};
    std::atomic<float> lastReportedProgress_{0};

    mutable std::mutex errorsMutex_;
    std::vector<std::string> errorMessages_;

    mutable std::mutex workerMutex_;
    std::shared_ptr<FVFileCopyWorker> backupCopyWorker_;
    // Workers of finished items stay alive until the job ends: their last thread may still be
    // unwinding from the callback that started the next item.
    std::vector<std::shared_ptr<FVFileCopyWorker>> retiredWorkers_;

    std::unique_ptr<FVMountWatcher> mountWatcher_;
    FVSerialQueue queue_;
};

}  // namespace ferrovane
