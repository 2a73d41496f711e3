#pragma once
// The sync engine of one run towards one destination, driven step by step by the session: each
// step runs on the caller's thread and returns when it is done. Mirroring a source item walks it
// (FVSourceAnalysis) and hands what changed to a copy worker, which archives each file it
// overwrites (FVChangedFileArchive); the cleanup takes away what vanished from the sources
// (FVMirrorCleanup); the purge deletes old archives (FVArchivePurge), the thinning the runs that
// the retention policy lets go (FVRunThinning).

#include "engine/analysis/FVHardLinkGroups.h"
#include "engine/analysis/FVRunFindings.h"
#include "engine/archive/FVChangedFileArchive.h"
#include "engine/archive/FVDestinationTree.h"
#include "engine/config/FVSourceItem.h"
#include "engine/copy/FVFileCopyWorker.h"
#include "engine/run/FVRunSettings.h"
#include "engine/run/FVRunStatus.h"

#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace ferrovane {

class FVMountWatcher;
class FVRunRecorder;

class FVSyncingBackup final : public FVFileCopyWorkerDelegate {
public:
    // progressChanged is called on the reporting thread (the caller's or a copy thread).
    FVSyncingBackup(FVRunSettings settings, std::vector<std::string> excludedFiles, std::function<void()> progressChanged);
    ~FVSyncingBackup() override;
    FVSyncingBackup(const FVSyncingBackup&) = delete;
    FVSyncingBackup& operator=(const FVSyncingBackup&) = delete;

    // Mirrors one source item and waits for its copies; false when the run was cancelled.
    bool backUpSourceItem(const std::string& sourcePath, std::optional<int64_t> fileCountEstimation);
    // Archives or removes what vanished from the sources; false when the run was cancelled.
    bool removeDeletedFiles(const std::vector<FVSourceItemPtr>& backupSet, int32_t cleanupFileCount);
    void purgeArchives();
    // Whether the source item backUpSourceItem last took could not be read at all (gone, or its
    // folder refused): its mirror was kept as it was.
    bool lastSourceUnreadable() const { return lastSourceUnreadable_; }
    // Removes the runs the retention policy lets go; after the run's record is written.
    void thinRuns();
    // Puts what the run wrote on the destination's disk; a failure is an error of the run.
    void flushDestination();
    // Reads what the last run recorded, so that current files keep their digests.
    void loadPreviousRecord();
    // Closes the run's record: complete, or stopped (failed when the destination failed).
    void finishRecord(bool stopped);
    // What the user should know of a run that is not an error of an item: that it is not recorded.
    std::vector<std::string> warnings() const;

    // From any thread.
    void cancelUpdate() { status_.cancel(); }
    // A mount point went away; cancels the run when the destination lies on it.
    void checkVolumeDidUnmount(const std::string& mountPoint);
    float progressStatus() const { return status_.progressStatus(); }
    std::string currentDurationString() const;
    bool isCancelled() const { return status_.isCancelled(); }
    uint64_t currentUpdateCount() const { return status_.updateCount.load(std::memory_order_relaxed); }
    uint64_t currentTotalFilesCount() const { return status_.totalFilesCount.load(std::memory_order_relaxed); }
    std::vector<std::string> errorMessages() const { return status_.errorMessages(); }
    // What the run did so far, the source item in hand included.
    FVRunTotals totals() const;
    std::string currentFile() const { return status_.currentFile(); }
    uint64_t copiedInSourceItem() const { return status_.copiedInItem(); }
    void setItemListener(std::function<void(FVItemChange, const std::string&)> listener) {
        status_.setItemListener(std::move(listener));
    }
    std::string destinationFailureMessage() const { return status_.destinationFailureMessage(); }
    // What the user should know of this run that is no error of an item (what the destination
    // cannot keep), said once per run.
    const std::vector<std::string>& notes() const { return notes_; }
    std::shared_ptr<FVCurrentCopy> backupCopyWorker() const { return status_.currentWorker(); }

    // The copy worker's delegate.
    bool respondsToWillOverwriteDestination() const override { return true; }
    bool respondsToProgressDidChange() const override { return true; }
    bool copyWorkerWillOverwriteDestination(FVFileSystemItem& destination) override;
    void copyWorkerProgressDidChange(float fraction) override;
    void copyWorkerDidWriteData(const std::string& sourcePath, uint64_t bytes) override;
    void copyWorkerDidGenerateMessage(const std::string& message, FVMessageLevel level) override;
    void copyWorkerDestinationDidFail(const FVDestinationFailure& failure) override;
    void copyWorkerDidRecordItem(const FVCopyRecord& record) override;
    void copyWorkerDidPublishItem(const std::string& sourcePath, uint64_t bytes) override;
    void copyWorkerDidFinishCopy() override;
    void copyWorkerDidCancel() override;

private:
    std::shared_ptr<FVFileCopyWorker> makeWorker(const std::string& sourcePath);
    // Ends the worker's session and waits for its last thread; false when it was cancelled.
    bool waitForCopies(FVFileCopyWorker& worker);
    void copiesEnded(bool cancelled);
    // Links the later names of files with several names; false when the run was cancelled.
    bool linkLaterNames(const std::string& sourcePath, const FVHardLinkGroups& groups);
    void recordLaterNames(const FVHardLinkGroups& groups,
                          const std::vector<std::pair<FVFileSystemItemPtr, FVFileSystemItemPtr>>& copies);
    // What a dry run reports instead of handing a pair to the worker.
    void reportWouldCopy(FVFileSystemItem& source, FVFileSystemItem& destination);

    const FVRunSettings settings_;
    FVRunFindings findings_;
    FVRunStatus status_;
    FVDestinationTree destination_;
    FVChangedFileArchive changedFileArchive_;
    double initTimeStamp_ = 0;
    std::vector<std::string> notes_;
    std::unique_ptr<FVRunRecorder> recorder_;
    bool lastSourceUnreadable_ = false;

    std::mutex copiesMutex_;
    std::condition_variable copiesEndedCondition_;
    bool copiesEnding_ = false;
    std::optional<bool> copiesCancelled_;

    std::unique_ptr<FVMountWatcher> mountWatcher_;
};

}  // namespace ferrovane
