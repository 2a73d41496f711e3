#include "engine/session/FVBackupSession.h"

#include "engine/analysis/FVExclusionRules.h"
#include "engine/config/FVConfigurationFile.h"
#include "engine/record/FVRunRecords.h"
#include "engine/record/FVVersionCatalog.h"
#include "engine/run/FVDate.h"
#include "engine/run/FVDestinationFailure.h"
#include "engine/run/FVLog.h"
#include "engine/run/FVRunError.h"
#include "engine/run/FVStrings.h"
#include "fs/FVDestinationProbe.h"
#include "fs/FVFileStatus.h"
#include "fs/FVFolderContents.h"
#include "fs/FVTestHook.h"
#include "fs/FVText.h"
#include "platform/FVSystemLog.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <optional>

namespace ferrovane {

namespace {

// The newest time that a stamp folder in the destination's archives or a run's record stands
// for; 0 for none.
std::time_t newestStamp(const FVMirrorLayout& layout) {
    std::time_t newest = 0;
    const FVVersionCatalog catalog(layout);
    for (FVArchiveKind kind : {FVArchiveKind::Changed, FVArchiveKind::Removed})
        for (const FVVersionCatalog::ArchiveStamp& stamp : catalog.stamps(kind)) newest = std::max(newest, stamp.time);
    for (const FVRunRecord& run : FVRunRecords(layout.destination()).list()) newest = std::max(newest, run.time);
    return newest;
}

// The stamp of the run's archive folders and record: now, or, when an earlier run's stamp is at or after
// now, the second after the newest stamp. So stamp order is run order, whatever the clock did
// (set back, a wrong time zone, another machine writing to the same disk), and the versions of
// a path sort by the run that archived them. Two runs within one second (a scheduled run right
// after a manual one) never share a stamp folder, or the second one's archive moves would meet
// the first one's versions.
std::string unusedArchiveStamp(const FVMirrorLayout& layout) {
    std::time_t at = std::max(std::time(nullptr), newestStamp(layout) + 1);
    const FVRunRecords records(layout.destination());
    for (int tries = 0; tries < 3600; ++tries, ++at) {
        std::string stamp = FVDate::archiveStamp(at);
        if (FVFileStatus::existenceAtPath(layout.archiveFolder(FVArchiveKind::Changed, stamp)) == FVExistence::Missing &&
            FVFileStatus::existenceAtPath(layout.archiveFolder(FVArchiveKind::Removed, stamp)) == FVExistence::Missing &&
            FVFileStatus::existenceAtPath(records.pathOf(stamp)) == FVExistence::Missing)
            return stamp;
    }
    return FVDate::archiveStamp(at);
}

}  // namespace

FVBackupSession::~FVBackupSession() {
    if (driver_.joinable()) {
        if (driver_.get_id() == std::this_thread::get_id()) driver_.detach();
        else driver_.join();
    }
    job_.store(nullptr);
    syncingBackup_.reset();
}

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
    startedAt_ = FVDate::now();
    FVRunSettings settings;
    settings.targetPath = destinationPath_;
    settings.options = backupOptions_;
    // Sources that would share or overlap a mirror, or land on a name the destination keeps, would
    // make each run remove the other's files: nothing is touched then. What the destination shows
    // without a write decides first; the trials below can only add that it ignores case.
    const FVMirrorLayout layout = FVMirrorLayout::fromItems(destinationPath_, settings.syncMode(), backupSet_);
    FVDestinationProbe probe(destinationPath_, FVMirrorLayout::kProbeFolder);
    settings.destinationProfile = probe.probeWithoutWriting(FVConfigurationFile::fileName);
    if (std::optional<std::string> problem = layout.validate(settings.destinationProfile)) return refuse(*problem);
    // Before anything is written. A dry run writes nothing, so it only looks.
    if (!dryRun_) settings.destinationProfile = probe.probe();
    if (FVRunError::isFatal(probe.problemError()))
        return refuse(FVDestinationFailure(probe.problemError(), "probing", destinationPath_).message());
    if (std::optional<std::string> problem = layout.validate(settings.destinationProfile)) return refuse(*problem);

    sleepProblem_.clear();
    if (!sleepInhibitor_.acquire("Ferrovane is syncing files.")) {
        FVSystemLog::error("FVBackupSession", "Sleep prevention failed...");
        sleepProblem_ = sleepInhibitor_.problem();
    }
    setTaskDescription("");
    shouldPerformCleanup_ = FVFolderContents::pathContainsUserFilePaths(destinationPath_);
    enabledItems_.clear();
    for (const FVSourceItemPtr& item : backupSet_)
        if (item->mode() == FVSourceMode::Backup) enabledItems_.push_back(item);
    sessionTaskCount_ = enabledItems_.size() + (shouldPerformCleanup_ ? 1 : 0);

