#include "engine/restore/FVPointInTimeRestore.h"

#include "FVVersion.h"
#include "engine/copy/FVTemporaryEntry.h"
#include "engine/restore/FVRecordedFileCopy.h"
#include "engine/restore/FVRecordedMetadata.h"
#include "engine/restore/FVTrash.h"
#include "engine/run/FVLog.h"
#include "engine/run/FVNumber.h"
#include "fs/FVDataCopier.h"
#include "fs/FVLinks.h"
#include "fs/FVOpenFiles.h"
#include "fs/FVText.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>
#include <thread>

namespace ferrovane {

namespace {
constexpr auto kProgressInterval = std::chrono::milliseconds(100);
constexpr int kCopiers = 2;
constexpr size_t kQueueLength = 256;

void splitRelative(const std::string& relative, std::string* folder, std::string* name) {
    const size_t slash = relative.rfind('/');
    *folder = slash == std::string::npos ? std::string() : relative.substr(0, slash);
    *name = slash == std::string::npos ? relative : relative.substr(slash + 1);
}
}  // namespace

// What one thread copies with: its buffer, its reader of the destination, and the target folder it
// wrote into last (the files of a folder follow one another).
struct FVPointInTimeRestore::Lane {
    Lane(const FVConfinedDirectory& source, const FVConfinedDirectory& target, std::function<bool()> stopped)
        : buffer(kCopyBufferSize), copier(source, buffer.data(), buffer.size(), std::move(stopped)), target(target) {}

    // The target folder holding a relative path, made when missing; -1 with errno when it cannot be.
    int parentFolder(const std::string& relative, std::string* name) {
        std::string folder;
        splitRelative(relative, &folder, name);
        if (!parent.valid() || folder != parentPath) {
            int error = 0;
            parent = target.openFolder(folder, true, &error);
            parentPath = folder;
            errno = error;
        }
        return parent.get();
    }

