#pragma once
// The sync engine of one run towards one destination: what the run's stages share (its settings,
// findings, status, the destination, the record of the run) and the copy threads' delegate, which
// archives each file they overwrite (FVChangedFileArchive). The stages themselves, in their order,
// are FVBackupPipeline.

#include "engine/analysis/FVRunFindings.h"
#include "engine/archive/FVChangedFileArchive.h"
#include "engine/archive/FVDestinationTree.h"
#include "engine/config/FVSourceItem.h"
#include "engine/copy/FVFileCopyWorker.h"
#include "engine/run/FVRunSettings.h"
#include "engine/run/FVRunStatus.h"
#include "engine/session/FVBackupPipeline.h"
#include "engine/session/FVUnkeptMetadata.h"

#include <functional>
#include <memory>
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

    // The whole run, on the caller's thread (see FVBackupPipeline::run); false when it was cancelled.
    bool run(const std::vector<FVSourceItemPtr>& sources, const std::vector<FVSourceItemPtr>& backupSet,
             FVBackupPipeline::Listener& listener);
    // What the user should know of a run that is not an error of an item: what the destination
    // could not keep, that it is not recorded.
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
    void copyWorkerDidGenerateMessage(const std::string& message) override;
    void copyWorkerDidFail(const FVRunError& error) override;
    void copyWorkerDidRecordItem(const FVCopyRecord& record) override;
    void copyWorkerDidPublishItem(const std::string& sourcePath, uint64_t bytes) override;

private:
    std::shared_ptr<FVFileCopyWorker> makeWorker(const std::string& sourcePath, std::shared_ptr<FVCopyPairs> pairs);

    const FVRunSettings settings_;
    FVRunFindings findings_;
    FVRunStatus status_;
    FVDestinationTree destination_;
    FVChangedFileArchive changedFileArchive_;
    FVUnkeptMetadata unkeptMetadata_;
    double initTimeStamp_ = 0;
    std::vector<std::string> notes_;
    std::unique_ptr<FVRunRecorder> recorder_;

    std::unique_ptr<FVMountWatcher> mountWatcher_;
};

}  // namespace ferrovane