    settings.archiveFolderName = unusedArchiveStamp(layout);
    FVLog::currentLog().setRunContext(destinationPath_, settings.archiveFolderName);
    for (const FVSourceItemPtr& item : enabledItems_) settings.recordedSources.push_back(item->sourcePath());
    // A clone of "/" (also a disabled one, which may be enabled again) keeps the destination's own files.
    for (const FVSourceItemPtr& item : backupSet_)
        if (item->mode() <= FVSourceMode::Backup && item->sourcePath() == "/")
            settings.protectedPaths = FVExclusionRules::rootCloneProtectedPaths();
    settings.willPerformCleanup = shouldPerformCleanup_;
    settings.dryRun = dryRun_;
    if (dryRun_)
        settings.reportPlannedChange = [this](const std::string& line) {
            if (delegate_) delegate_->backupSessionWouldChange(*this, line);
        };
    runSettings_ = std::move(settings);
    probeProblem_ = probe.problem();
    currentItemIndex_ = 0;
    planningStatus_.setQuiet(true);
    room_ = std::make_unique<FVRoomForRun>(runSettings_, excludePaths_, planningStatus_, runSettings_.reportPlannedChange);
    hooks_ = FVRunHooks(backupOptions_, hookApprovals_, [this](std::string_view line) {
        if (delegate_) delegate_->backupSessionHookDidPrint(*this, line);
    });
    hookRun_ = {destinationPath_, runSettings_.archiveFolderName, trigger_, dryRun_};
    const bool fits = room_->fitsWhateverItWrites();
    if (fits && !hooks_.hasBefore()) {
        FVTestHook::reach("space-checked", destinationPath_);
        beginJob();
        driver_ = std::thread([this] { run(); });
        return;
    }
    // The before-hook and the look ahead (which walks the sources) take their time: on the run's thread.
    driver_ = std::thread([this, fits] {
        if (!runBeforeHook()) return;
        if (fits) FVTestHook::reach("space-checked", destinationPath_);
        else if (!makeRoom()) return;
        beginJob();
        run();
    });
}

bool FVBackupSession::runBeforeHook() {
    if (!hooks_.hasBefore()) return true;
    FVLog& log = FVLog::currentLog();
    log.newLog();
    setTaskDescription("Running the before-hook...");
    progressStep();
    std::optional<std::string> skip = hooks_.runBefore(hookRun_, [this] { return cancelRequested_.load(); });
    if (skip) {
        refusal_ = *skip;
        skippedByBeforeHook_.store(true);
        logSummary(true);
        log.addLogLine("Sync skipped: nothing was changed.\n");
        log.closeLog();
        setTaskDescription("Skipped: the before-hook failed.");
        sleepInhibitor_.release();
        if (delegate_) delegate_->backupSessionDidCancel(*this);
        return false;
    }
    if (cancelRequested_.load()) {
        endCancelled("Sync cancelled before copying.\n");
        return false;
    }
    return true;
}

void FVBackupSession::runAfterHook(const char* outcome) {
    if (!hooks_.hasAfter()) return;
    FVHookRunEnd end;
    end.outcome = outcome;
    end.errors = errorMessages().size();
    const FVRunTotals done = totals();
    end.filesCopied = done.copied;
    end.bytesCopied = done.bytesCopied;
    end.logFile = FVLog::logFilePath();
    setTaskDescription("Running the after-hook...");
    progressStep();
    hooks_.runAfter(hookRun_, end);
}

void FVBackupSession::beginJob() {
    syncingBackup_ = std::make_unique<FVSyncingBackup>(runSettings_, excludePaths_, [this] { progressStep(); });
    syncingBackup_->setItemListener(itemListener_);
    job_.store(syncingBackup_.get());
    // A cancel that came while the job did not exist yet.
    if (cancelRequested_.load()) syncingBackup_->cancelUpdate();
    if (!probeProblem_.empty())
        FVLog::currentLog().addLogLine(fmt::format(
            "NOTE: The destination could not be probed ({}); assuming what its type can hold.", probeProblem_));
}

bool FVBackupSession::makeRoom() {
    FVLog::currentLog().newLog();
    setTaskDescription(FVStrings::localized("progresscheckingspace"));
    progressStep();
    FVRoomVerdict verdict = room_->make();
    roomWarnings_ = std::move(verdict.warnings);
    roomNotes_ = std::move(verdict.notes);
    if (cancelRequested_.load()) {
        endCancelled("Sync cancelled before copying.\n");
        return false;
    }
    if (!verdict.fits) {
        stopForSpace(verdict.problem);
        return false;
    }
    FVTestHook::reach("space-checked", destinationPath_);
    return true;
}