    std::vector<char> buffer;
    FVRecordedFileCopy copier;
    const FVConfinedDirectory& target;
    std::string parentPath;
    FVFd parent;
};

FVPointInTimeRestore::FVPointInTimeRestore(const FVPointInTimePlan& plan, bool replace) : plan_(plan), replace_(replace) {}

FVPointInTimeRestore::~FVPointInTimeRestore() = default;

void FVPointInTimeRestore::tell(const std::string& line, bool isError) {
    std::lock_guard lock(summaryMutex_);
    FVLog::currentLog().addLogLine(line);
    if (isError) ++summary_.errors;
    if (report_) report_(line, isError);
}

bool FVPointInTimeRestore::stopped() const {
    return cancelRequested_.load(std::memory_order_relaxed) ||
           (interrupt_ && interrupt_->load(std::memory_order_relaxed));
}

FVPointInTimeRestore::Summary FVPointInTimeRestore::run(const Progress& progress, const Report& report) {
    static const std::atomic<bool> never{false};
    return run(progress, report, never);
}

FVPointInTimeRestore::Summary FVPointInTimeRestore::run(const Progress& progress, const Report& report,
                                                        const std::atomic<bool>& interrupt) {
    report_ = report;
    interrupt_ = &interrupt;
    summary_ = {};
    FVLog& log = FVLog::currentLog();
    log.newLog();
    log.addLogLine(fmt::format("Ferrovane {}({}) starting restore from: {}", FERROVANE_VERSION,
                               FERROVANE_BUILD_NUMBER, plan_.destination()));
    log.addLogLine(fmt::format("Restoring {} as of the run {} to {}", plan_.mirrorPath(),
                               plan_.pointInTime().run().stamp, plan_.to()));
    for (const std::string& problem : plan_.problems()) tell("ERROR: " + problem, true);
    for (const FVPointInTimePlan::Conflict& conflict : plan_.conflicts()) conflicts_.insert(conflict.target);
    source_ = std::make_unique<FVConfinedDirectory>(plan_.destination());
    target_ = std::make_unique<FVConfinedDirectory>(plan_.confinementRoot());
    if (target_->openError() != 0) {
        tell(fmt::format("ERROR: Could not open {} ({})", plan_.confinementRoot(), std::strerror(target_->openError())),
             true);
    } else {
        for (const auto& [entry, target] : plan_.missingParents())
            if (auto relative = target_->relativePath(target)) folders_.emplace_back(*relative, entry);
        {
            std::lock_guard lock(queueMutex_);
            closed_ = false;
        }
        std::vector<std::thread> copiers;
        for (int k = 0; k < kCopiers; ++k) copiers.emplace_back([this] { copyFiles(); });
        Lane lane(*source_, *target_, [this] { return stopped(); });
        uint64_t done = 0;
        auto shown = std::chrono::steady_clock::now();
        std::string problem;
        bool whole = plan_.pointInTime().forEachAtOrBelow(plan_.mirrorPath(), [&](const FVManifestEntry& entry) {
            if (stopped()) return;
            restoreEntry(entry, lane);
            ++done;
            if (progress && std::chrono::steady_clock::now() - shown >= kProgressInterval) {
                shown = std::chrono::steady_clock::now();
                progress(done, plan_.entryCount());
            }
        }, &problem);
        drain();
        for (std::thread& copier : copiers) copier.join();
        if (!whole) tell(fmt::format("ERROR: The record of the run is damaged: {}", problem), true);
        finishFolders();
        if (progress) progress(done, plan_.entryCount());
    }
    summary_.cancelled = stopped();
    log.addLogLine(fmt::format("Restore {}: {} ({}), {} moved aside, {}, {} whose bytes are gone.",
                               summary_.cancelled ? "stopped" : "finished", FVNumber::counted(summary_.files, "file"),
                               FVNumber::formattedDiskSizeString(static_cast<double>(summary_.bytes)),
                               FVNumber::counted(summary_.replaced, "replaced item"),
                               FVNumber::counted(summary_.errors, "error"), FVNumber::counted(summary_.gone, "file")));
    log.closeLog();
    return summary_;
}

void FVPointInTimeRestore::enqueue(FileJob job) {
    std::unique_lock lock(queueMutex_);
    queueChanged_.wait(lock, [this] { return queue_.size() < kQueueLength; });
    queue_.push_back(std::move(job));
    queueChanged_.notify_all();
}

// No more files: the copiers finish what is queued and end.
void FVPointInTimeRestore::drain() {
    std::lock_guard lock(queueMutex_);
    closed_ = true;
    queueChanged_.notify_all();
}

void FVPointInTimeRestore::copyFiles() {
    Lane lane(*source_, *target_, [this] { return stopped(); });
    for (;;) {
        std::unique_lock lock(queueMutex_);
        queueChanged_.wait(lock, [this] { return !queue_.empty() || closed_; });
        if (queue_.empty()) return;
        FileJob job = std::move(queue_.front());
        queue_.pop_front();
        queueChanged_.notify_all();
        lock.unlock();
        if (!stopped()) restoreFile(job, lane);
    }
}

bool FVPointInTimeRestore::moveAside(const std::string& target, Lane& lane) {
    // A folder replaced by a file must not stay open as a parent.
    lane.parent.reset();
    FVTrash::Outcome outcome = FVTrash::moveAside(target, std::time(nullptr));
    if (!outcome.moved) {
        tell(fmt::format("ERROR: Not replaced, it could not be moved aside: {} ({})", target, outcome.problem), true);
        return false;
    }
    {
        std::lock_guard lock(summaryMutex_);
        ++summary_.replaced;
    }
    tell(fmt::format("Moved {} {}: {}", outcome.inTrash ? "to the trash" : "aside", target, outcome.placedAt), false);
    return true;
}

void FVPointInTimeRestore::restoreEntry(const FVManifestEntry& entry, Lane& lane) {
    std::optional<std::string> target = plan_.targetOf(entry.path);
    if (!target) return;
    std::optional<std::string> relative = target_->relativePath(*target);
    if (!relative) return;
    std::string reason;
    switch (plan_.stateOf(entry, *target, &reason)) {
    case FVPointInTimePlan::State::Identical:
    case FVPointInTimePlan::State::Unreadable: return;  // the plan's problems say which
    case FVPointInTimePlan::State::SameBytes: {
        std::string name;
        int parent = lane.parentFolder(*relative, &name);
        FVFd item(parent < 0 ? -1 : FVOpenFiles::openat(parent, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        std::string problem;
        if (!item.valid() || !FVRecordedMetadata::apply(entry, {item.get(), false}, plan_.targetProfile(), &problem))
            tell(fmt::format("ERROR: Could not give {} its recorded mode and owner: {}", *target,
                             item.valid() ? problem : std::string(std::strerror(errno))),
                 true);
        return;
    }
    case FVPointInTimePlan::State::InTheWay:
        if (!replace_ || !conflicts_.contains(*target)) {
            tell(fmt::format("ERROR: Not replaced, it appeared during the restore: {}", *target), true);
            return;
        }
        if (!moveAside(*target, lane)) return;
        break;
    case FVPointInTimePlan::State::New:
    case FVPointInTimePlan::State::Merge: break;
    }
    switch (entry.type) {
    case FVManifestEntryType::Folder: {
        int error = 0;
        if (!target_->openFolder(*relative, true, &error).valid()) {
            tell(fmt::format("ERROR: Could not make the folder {} ({})", *target, std::strerror(error)), true);
            return;
        }
        folders_.emplace_back(*relative, entry);
        return;
    }
    case FVManifestEntryType::Other:
        tell(fmt::format("ERROR: Not restored, the record keeps no special files: {}", *target), true);
        return;
    case FVManifestEntryType::Link: {
        std::string name;
        int parent = lane.parentFolder(*relative, &name);
        if (parent < 0) tell(fmt::format("ERROR: Could not make the folder of {} ({})", *target, std::strerror(errno)), true);
        else restoreLink(entry, *target, parent, name);
        return;
    }
    case FVManifestEntryType::File:
        if (entry.linkGroup) restoreFile({entry, *target, *relative}, lane);
        else enqueue({entry, *target, *relative});
        return;
    }
}

void FVPointInTimeRestore::restoreLink(const FVManifestEntry& entry, const std::string& target, int parent,
                                       const std::string& name) {
    FVTemporaryEntry made(parent);
    if (made.create([&](const char* temporary) { return FVLinks::symlinkat(entry.linkTarget.c_str(), parent, temporary); }) < 0) {
        tell(fmt::format("ERROR: Could not make the link {} ({})", target, std::strerror(errno)), true);
        return;
    }
    FVFd item(FVOpenFiles::openat(parent, made.name().c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
    std::string problem;
    if (!item.valid() || !FVRecordedMetadata::apply(entry, {item.get(), true}, plan_.targetProfile(), &problem))
        tell(fmt::format("ERROR: Restored {} without all of its metadata: {}", target,
                         item.valid() ? problem : std::string(std::strerror(errno))),
             true);
    if (!made.publishAsNew(parent, name)) {
        tell(fmt::format("ERROR: Not replaced, it appeared during the restore: {} ({})", target, std::strerror(errno)),
             true);
        return;
    }
    std::lock_guard lock(summaryMutex_);
    ++summary_.files;
}

// Another name of a hard-linked file restored already: one more link to it. False when it cannot
// be linked (another file system, a link limit): the file is then restored on its own.
bool FVPointInTimeRestore::linkToGroup(const FileJob& job, int parent, const std::string& name) {
    auto first = linkGroups_.find(job.entry.linkGroup);
    if (first == linkGroups_.end()) return false;
    std::string folder, firstName;
    splitRelative(first->second, &folder, &firstName);
    int error = 0;
    FVFd firstFolder = target_->openFolder(folder, false, &error);
    FVTemporaryEntry made(parent);
    if (!firstFolder.valid() || made.create([&](const char* temporary) {
            return FVLinks::linkat(firstFolder.get(), firstName.c_str(), parent, temporary, 0);
        }) < 0)
        return false;
    if (!made.publishAsNew(parent, name))
        tell(fmt::format("ERROR: Not replaced, it appeared during the restore: {}", job.target), true);
    else {
        std::lock_guard lock(summaryMutex_);
        ++summary_.files;
    }
    return true;
}

void FVPointInTimeRestore::restoreFile(const FileJob& job, Lane& lane) {
    const FVManifestEntry& entry = job.entry;
    std::string name;
    int parent = lane.parentFolder(job.relative, &name);
    if (parent < 0) {
        tell(fmt::format("ERROR: Could not make the folder of {} ({})", job.target, std::strerror(errno)), true);
        return;
    }
    if (entry.linkGroup && linkToGroup(job, parent, name)) return;
    FVTemporaryEntry made(parent);
    FVFd out(made.create([&](const char* temporary) {
        return FVOpenFiles::openat(parent, temporary, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    }));
    if (!out.valid()) {
        tell(fmt::format("ERROR: Could not make {} ({})", job.target, std::strerror(errno)), true);
        return;
    }
    if (beforeFile_) beforeFile_(job.target);
    const FVRecordedBytes& bytes = plan_.bytes();
    uint64_t copied = 0;
    unsigned mismatches = 0;
    std::string problem;
    FVRecordedFileCopy::Outcome outcome =
        lane.copier.copy(bytes.likeliestPlaces(entry), entry.hash, entry.size, out.get(), &copied, &mismatches, &problem);
    if (outcome == FVRecordedFileCopy::Outcome::NotHere || outcome == FVRecordedFileCopy::Outcome::Unreadable)
        outcome = lane.copier.copy(bytes.otherPlaces(entry), entry.hash, entry.size, out.get(), &copied, &mismatches,
                                   &problem);
    switch (outcome) {
    case FVRecordedFileCopy::Outcome::Copied: break;
    case FVRecordedFileCopy::Outcome::Cancelled: return;
    case FVRecordedFileCopy::Outcome::Failed:
    case FVRecordedFileCopy::Outcome::Unreadable: tell(fmt::format("ERROR: {}: {}", job.target, problem), true); return;
    case FVRecordedFileCopy::Outcome::NotHere:
        {
            std::lock_guard lock(summaryMutex_);
            ++summary_.gone;
        }
        tell(fmt::format("not restored: bytes gone: {}", job.target), true);
        return;
    }
    if (mismatches)
        tell(fmt::format("{}: {} in the destination {} from the record; restored from one that matches",
                         job.target, FVNumber::counted(mismatches, "copy", "copies"), mismatches == 1 ? "differs" : "differ"),
             false);
    if (!FVRecordedMetadata::apply(entry, {out.get(), false}, plan_.targetProfile(), &problem))
        tell(fmt::format("ERROR: Restored {} without all of its metadata: {}", job.target, problem), true);
    if (!made.publishAsNew(parent, name)) {
        tell(fmt::format("ERROR: Not replaced, it appeared during the restore: {} ({})", job.target,
                         std::strerror(errno)),
             true);
        return;
    }
    // Only the thread that runs restores hard-linked files: the groups need no lock.
    if (entry.linkGroup) linkGroups_.emplace(entry.linkGroup, job.relative);
    std::lock_guard lock(summaryMutex_);
    ++summary_.files;
    summary_.bytes += copied;
}

void FVPointInTimeRestore::finishFolders() {
    // From the inside out, so that a folder whose recorded mode closes it is closed last.
    std::sort(folders_.begin(), folders_.end(), [](const auto& a, const auto& b) { return a.first > b.first; });
    for (const auto& [relative, entry] : folders_) {
        int error = 0;
        FVFd folder = target_->openFolder(relative, false, &error);
        std::string problem;
        if (!folder.valid()) problem = std::strerror(error);
        else if (FVRecordedMetadata::apply(entry, {folder.get(), false}, plan_.targetProfile(), &problem)) continue;
        tell(fmt::format("ERROR: Restored {} without all of its metadata: {}",
                         FVText::appendingPathComponent(plan_.confinementRoot(), relative), problem),
             true);
    }
    folders_.clear();
}

}  // namespace ferrovane
