#include "engine/session/FVBackupPipeline.h"

#include "engine/archive/FVArchivePurge.h"
#include "engine/archive/FVHardLinkWriter.h"
#include "engine/archive/FVMirrorCleanup.h"
#include "engine/archive/FVRunThinning.h"
#include "engine/record/FVRunRecorder.h"
#include "engine/run/FVNumber.h"
#include "fs/FVFileModes.h"
#include "fs/FVFileStatus.h"
#include "fs/FVOwnership.h"

#include <fmt/format.h>

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <unordered_set>

namespace ferrovane {

namespace {
// A stored count of 0 would make the analysis share infinite.
constexpr int64_t kUnknownFileCount = 2000000;
}  // namespace

FVBackupPipeline::FVBackupPipeline(Run run, Listener& listener) : run_(std::move(run)), listener_(listener) {}

bool FVBackupPipeline::run(const std::vector<FVSourceItemPtr>& sources, const std::vector<FVSourceItemPtr>& backupSet) {
    // 1. Unchanged files keep the digests the last run recorded.
    if (run_.recorder) run_.recorder->loadPreviousDigests();

    // 2. Every source item, in list order.
    for (size_t index = 0; index < sources.size(); ++index) {
        FVSourceItem& item = *sources[index];
        listener_.sourceWillStart(item, index);
        std::optional<int64_t> estimate;
        if (auto stored = item.value(FVSourceKey::totalFilesCount)) estimate = stored->integerValue();
        const SourceOutcome outcome = backUpSource(item.sourcePath(), estimate);
        if (outcome == SourceOutcome::Cancelled) return stop();
        listener_.sourceDidFinish(item, index, outcome == SourceOutcome::Unreadable);
    }

    // 3. What vanished from the sources.
    if (run_.settings.willPerformCleanup) {
        listener_.cleanupWillStart();
        // The counts as the items now store them scale the cleanup's progress.
        int64_t storedFileCounts = 0;
        for (const FVSourceItemPtr& item : backupSet) storedFileCounts += item->integerValue(FVSourceKey::totalFilesCount);
        FVMirrorCleanup cleanup(run_.settings, run_.findings, run_.destination, run_.status);
        if (!cleanup.run(backupSet, static_cast<int32_t>(storedFileCounts))) return stop();
    }

    // 4. Archives past their age.
    listener_.purgeWillStart();
    FVArchivePurge(run_.settings, run_.destination, run_.status).run();

    // 5. On the disk first: a record must not vouch for what a power cut could still take.
    flush();
    if (run_.recorder) run_.recorder->finish(FVManifestOutcome::Complete);

    // 6. Only once this run is recorded may older runs go.
    FVRunThinning(run_.settings, run_.destination, run_.status).run();
    return true;
}

FVBackupPipeline::SourceOutcome FVBackupPipeline::backUpSource(const std::string& sourcePath,
                                                               std::optional<int64_t> fileCountEstimation) {
    FVRunStatus& status = run_.status;
    const bool dryRun = run_.settings.dryRun;
    pairsToCopy_ = std::make_shared<FVCopyPairs>(kPendingCopyPairs);
    std::shared_ptr<FVFileCopyWorker> copies = dryRun ? nullptr : run_.makeWorker(sourcePath, pairsToCopy_);
    status.setCurrentWorker(copies);
    status.updateCount = 0;
    // The items the last source item checked now count for the whole run.
    status.tally.addChecked(status.totalFilesCount.exchange(0));
    if (!FVFileStatus::pathExists(sourcePath)) {
        keepUnavailableMirror(sourcePath);
        return SourceOutcome::Unreadable;
    }

    // a and b: the walk pushes onto "pairs to copy" while the copy threads take from it.
    status.log(fmt::format("Source started analysing: {}", sourcePath));
    FVSourceAnalysis analysis(
        run_.settings, run_.findings, status,
        [this](FVFileSystemItemPtr source, FVFileSystemItemPtr destination, FVSourceAnalysis::Work work) {
            handOver(std::move(source), std::move(destination), work);
        },
        run_.recorder);
    if (copies) copies->startCopySession();
    analysis.analyse(sourcePath, fileCountEstimation && *fileCountEstimation > 0 ? *fileCountEstimation
                                                                                : kUnknownFileCount);
    if (!status.isCancelled())
        status.log(fmt::format("Source finished analysing: {} ({} changed).", sourcePath,
                               FVNumber::counted(status.updateCount.load(std::memory_order_relaxed), "item")));
    status.setAnalyseProgress(100);
    status.reportProgress();
    const std::vector<std::string>& unreadable = run_.findings.unreadableSourcePaths;
    const bool sourceUnreadable = std::find(unreadable.begin(), unreadable.end(), sourcePath) != unreadable.end();
    // The walk is done: the copies finish what is queued, then the folders' metadata.
    pairsToCopy_->close();
    if ((copies && !copies->finishCopySession()) || status.isCancelled()) return SourceOutcome::Cancelled;

    // c: the later names, once every first name's copy stands.
    if (!linkLaterNames(sourcePath, analysis.hardLinks())) return SourceOutcome::Cancelled;
    if (!dryRun) run_.unkeptMetadata.check(analysis.hardLinks(), run_.recorder);
    status.setCopyProgress(100);
    status.reportProgress();
    if (sourcePath == "/" && !dryRun) takeRootAttributes();
    const double copied = static_cast<double>(copies ? copies->totalBytesCopied() : 0);
    status.log(fmt::format("Source finished: {} ({} copied).", sourcePath, FVNumber::formattedDiskSizeString(copied)));
    return sourceUnreadable ? SourceOutcome::Unreadable : SourceOutcome::Done;
}

bool FVBackupPipeline::stop() {
    flush();
    if (run_.recorder)
        run_.recorder->finish(run_.status.destinationHasFailed() ? FVManifestOutcome::Failed : FVManifestOutcome::Stopped);
    return false;
}

void FVBackupPipeline::flush() {
    if (run_.settings.dryRun) return;
    const int error = run_.destination.flush();
    if (error == 0) return;
    run_.status.report(FVRunError::atDestination("flushing", error, run_.settings.targetPath,
                                                 fmt::format("Could not write the destination's data to its disk: {}",
                                                             std::strerror(error))));
}

void FVBackupPipeline::handOver(FVFileSystemItemPtr source, FVFileSystemItemPtr destination,
                                FVSourceAnalysis::Work work) {
    using Work = FVSourceAnalysis::Work;
    if (run_.settings.dryRun) {
        if (work == Work::ModeAndOwner) run_.status.planned("Would update mode and owner: " + destination->path());
        else if (work == Work::Copy) reportWouldCopy(*source, *destination);
        return;
    }
    if (work == Work::Copy && source->fileType() != FVFileType::Directory)
        run_.status.queuedForCopy(source->fileSize());
    // Refused once a cancel closed the queue: the walk then stops too.
    pairsToCopy_->push({std::move(source), std::move(destination), work == Work::ModeAndOwner, work == Work::Digest});
}

void FVBackupPipeline::reportWouldCopy(FVFileSystemItem& source, FVFileSystemItem& destination) {
    FVRunStatus& status = run_.status;
    status.planned("Would copy: " + source.path());
    if (source.fileType() != FVFileType::Directory) status.tally.add(FVItemChange::Copied, source.fileSize());
    // The copy archives whatever it replaces, except a folder's metadata applied to a folder; a
    // folder replaced by anything else goes the way of a removed folder.
    if (!destination.fileExists() || (!source.isFile() && destination.fileType() == FVFileType::Directory)) return;
    const bool replacedFolder = destination.fileType() == FVFileType::Directory;
    const FVOptions& options = run_.settings.options;
    if (replacedFolder ? options.moveDeletedFiles : options.moveChangedFiles) {
        status.planned("Would archive: " + destination.path());
        status.tally.add(FVItemChange::Archived);
    } else if (replacedFolder) {
        status.planned("Would remove: " + destination.path());
        status.tally.add(FVItemChange::Deleted);
    }
}

// The first names' copies are published now; names that cannot be links are copied after all.
bool FVBackupPipeline::linkLaterNames(const std::string& sourcePath, const FVHardLinkGroups& groups) {
    FVRunStatus& status = run_.status;
    FVHardLinkWriter writer(run_.settings, run_.destination, run_.changedFileArchive, status);
    auto copies = writer.run(groups.requests());
    if (run_.recorder && !status.isCancelled()) recordLaterNames(groups, copies);
    if (copies.empty()) return !status.isCancelled();
    auto laterNamesToCopy = std::make_shared<FVCopyPairs>(kPendingCopyPairs);
    std::shared_ptr<FVFileCopyWorker> worker = run_.makeWorker(sourcePath, laterNamesToCopy);
    status.setCurrentWorker(worker);
    worker->startCopySession();
    for (auto& [source, destination] : copies) laterNamesToCopy->push({source, destination});
    laterNamesToCopy->close();
    return worker->finishCopySession() && !status.isCancelled();
}

// Names linked to their first name's copy; those that could not be links are copied, and the
// copy threads record them.
void FVBackupPipeline::recordLaterNames(const FVHardLinkGroups& groups,
                                        const std::vector<FVHardLinkWriter::CopyPair>& copies) {
    std::unordered_set<std::string> copied;
    for (const auto& [source, destination] : copies) copied.insert(destination->path());
    const FVMirrorLayout layout = run_.settings.layout();
    for (const FVHardLinkGroups::Request& request : groups.requests()) {
        const std::string& path = request.destination->path();
        if (copied.contains(path)) continue;
        if (std::optional<std::string> relative = layout.relativePathOfDestinationPath(path))
            run_.recorder->recordLaterName(*relative, request.source->path(), request.source->statBuffer());
    }
}

void FVBackupPipeline::keepUnavailableMirror(const std::string& sourcePath) {
    run_.status.log(fmt::format("Source: {} (UNAVAILABLE AND NOT UPDATED).", sourcePath));
    // Its mirror stays as it was: recorded as not brought up to date.
    struct stat mirror {};
    const std::string mirrorPath = run_.settings.itemTargetPath(sourcePath);
    if (run_.recorder && FVFileStatus::lstat(mirrorPath.c_str(), &mirror) == 0)
        run_.recorder->recordNotUpdated(run_.settings.layout().mirrorRelativePath(sourcePath), mirrorPath, mirror);
}

void FVBackupPipeline::takeRootAttributes() {
    struct stat st {};
    if (FVFileStatus::lstat("/", &st) != 0) return;
    const std::string& target = run_.settings.targetPath;
    int ignored = FVOwnership::lchown(target.c_str(), st.st_uid, st.st_gid);
    (void)ignored;
    FVFileModes::chmod(target.c_str(), st.st_mode & 07777);
}

}  // namespace ferrovane