void FVBackupSession::cancel() {
    FVLog::currentLog().addLogLine("User canceled sync...");
    setTaskDescription(FVStrings::localized("Cancelling"));
    progressStep();
    cancelRequested_.store(true);
    planningStatus_.cancel();
    if (FVSyncingBackup* job = job_.load()) job->cancelUpdate();
}

void FVBackupSession::run() {
    if (!syncingBackup_->run(enabledItems_, backupSet_, *this)) return endCancelled("Sync cancelled.\n");
    finish();
}

void FVBackupSession::sourceWillStart(const FVSourceItem& item, size_t index) {
    setTaskDescription(FVStrings::format("progresssyncing", FVText::lastPathComponent(item.sourcePath())));
    itemInProgress_ = static_cast<int64_t>(index);
}

void FVBackupSession::sourceDidFinish(FVSourceItem& item, size_t index, bool unreadable) {
    currentItemIndex_ = index + 1;
    if (unreadable) recordUnreadable(item);
    else recordResults(item);
    itemInProgress_ = -1;
}

void FVBackupSession::cleanupWillStart() { setTaskDescription(FVStrings::localized("progressremoving")); }

void FVBackupSession::purgeWillStart() {
    if (!backupOptions_.purgesRemovedArchives() && !backupOptions_.purgesChangedArchives() &&
        !backupOptions_.retentionEnabled)
        return;
    setTaskDescription(FVStrings::localized("viewpurgingarchives"));
    progressStep();
}

void FVBackupSession::recordResults(FVSourceItem& item) const {
    if (dryRun_) return;
    item.setValue(FVSourceKey::lastBackupDate, PlistDate{FVDate::now()});
    item.setValue(FVSourceKey::totalFilesCount, static_cast<int64_t>(static_cast<int32_t>(syncingBackup_->currentTotalFilesCount())));
    item.setValue(FVSourceKey::updatedFilesCount, static_cast<int64_t>(static_cast<int32_t>(syncingBackup_->currentUpdateCount())));
    item.setValue(FVSourceKey::totalBytesCopied, static_cast<uint64_t>(sessionTotalBytesCopied()));
    item.removeValue(FVSourceKey::lastUnreadableDate);
}

void FVBackupSession::recordUnreadable(FVSourceItem& item) const {
    if (!dryRun_) item.setValue(FVSourceKey::lastUnreadableDate, PlistDate{FVDate::now()});
}

std::string FVBackupSession::interruptedSourcePath() const {
    const int64_t index = itemInProgress_.load();
    return index >= 0 && static_cast<size_t>(index) < enabledItems_.size() ? enabledItems_[static_cast<size_t>(index)]->sourcePath()
                                                                          : std::string();
}

std::string FVBackupSession::destinationFailure() const {
    FVSyncingBackup* job = syncingBackup();
    return job ? job->destinationFailureMessage() : std::string();
}

float FVBackupSession::progressPercent() const {
    float n = static_cast<float>(sessionTaskCount_);
    float i = static_cast<float>(currentItemIndex_.load());
    FVSyncingBackup* job = syncingBackup();
    float s = job ? job->progressStatus() : 0.0f;
    return i * 100.0f / n + s / n;
}

void FVBackupSession::finish() {
    // The cleanup has run: a confirmation that a source was emptied on purpose is used up.
    if (!dryRun_)
        for (const FVSourceItemPtr& item : enabledItems_) item->removeValue(FVSourceKey::emptySourceConfirmed);
    runAfterHook(!errorMessages().empty() ? "errors" : !warnings().empty() ? "warnings" : "finished");
    logSummary(false);
    FVLog::currentLog().addLogLine(fmt::format("Sync finished (Duration: {}).\n", syncingBackup_->currentDurationString()));
    FVLog::currentLog().closeLog();
    // Released before the delegate hears of the end: it may destroy this session at once.
    sleepInhibitor_.release();
    if (delegate_) delegate_->backupSessionDidFinish(*this);
}

void FVBackupSession::refuse(const std::string& problem) {
    refusal_ = problem;
    FVLog& log = FVLog::currentLog();
    log.setRunContext(destinationPath_, "");
    log.newLog();
    log.addLogLine(fmt::format("Ferrovane cannot sync to: {}", destinationPath_));
    log.addLogLine(FVRunError::item("starting", 0, destinationPath_, problem).logLine());
    logSummary(true);
    log.addLogLine("Sync cancelled: nothing was changed.\n");
    log.closeLog();
    setTaskDescription(FVStrings::localized("backupstopped"));
    if (delegate_) delegate_->backupSessionDidCancel(*this);
}

