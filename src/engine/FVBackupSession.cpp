#include "engine/FVBackupSession.h"

#include "engine/FVAdditions.h"
#include "engine/FVConfigurationFile.h"
#include "engine/FVLog.h"
#include "engine/FVStrings.h"
#include "fs/FVText.h"
#include "platform/FVSystemLog.h"

#include <fmt/format.h>

namespace ferrovane {

namespace {

// The stamp of the run's archive folders: now, or the next second that no earlier run has used.
// Two runs within one second (a scheduled run right after a manual one) must never share a stamp
// folder, or the second one's archive moves would meet the first one's versions.
std::string unusedArchiveStamp(const std::string& destination) {
    std::time_t at = std::time(nullptr);
    for (int tries = 0; tries < 3600; ++tries, ++at) {
        std::string stamp = FVDate::archiveStamp(at);
        if (FVFileManager::existenceAtPath(destination + "/__changed/" + stamp) == FVExistence::Missing &&
            FVFileManager::existenceAtPath(destination + "/__removed/" + stamp) == FVExistence::Missing)
            return stamp;
    }
    return FVDate::archiveStamp(at);
}

}  // namespace

FVBackupSession::~FVBackupSession() { syncingBackup_.reset(); }

void FVBackupSession::setTaskDescription(std::string text) {
    std::lock_guard lock(taskMutex_);
    currentTaskDescription_ = std::move(text);
}

std::string FVBackupSession::currentTaskDescription() const {
    std::lock_guard lock(taskMutex_);
    return currentTaskDescription_;
}

void FVBackupSession::progressStep() {
    if (delegate_) delegate_->backupSessionProgressDidChange(*this);
}

void FVBackupSession::start() {
    if (!sleepInhibitor_.acquire("Ferrovane is syncing files."))
        FVSystemLog::error("FVBackupSession", "Sleep prevention failed...");
    setTaskDescription("");
    shouldPerformCleanup_ = FVFileManager::pathContainsUserFilePaths(destinationPath_);
    enabledItems_.clear();
    for (const FVSourceItemPtr& item : backupSet_)
        if (item->enabled() == 1) enabledItems_.push_back(item);
    sessionTaskCount_ = enabledItems_.size() + (shouldPerformCleanup_ ? 1 : 0);

    syncingBackup_ = std::make_unique<FVSyncingBackup>(destinationPath_, backupSet_, backupOptions_, this);
    syncingBackup_->setWillPerformCleanup(shouldPerformCleanup_);
    syncingBackup_->setArchiveFolderName(unusedArchiveStamp(destinationPath_));
    syncingBackup_->addExcludedFiles(excludePaths_);
    syncingBackup_->setDestinationPathsToExcludeFromCleanup(protectedPaths_);
    currentItemIndex_ = UINT64_MAX;
    startNextItem();
}

void FVBackupSession::cancel() {
    FVLog::currentLog().addLogLine("User canceled sync...");
    setTaskDescription(FVStrings::localized("Cancelling"));
    progressStep();
    if (syncingBackup_) syncingBackup_->cancelUpdate();
}

void FVBackupSession::startNextItem() {
    const uint64_t n = enabledItems_.size();
    uint64_t i = currentItemIndex_.load();
    if (!(i == n && !shouldPerformCleanup_)) ++i;  // wraps from "none yet" to 0
    currentItemIndex_ = i;

    if (i != 0 && i - 1 < n) {
        const FVSourceItemPtr& done = enabledItems_[i - 1];
        done->setValue(FVSourceKey::lastBackupDate, PlistDate{FVDate::now()});
        done->setValue(FVSourceKey::totalFilesCount, static_cast<int64_t>(static_cast<int32_t>(syncingBackup_->currentTotalFilesCount())));
        done->setValue(FVSourceKey::updatedFilesCount, static_cast<int64_t>(static_cast<int32_t>(syncingBackup_->currentUpdateCount())));
        done->setValue(FVSourceKey::totalBytesCopied, static_cast<uint64_t>(sessionTotalBytesCopied()));
    }
    if (i < n) {
        const FVSourceItemPtr& item = enabledItems_[i];
        std::string sourcePath = item->sourcePath();
        setTaskDescription(FVStrings::format("progresssyncing", FVText::lastPathComponent(sourcePath)));
        std::optional<int64_t> estimate;
        if (auto stored = item->value(FVSourceKey::totalFilesCount)) estimate = stored->integerValue();
        syncingBackup_->updateTargetPathFromSourcePath(sourcePath, estimate);
        return;
    }
    if (i != n) return;
    if (!shouldPerformCleanup_) {
        finalise();
        return;
    }
    setTaskDescription(FVStrings::localized("progressremoving"));
    int64_t fileCount = 0;
    for (const FVSourceItemPtr& item : backupSet_) fileCount += item->integerValue(FVSourceKey::totalFilesCount);
    syncingBackup_->removeDeletedFilesArchivingFiles(backupOptions_.moveDeletedFiles, static_cast<int32_t>(fileCount));
}

float FVBackupSession::progressPercent() const {
    float n = static_cast<float>(sessionTaskCount_);
    float i = static_cast<float>(currentItemIndex_.load());
    float s = syncingBackup_ ? syncingBackup_->progressStatus() : 0.0f;
    return i * 100.0f / n + s / n;
}

void FVBackupSession::finalise() {
    // The cleanup has run: a confirmation that a source was emptied on purpose is used up.
    for (const FVSourceItemPtr& item : enabledItems_) item->removeValue(FVSourceKey::emptySourceConfirmed);
    bool purgeRemoved = backupOptions_.purgesRemovedArchives();
    bool purgeChanged = backupOptions_.purgesChangedArchives();
    if (purgeRemoved || purgeChanged) {
        setTaskDescription(FVStrings::localized("viewpurgingarchives"));
        progressStep();
    }
    syncingBackup_->purgeRemovedArchive(purgeRemoved, static_cast<int32_t>(backupOptions_.purgeRemovedArchiveDays),
                                        purgeChanged, static_cast<int32_t>(backupOptions_.purgeChangedArchiveDays));
    syncingBackup_->flushDestination();
    FVLog::currentLog().addLogLine(fmt::format("Sync finished (Duration: {}).\n", syncingBackup_->currentDurationString()));
    FVLog::currentLog().closeLog();
    // Released before the delegate hears of the end: it may destroy this session at once.
    sleepInhibitor_.release();
    if (delegate_) delegate_->backupSessionDidFinish(*this);
}

void FVBackupSession::updateTargetDidFinish(FVSyncingBackup&) { startNextItem(); }
void FVBackupSession::cleanupTargetDidFinish(FVSyncingBackup&) { finalise(); }
void FVBackupSession::progressDidChange(FVSyncingBackup&) { progressStep(); }

void FVBackupSession::updateTargetDidCancel(FVSyncingBackup& job) {
    job.flushDestination();
    FVLog::currentLog().addLogLine("Sync cancelled.\n");
    FVLog::currentLog().closeLog();
    setTaskDescription("Cancelled.");
    progressStep();
    sleepInhibitor_.release();
    if (delegate_) delegate_->backupSessionDidCancel(*this);
}

std::vector<std::string> FVBackupSession::errorMessages() const {
    std::vector<std::string> errors = configurationProblems_;
    if (syncingBackup_) {
        std::vector<std::string> job = syncingBackup_->errorMessages();
        errors.insert(errors.end(), job.begin(), job.end());
    }
    return errors;
}

uint64_t FVBackupSession::sessionTotalBytesCopied() const {
    auto worker = syncingBackup_ ? syncingBackup_->backupCopyWorker() : nullptr;
    return worker ? worker->totalBytesCopied() : 0;
}

uint64_t FVBackupSession::sessionRequestedFileCount() const {
    auto worker = syncingBackup_ ? syncingBackup_->backupCopyWorker() : nullptr;
    return worker ? worker->requestedFiles() : 0;
}

uint64_t FVBackupSession::sessionCopiedFileCount() const {
    auto worker = syncingBackup_ ? syncingBackup_->backupCopyWorker() : nullptr;
    return worker ? worker->copiedFiles() : 0;
}

}  // namespace ferrovane
