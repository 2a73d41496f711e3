#include "engine/FVSyncingBackup.h"

#include "FVVersion.h"
#include "engine/FVAdditions.h"
#include "engine/FVLog.h"
#include "engine/FVStrings.h"
#include "fs/FVText.h"
#include "platform/FVMountWatcher.h"

#include <fmt/format.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>

namespace ferrovane {

namespace {
// Network folders mounted over WebDAV collect ".DS_Store" files that must not be mirrored.
bool isWebDAV(const std::string& fstype) {
    return fstype == "davfs" || fstype == "fuse.davfs" || fstype == "webdav";
}
}  // namespace

FVSyncingBackup::FVSyncingBackup(std::string destinationPath, std::vector<FVSourceItemPtr> backupSet,
                                 const FVOptions& options, FVSyncingBackupObserver* observer)
    : observer_(observer), targetPath_(std::move(destinationPath)), destination_(targetPath_),
      backupSet_(std::move(backupSet)), syncMode_(options.syncMode != 0),
      ignoreFileFlagChanges_(options.ignoreFileFlagChanges), verboseLogging_(options.performExtendedLogging),
      archiveChangedFiles_(options.moveChangedFiles), disableACLClone_(options.disableACLClone),
      preallocate_(options.preallocate), excludeSymlinks_(options.excludeSymlinks), maxThreads_(options.maxThreads) {
    mountWatcher_ = FVMountWatcher::start([this](const std::string& mountPoint) { checkVolumeDidUnmount(mountPoint); });

    FVLog::currentLog().newLog();
    struct stat destination {};
    if (stat(targetPath_.c_str(), &destination) == 0) {
        destinationDevice_ = destination.st_dev;
        destinationInode_ = destination.st_ino;
    }
    fstype_ = FVFileManager::filesystemTypeAtPath(targetPath_);
    if (isWebDAV(fstype_)) excludedFiles_.push_back(".DS_Store");
    logLine(fmt::format("Ferrovane {}({}) starting sync to: {} ({})", FERROVANE_VERSION, FERROVANE_BUILD_NUMBER,
                        targetPath_, fstype_));
    initTimeStamp_ = FVDate::now();

    std::string configuration = "Configuration: ";
    configuration += syncMode_ ? "Default; " : "Rebuild source path; ";
    if (ignoreFileFlagChanges_) configuration += "Ignore changes to extended attributes; ";
    if (disableACLClone_) configuration += "ACL disabled; ";
    if (preallocate_) configuration += "Preallocation enabled; ";
    if (excludeSymlinks_) configuration += "Excluding symlinks; ";
    configuration += fmt::format("Threads: {};", static_cast<unsigned long>(maxThreads_));
    logLine(configuration);
}

FVSyncingBackup::~FVSyncingBackup() { mountWatcher_.reset(); }

void FVSyncingBackup::addExcludedFiles(const std::vector<std::string>& patterns) {
    excludedFiles_.insert(excludedFiles_.end(), patterns.begin(), patterns.end());
}

void FVSyncingBackup::logLine(const std::string& line) { FVLog::currentLog().addLogLine(line); }

void FVSyncingBackup::verboseLog(const std::string& line) {
    if (verboseLogging_) logLine(line);
}

void FVSyncingBackup::addError(std::string message) {
    std::lock_guard lock(errorsMutex_);
    errorMessages_.push_back(std::move(message));
}

std::vector<std::string> FVSyncingBackup::errorMessages() const {
    std::lock_guard lock(errorsMutex_);
    return errorMessages_;
}

std::shared_ptr<FVFileCopyWorker> FVSyncingBackup::backupCopyWorker() const {
    std::lock_guard lock(workerMutex_);
    return backupCopyWorker_;
}

void FVSyncingBackup::cancelUpdate() {
    if (auto worker = backupCopyWorker()) worker->cancel();
    logLine("Aborting sync...");
    cancelUpdate_.store(true, std::memory_order_relaxed);
}

void FVSyncingBackup::flushDestination() {
    int error = 0;
    FVFd root = destination_.openFolder("", false, &error);
    if (root.valid() && syncfs(root.get()) == 0) return;
    if (root.valid()) error = errno;
    std::string message = fmt::format("Could not write the destination's data to its disk: {}", std::strerror(error));
    logLine("ERROR: " + message);
    addError(message);
}

void FVSyncingBackup::checkVolumeDidUnmount(const std::string& mountPoint) {
    // Whole components: unmounting /mnt/backup says nothing about /mnt/backup2.
    if (mountPoint == "/" || !FVText::isPathWithin(targetPath_, mountPoint)) return;
    logLine("\nDestination volume unmounted unexpectedly!\n");
    addError(fmt::format("Aborting: Destination unmounted unexpectedly ({}).", mountPoint));
    cancelUpdate();
}

void FVSyncingBackup::postCancelOnce() {
    if (!cancelReported_.exchange(true)) observer_->updateTargetDidCancel(*this);
}

float FVSyncingBackup::progressStatus() const {
    float p = (analyseProgressStatus_.load(std::memory_order_relaxed) +
               copyProgressStatus_.load(std::memory_order_relaxed)) * 0.5f;
    return p > 100.0f ? 100.0f : p;
}

void FVSyncingBackup::reportProgress() {
    float p = (analyseProgressStatus_.load(std::memory_order_relaxed) +
               copyProgressStatus_.load(std::memory_order_relaxed)) * 0.5f;
    if (std::fabs(p - lastReportedProgress_.load(std::memory_order_relaxed)) > 0.1f) {
        lastReportedProgress_.store(p, std::memory_order_relaxed);
        observer_->progressDidChange(*this);
    }
}

std::string FVSyncingBackup::currentDurationString() const {
    double elapsed = FVDate::now() - initTimeStamp_;
    auto whole = static_cast<long long>(elapsed);
    if (whole >= 60) return FVStrings::format("currentDurationMinutesSeconds", whole / 60, whole % 60);
    return FVStrings::format("currentDurationSeconds", elapsed);
}

}  // namespace ferrovane