void FVBackupSession::stopForSpace(const std::string& problem) {
    refusal_ = problem;
    stoppedForSpace_.store(true);
    FVLog& log = FVLog::currentLog();
    log.addLogLine(fmt::format("Ferrovane cannot sync to: {}", destinationPath_));
    log.addLogLine(FVRunError::item("making room", ENOSPC, destinationPath_, problem).logLine());
    runAfterHook("no-space");
    logSummary(true);
    log.addLogLine("Sync stopped before copying: not enough room.\n");
    log.closeLog();
    setTaskDescription("Stopped before copying: not enough room.");
    sleepInhibitor_.release();
    if (delegate_) delegate_->backupSessionDidCancel(*this);
}

void FVBackupSession::endCancelled(const std::string& lastLogLine) {
    runAfterHook(cancelRequested_.load() ? "stopped" : "failed");
    logSummary(true);
    FVLog::currentLog().addLogLine(lastLogLine);
    FVLog::currentLog().closeLog();
    setTaskDescription(FVStrings::localized("backupstopped"));
    progressStep();
    sleepInhibitor_.release();
    if (delegate_) delegate_->backupSessionDidCancel(*this);
}

std::vector<std::string> FVBackupSession::errorMessages() const {
    std::vector<std::string> errors = configurationProblems_;
    if (!refusal_.empty()) errors.push_back(refusal_);
    errors.insert(errors.end(), roomWarnings_.begin(), roomWarnings_.end());
    if (FVSyncingBackup* job = syncingBackup()) {
        std::vector<std::string> jobErrors = job->errorMessages();
        errors.insert(errors.end(), jobErrors.begin(), jobErrors.end());
    }
    return errors;
}

std::vector<std::string> FVBackupSession::warnings() const {
    FVSyncingBackup* job = syncingBackup();
    std::vector<std::string> warnings = job ? job->warnings() : std::vector<std::string>();
    warnings.insert(warnings.end(), hooks_.warnings().begin(), hooks_.warnings().end());
    return warnings;
}

std::vector<std::string> FVBackupSession::environmentWarnings() const {
    std::vector<std::string> out;
    if (!sleepProblem_.empty())
        out.push_back(fmt::format("the computer may go to sleep during the run: sleep prevention is not available ({})",
                                  sleepProblem_));
    if (std::string warning = FVLog::currentLog().unwrittenWarning(); !warning.empty()) out.push_back(warning);
    return out;
}

std::vector<std::string> FVBackupSession::notes() const {
    std::vector<std::string> notes = roomNotes_;
    if (FVSyncingBackup* job = syncingBackup()) notes.insert(notes.end(), job->notes().begin(), job->notes().end());
    return notes;
}

void FVBackupSession::logSummary(bool stopped) {
    finishedAt_ = FVDate::now();
    summary_ = {totals(), errorMessages().size(), finishedAt_ - startedAt_, dryRun_, stopped};
    FVLog::currentLog().addLogLine(summary_.line());
}

FVRunTotals FVBackupSession::totals() const {
    FVSyncingBackup* job = syncingBackup();
    return job ? job->totals() : FVRunTotals{};
}

std::string FVBackupSession::currentFile() const {
    FVSyncingBackup* job = syncingBackup();
    return job ? job->currentFile() : std::string();
}

uint64_t FVBackupSession::copiedInSourceItem() const {
    FVSyncingBackup* job = syncingBackup();
    return job ? job->copiedInSourceItem() : 0;
}

uint64_t FVBackupSession::sessionTotalBytesCopied() const {
    FVSyncingBackup* job = syncingBackup();
    auto worker = job ? job->backupCopyWorker() : nullptr;
    return worker ? worker->totalBytesCopied() : 0;
}

int32_t FVBackupSession::updatedFileCount() const {
    int32_t updated = 0;
    for (const FVSourceItemPtr& item : backupSet_)
        updated += static_cast<int32_t>(item->integerValue(FVSourceKey::updatedFilesCount));
    return updated;
}

double FVBackupSession::changedPercent() const {
    uint32_t total = 0;
    for (const FVSourceItemPtr& item : backupSet_)
        if (item->mode() == FVSourceMode::Backup) total += static_cast<uint32_t>(item->integerValue(FVSourceKey::totalFilesCount));
    return total == 0 ? 0.0 : updatedFileCount() / (total * 0.01);
}

std::string FVBackupSession::finishedSummary() const {
    return fmt::format("Changed: {:.1f}% Duration: {}", changedPercent(),
                       syncingBackup() ? syncingBackup()->currentDurationString() : "");
}

}  // namespace ferrovane
