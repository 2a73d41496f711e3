#include "engine/session/FVSyncingBackup.h"
#include "fs/FVMountTable.h"

#include "FVVersion.h"
#include "engine/analysis/FVSourceAnalysis.h"
#include "engine/archive/FVArchivePurge.h"
#include "engine/archive/FVHardLinkWriter.h"
#include "engine/archive/FVMirrorCleanup.h"
#include "engine/archive/FVRunThinning.h"
#include "engine/record/FVRunRecorder.h"
#include "engine/run/FVDate.h"
#include "engine/run/FVLog.h"
#include "engine/run/FVNumber.h"
#include "engine/run/FVStrings.h"
#include "fs/FVDestinationProbe.h"
#include "fs/FVFileModes.h"
#include "fs/FVFileStatus.h"
#include "fs/FVOwnership.h"
#include "fs/FVTestHook.h"
#include "fs/FVText.h"
#include "platform/FVMountWatcher.h"

#include <fmt/format.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include <unordered_set>


namespace ferrovane {

namespace {

// Network folders mounted over WebDAV collect ".DS_Store" files that must not be mirrored.
bool isWebDAV(const std::string& fstype) {
    return fstype == "davfs" || fstype == "fuse.davfs" || fstype == "webdav";
}

FVRunSettings withDestinationIdentity(FVRunSettings settings) {
    settings.identifyDestination();
    return settings;
}

// A stored count of 0 would make the analysis share infinite.
constexpr int64_t kUnknownFileCount = 2000000;

}  // namespace

FVSyncingBackup::FVSyncingBackup(FVRunSettings settings, std::vector<std::string> excludedFiles,
                                 std::function<void()> progressChanged)
    : settings_(withDestinationIdentity(std::move(settings))),
      status_(settings_.options.performExtendedLogging, std::move(progressChanged)),
      destination_(settings_.targetPath), changedFileArchive_(settings_, destination_, status_) {
    status_.setPlannedChangeListener(settings_.reportPlannedChange);
    mountWatcher_ = FVMountWatcher::start([this](const std::string& mountPoint) { checkVolumeDidUnmount(mountPoint); });

    FVLog::currentLog().newLog();
    const std::string fstype = FVMountTable::fileSystemTypeAtPath(settings_.targetPath);
    if (isWebDAV(fstype)) findings_.excludedFiles.push_back(".DS_Store");
    findings_.excludedFiles.insert(findings_.excludedFiles.end(), excludedFiles.begin(), excludedFiles.end());
    status_.log(fmt::format("Ferrovane {}({}) starting sync to: {} ({})", FERROVANE_VERSION, FERROVANE_BUILD_NUMBER,
                            settings_.targetPath, fstype));
    const FVDestinationProfile& profile = settings_.destinationProfile;
    status_.log("Destination file system: " + FVDestinationProbe::describe(profile));
    // Said once here rather than as a warning on every file it applies to.
    if (!profile.keepsOwners || !profile.keepsModes) {
        notes_.push_back(fmt::format(
            "The destination ({}) cannot keep {}: its copies have the file system's own, and a restore from it "
            "gives the restoring user's.",
            profile.fileSystemType, !profile.keepsOwners && !profile.keepsModes ? "owners and modes"
                                    : !profile.keepsOwners                       ? "owners"
                                                                                 : "modes"));
        status_.log("NOTE: " + notes_.back());
    }
    initTimeStamp_ = FVDate::now();
    // The benchmark's switch, to time runs without their record; nothing else sets it.
    if (!settings_.dryRun && !std::getenv("FERROVANE_NO_RUN_RECORD"))
        recorder_ = std::make_unique<FVRunRecorder>(settings_, settings_.recordedSources, status_);

    const FVOptions& options = settings_.options;
    std::string configuration = "Configuration: ";
    configuration += settings_.syncMode() ? "Default; " : "Rebuild source path; ";
    if (options.ignoreFileFlagChanges) configuration += "Ignore changes to extended attributes; ";
    if (options.disableACLClone) configuration += "ACL disabled; ";
    if (options.preallocate) configuration += "Preallocation enabled; ";
    if (options.excludeSymlinks) configuration += "Excluding symlinks; ";
    configuration += fmt::format("Threads: {};", static_cast<unsigned long>(options.maxThreads));
    status_.log(configuration);
}

FVSyncingBackup::~FVSyncingBackup() {
    mountWatcher_.reset();
    status_.setCurrentWorker(nullptr);
}

std::shared_ptr<FVFileCopyWorker> FVSyncingBackup::makeWorker(const std::string& sourcePath) {
    auto worker = std::make_shared<FVFileCopyWorker>();
    worker->setDelegate(this);
    worker->setVerboseLogging(settings_.options.performExtendedLogging);
    worker->setMaxThreads(settings_.options.maxThreads);
    worker->setDisableACLClone(settings_.options.disableACLClone);
    worker->setPreallocate(settings_.options.preallocate);
    worker->setDestinationProfile(settings_.destinationProfile);
    worker->setDestinationRoot(settings_.targetPath);
    worker->setSourceRoot(sourcePath);
    worker->setRecordsCopies(recorder_ != nullptr);
    return worker;
}

bool FVSyncingBackup::backUpSourceItem(const std::string& sourcePath, std::optional<int64_t> fileCountEstimation) {
    std::shared_ptr<FVFileCopyWorker> worker = settings_.dryRun ? nullptr : makeWorker(sourcePath);
    status_.setCurrentWorker(worker);
    status_.updateCount = 0;
    // The items the last source item checked now count for the whole run.
    status_.tally.addChecked(status_.totalFilesCount.exchange(0));
    lastSourceUnreadable_ = !FVFileStatus::pathExists(sourcePath);
    if (lastSourceUnreadable_) {
        status_.log(fmt::format("Source: {} (UNAVAILABLE AND NOT UPDATED).", sourcePath));
        // Its mirror stays as it was: recorded as not brought up to date.
        struct stat mirror {};
        const std::string mirrorPath = settings_.itemTargetPath(sourcePath);
        if (recorder_ && FVFileStatus::lstat(mirrorPath.c_str(), &mirror) == 0)
            recorder_->recordNotUpdated(settings_.layout().mirrorRelativePath(sourcePath), mirrorPath, mirror);
        return true;
    }
    status_.log(fmt::format("Source started analysing: {}", sourcePath));
    FVSourceAnalysis analysis(settings_, findings_, status_,
                              [this, &worker](FVFileSystemItemPtr source, FVFileSystemItemPtr destination,
                                              FVSourceAnalysis::Work work) {
                                  using Work = FVSourceAnalysis::Work;
                                  if (worker && work == Work::Digest)
                                      worker->addDigestItem(std::move(source), std::move(destination));
                                  else if (worker) {
                                      if (work == Work::Copy && source->fileType() != FVFileType::Directory)
                                          status_.queuedForCopy(source->fileSize());
                                      worker->addCopyItemFromSource(std::move(source), std::move(destination),
                                                                    work == Work::ModeAndOwner);
                                  }
                                  else if (work == Work::ModeAndOwner)
                                      status_.planned("Would update mode and owner: " + destination->path());
                                  else if (work == Work::Copy)
                                      reportWouldCopy(*source, *destination);
                              },
                              recorder_.get());
    if (worker) worker->startCopySession();
    analysis.analyse(sourcePath, fileCountEstimation && *fileCountEstimation > 0 ? *fileCountEstimation : kUnknownFileCount);
    if (!status_.isCancelled())
        status_.log(fmt::format("Source finished analysing: {} ({} changed).", sourcePath,
                                FVNumber::counted(currentUpdateCount(), "item")));
    status_.setAnalyseProgress(100);
    status_.reportProgress();
    const std::vector<std::string>& unreadable = findings_.unreadableSourcePaths;
    lastSourceUnreadable_ = std::find(unreadable.begin(), unreadable.end(), sourcePath) != unreadable.end();

    if (worker ? waitForCopies(*worker) : status_.isCancelled()) return false;
    if (!linkLaterNames(sourcePath, analysis.hardLinks())) return false;
    status_.setCopyProgress(100);
    status_.reportProgress();
    if (sourcePath == "/" && !settings_.dryRun) {
        // A clone of the whole system: the destination root takes the root folder's attributes.
        struct stat st {};
        if (FVFileStatus::lstat("/", &st) == 0) {
            int ignored = FVOwnership::lchown(settings_.targetPath.c_str(), st.st_uid, st.st_gid);
            (void)ignored;
            FVFileModes::chmod(settings_.targetPath.c_str(), st.st_mode & 07777);
        }
    }
    status_.log(fmt::format("Source finished: {} ({} copied).", sourcePath,
                            FVNumber::formattedDiskSizeString(static_cast<double>(worker ? worker->totalBytesCopied() : 0))));
    return true;
}

// The first names' copies are published now; names that cannot be links are copied after all.
bool FVSyncingBackup::linkLaterNames(const std::string& sourcePath, const FVHardLinkGroups& groups) {
    auto copies = FVHardLinkWriter(settings_, destination_, changedFileArchive_, status_).run(groups.requests());
    if (recorder_ && !status_.isCancelled()) recordLaterNames(groups, copies);
    if (copies.empty()) return !status_.isCancelled();
    auto worker = makeWorker(sourcePath);
    status_.setCurrentWorker(worker);
    worker->startCopySession();
    for (auto& [source, destination] : copies) worker->addCopyItemFromSource(source, destination);
    return !waitForCopies(*worker);
}

// Names linked to their first name's copy; those that could not be links are copied, and the
// copy threads record them.
void FVSyncingBackup::recordLaterNames(const FVHardLinkGroups& groups,
                                       const std::vector<std::pair<FVFileSystemItemPtr, FVFileSystemItemPtr>>& copies) {
    std::unordered_set<std::string> copied;
    for (const auto& [source, destination] : copies) copied.insert(destination->path());
    const FVMirrorLayout layout = settings_.layout();
    for (const FVHardLinkGroups::Request& request : groups.requests()) {
        const std::string& path = request.destination->path();
        if (copied.contains(path)) continue;
        if (std::optional<std::string> relative = layout.relativePathOfDestinationPath(path))
            recorder_->recordLaterName(*relative, request.source->path(), request.source->statBuffer());
    }
}

void FVSyncingBackup::loadPreviousRecord() {
    if (recorder_) recorder_->loadPreviousDigests();
}

void FVSyncingBackup::finishRecord(bool stopped) {
    if (!recorder_) return;
    recorder_->finish(!stopped ? FVManifestOutcome::Complete
                      : status_.destinationHasFailed() ? FVManifestOutcome::Failed
                                                       : FVManifestOutcome::Stopped);
}

std::vector<std::string> FVSyncingBackup::warnings() const {
    std::string warning = recorder_ ? recorder_->warning() : std::string();
    return warning.empty() ? std::vector<std::string>() : std::vector<std::string>{warning};
}

void FVSyncingBackup::reportWouldCopy(FVFileSystemItem& source, FVFileSystemItem& destination) {
    status_.planned("Would copy: " + source.path());
    if (source.fileType() != FVFileType::Directory) status_.tally.add(FVItemChange::Copied, source.fileSize());
    // The copy archives whatever it replaces, except a folder's metadata applied to a folder; a
    // folder replaced by anything else goes the way of a removed folder.
    if (!destination.fileExists() || (!source.isFile() && destination.fileType() == FVFileType::Directory)) return;
    const bool replacedFolder = destination.fileType() == FVFileType::Directory;
    if (replacedFolder ? settings_.options.moveDeletedFiles : settings_.options.moveChangedFiles) {
        status_.planned("Would archive: " + destination.path());
        status_.tally.add(FVItemChange::Archived);
    } else if (replacedFolder) {
        status_.planned("Would remove: " + destination.path());
        status_.tally.add(FVItemChange::Deleted);
    }
}

bool FVSyncingBackup::waitForCopies(FVFileCopyWorker& worker) {
    {
        std::lock_guard lock(copiesMutex_);
        copiesEnding_ = true;
        copiesCancelled_.reset();
    }
    // Once the session has ended, the worker's last thread (or endCopySession itself, when none
    // is left) reports the end exactly once more.
    worker.endCopySession();
    std::unique_lock lock(copiesMutex_);
    copiesEndedCondition_.wait(lock, [this] { return copiesCancelled_.has_value(); });
    copiesEnding_ = false;
    return *copiesCancelled_;
}

void FVSyncingBackup::copiesEnded(bool cancelled) {
    std::lock_guard lock(copiesMutex_);
    // An earlier batch of threads that ended on a cancellation is followed by the final report.
    if (!copiesEnding_) return;
    copiesCancelled_ = cancelled;
    copiesEndedCondition_.notify_all();
}

bool FVSyncingBackup::removeDeletedFiles(const std::vector<FVSourceItemPtr>& backupSet, int32_t cleanupFileCount) {
    return FVMirrorCleanup(settings_, findings_, destination_, status_).run(backupSet, cleanupFileCount);
}

void FVSyncingBackup::purgeArchives() { FVArchivePurge(settings_, destination_, status_).run(); }

void FVSyncingBackup::thinRuns() { FVRunThinning(settings_, destination_, status_).run(); }

void FVSyncingBackup::flushDestination() {
    if (settings_.dryRun) return;
    int error = destination_.flush();
    if (error == 0) return;
    status_.report(FVRunError::atDestination("flushing", error, settings_.targetPath,
                                             fmt::format("Could not write the destination's data to its disk: {}",
                                                         std::strerror(error))));
}

void FVSyncingBackup::checkVolumeDidUnmount(const std::string& mountPoint) {
    // Whole components: unmounting /mnt/backup says nothing about /mnt/backup2.
    if (mountPoint != "/" && FVText::isPathWithin(settings_.targetPath, mountPoint)) {
        status_.log("\nDestination volume unmounted unexpectedly!\n");
        status_.reportDestinationFailure(fmt::format("Aborting: Destination unmounted unexpectedly ({}).", mountPoint));
        cancelUpdate();
    }
    // Once the unmount is handled: tests hold a run until then.
    FVTestHook::reach("unmount-seen", mountPoint);
}

FVRunTotals FVSyncingBackup::totals() const {
    FVRunTotals totals = status_.tally.totals();
    totals.checked += currentTotalFilesCount();
    return totals;
}

std::string FVSyncingBackup::currentDurationString() const {
    double elapsed = FVDate::now() - initTimeStamp_;
    auto whole = static_cast<long long>(elapsed);
    if (whole >= 60) return FVStrings::format("currentDurationMinutesSeconds", whole / 60, whole % 60);
    return FVStrings::format("currentDurationSeconds", elapsed);
}

bool FVSyncingBackup::copyWorkerWillOverwriteDestination(FVFileSystemItem& destination) {
    return changedFileArchive_.archiveBeforeOverwrite(destination);
}

void FVSyncingBackup::copyWorkerProgressDidChange(float fraction) {
    status_.setCopiedFilesShare(fraction * 100.0f);
    status_.reportProgress();
}

void FVSyncingBackup::copyWorkerDidWriteData(const std::string& sourcePath, uint64_t bytes) {
    status_.dataWritten(sourcePath, bytes);
}

void FVSyncingBackup::copyWorkerDidGenerateMessage(const std::string& message, FVMessageLevel level) {
    status_.log(message);
    if (level == FVMessageLevel::Error) status_.addError(message);
}

void FVSyncingBackup::copyWorkerDestinationDidFail(const FVDestinationFailure& failure) {
    status_.destinationFailed(failure);
}

void FVSyncingBackup::copyWorkerDidRecordItem(const FVCopyRecord& record) {
    if (recorder_) recorder_->recordCopy(record);
}

void FVSyncingBackup::copyWorkerDidPublishItem(const std::string& sourcePath, uint64_t bytes) {
    status_.changed(FVItemChange::Copied, sourcePath, bytes);
}

void FVSyncingBackup::copyWorkerDidFinishCopy() { copiesEnded(status_.isCancelled()); }

void FVSyncingBackup::copyWorkerDidCancel() { copiesEnded(true); }

}  // namespace ferrovane
