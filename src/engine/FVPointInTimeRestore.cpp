#include "engine/FVPointInTimeRestore.h"

#include "FVVersion.h"
#include "engine/FVAdditions.h"
#include "engine/FVLog.h"
#include "engine/FVRecordedFileCopy.h"
#include "engine/FVRecordedMetadata.h"
#include "engine/FVTemporaryEntry.h"
#include "engine/FVTrash.h"
#include "fs/FVDataCopier.h"
#include "fs/FVText.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <ctime>

namespace ferrovane {

namespace {
constexpr auto kProgressInterval = std::chrono::milliseconds(100);

void splitRelative(const std::string& relative, std::string* folder, std::string* name) {
    const size_t slash = relative.rfind('/');
    *folder = slash == std::string::npos ? std::string() : relative.substr(0, slash);
    *name = slash == std::string::npos ? relative : relative.substr(slash + 1);
}
}  // namespace

void FVPointInTimeRestore::tell(const std::string& line, bool isError) {
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
    target_ = std::make_unique<FVConfinedDirectory>(plan_.confinementRoot());
    if (target_->openError() != 0) {
        tell(fmt::format("ERROR: Could not open {} ({})", plan_.confinementRoot(), std::strerror(target_->openError())),
             true);
    } else {
        for (const auto& [entry, target] : plan_.missingParents())
            if (auto relative = target_->relativePath(target)) folders_.emplace_back(*relative, entry);
        const FVConfinedDirectory destination(plan_.destination());
        std::vector<char> buffer(kCopyBufferSize);
        FVRecordedFileCopy copier(destination, buffer.data(), buffer.size(), [this] { return stopped(); });
        uint64_t done = 0;
        auto shown = std::chrono::steady_clock::now();
        std::string problem;
        bool whole = plan_.pointInTime().forEachAtOrBelow(plan_.mirrorPath(), [&](const FVManifestEntry& entry) {
            if (stopped()) return;
            restoreEntry(entry, copier);
            ++done;
            if (progress && std::chrono::steady_clock::now() - shown >= kProgressInterval) {
                shown = std::chrono::steady_clock::now();
                progress(done, plan_.entryCount());
            }
        }, &problem);
        if (!whole) tell(fmt::format("ERROR: The record of the run is damaged: {}", problem), true);
        finishFolders();
        parent_.reset();
        if (progress) progress(done, plan_.entryCount());
    }
    summary_.cancelled = stopped();
    log.addLogLine(fmt::format("Restore {}: {} files ({}), {} replaced items moved aside, {} errors, {} files whose "
                               "bytes are gone.",
                               summary_.cancelled ? "cancelled" : "finished", summary_.files,
                               FVNumber::formattedDiskSizeString(static_cast<double>(summary_.bytes)),
                               summary_.replaced, summary_.errors, summary_.gone));
    log.closeLog();
    return summary_;
}

int FVPointInTimeRestore::parentFolder(const std::string& relative, std::string* name) {
    std::string folder;
    splitRelative(relative, &folder, name);
    if (!parent_.valid() || folder != parentPath_) {
        int error = 0;
        parent_ = target_->openFolder(folder, true, &error);
        parentPath_ = folder;
        errno = error;
    }
    return parent_.get();
}

bool FVPointInTimeRestore::moveAside(const std::string& target) {
    // A folder replaced by a file must not stay open as a parent.
    parent_.reset();
    FVTrash::Outcome outcome = FVTrash::moveAside(target, std::time(nullptr));
    if (!outcome.moved) {
        tell(fmt::format("ERROR: Not replaced, it could not be moved aside: {} ({})", target, outcome.problem), true);
        return false;
    }
    ++summary_.replaced;
    tell(fmt::format("Moved {} {}: {}", outcome.inTrash ? "to the trash" : "aside", target, outcome.placedAt), false);
    return true;
}

void FVPointInTimeRestore::restoreEntry(const FVManifestEntry& entry, FVRecordedFileCopy& copier) {
    std::optional<std::string> target = plan_.targetOf(entry.path);
    if (!target) return;
    std::optional<std::string> relative = target_->relativePath(*target);
    if (!relative) return;
    std::string reason;
    switch (plan_.stateOf(entry, *target, &reason)) {
    case FVPointInTimePlan::State::Identical:
    case FVPointInTimePlan::State::Unreadable: return;  // the plan's problems say which
    case FVPointInTimePlan::State::InTheWay:
        if (!replace_ || !conflicts_.contains(*target)) {
            tell(fmt::format("ERROR: Not replaced, it appeared during the restore: {}", *target), true);
            return;
        }
        if (!moveAside(*target)) return;
        break;
    case FVPointInTimePlan::State::New:
    case FVPointInTimePlan::State::Merge: break;
    }
    if (entry.type == FVManifestEntryType::Folder) {
        int error = 0;
        if (!target_->openFolder(*relative, true, &error).valid()) {
            tell(fmt::format("ERROR: Could not make the folder {} ({})", *target, std::strerror(error)), true);
            return;
        }
        folders_.emplace_back(*relative, entry);
        return;
    }
    if (entry.type == FVManifestEntryType::Other) {
        tell(fmt::format("ERROR: Not restored, the record keeps no special files: {}", *target), true);
        return;
    }
    std::string name;
    int parent = parentFolder(*relative, &name);
    if (parent < 0) {
        tell(fmt::format("ERROR: Could not make the folder of {} ({})", *target, std::strerror(errno)), true);
        return;
    }
    if (entry.type == FVManifestEntryType::Link) restoreLink(entry, *target, parent, name);
    else restoreFile(entry, *target, *relative, parent, name, copier);
}

void FVPointInTimeRestore::restoreLink(const FVManifestEntry& entry, const std::string& target, int parent,
                                       const std::string& name) {
    FVTemporaryEntry made(parent);
    if (made.create([&](const char* temporary) { return symlinkat(entry.linkTarget.c_str(), parent, temporary); }) < 0) {
        tell(fmt::format("ERROR: Could not make the link {} ({})", target, std::strerror(errno)), true);
        return;
    }
    FVFd item(openat(parent, made.name().c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
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
    ++summary_.files;
}

void FVPointInTimeRestore::restoreFile(const FVManifestEntry& entry, const std::string& target,
                                       const std::string& relative, int parent, const std::string& name,
                                       FVRecordedFileCopy& copier) {
    FVTemporaryEntry made(parent);
    if (entry.linkGroup) {
        // Another name of a file restored already: one more link to it.
        if (auto first = linkGroups_.find(entry.linkGroup); first != linkGroups_.end()) {
            std::string folder, firstName;
            splitRelative(first->second, &folder, &firstName);
            int error = 0;
            FVFd firstFolder = target_->openFolder(folder, false, &error);
            if (firstFolder.valid() &&
                made.create([&](const char* temporary) {
                    return linkat(firstFolder.get(), firstName.c_str(), parent, temporary, 0);
                }) >= 0) {
                if (!made.publishAsNew(parent, name)) {
                    tell(fmt::format("ERROR: Not replaced, it appeared during the restore: {}", target), true);
                    return;
                }
                ++summary_.files;
                return;
            }
            // Not linked (another file system, a link limit): the file is restored on its own.
        }
    }
    FVFd out(made.create([&](const char* temporary) {
        return openat(parent, temporary, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600);
    }));
    if (!out.valid()) {
        tell(fmt::format("ERROR: Could not make {} ({})", target, std::strerror(errno)), true);
        return;
    }
    if (beforeFile_) beforeFile_(target);
    const FVRecordedBytes& bytes = plan_.bytes();
    uint64_t copied = 0;
    unsigned mismatches = 0;
    std::string problem;
    FVRecordedFileCopy::Outcome outcome =
        copier.copy(bytes.likeliestPlaces(entry), entry.hash, entry.size, out.get(), &copied, &mismatches, &problem);
    if (outcome == FVRecordedFileCopy::Outcome::NotHere || outcome == FVRecordedFileCopy::Outcome::Unreadable)
        outcome = copier.copy(bytes.otherPlaces(entry, plan_.destination()), entry.hash, entry.size, out.get(), &copied,
                              &mismatches, &problem);
    switch (outcome) {
    case FVRecordedFileCopy::Outcome::Copied: break;
    case FVRecordedFileCopy::Outcome::Cancelled: return;
    case FVRecordedFileCopy::Outcome::Failed:
    case FVRecordedFileCopy::Outcome::Unreadable: tell(fmt::format("ERROR: {}: {}", target, problem), true); return;
    case FVRecordedFileCopy::Outcome::NotHere:
        ++summary_.gone;
        tell(fmt::format("not restored: bytes gone: {}", target), true);
        return;
    }
    if (mismatches)
        FVLog::currentLog().addLogLine(fmt::format(
            "{}: {} copies in the destination differ from the record; restored from one that matches", target,
            mismatches));
    if (!FVRecordedMetadata::apply(entry, {out.get(), false}, plan_.targetProfile(), &problem))
        tell(fmt::format("ERROR: Restored {} without all of its metadata: {}", target, problem), true);
    if (!made.publishAsNew(parent, name)) {
        tell(fmt::format("ERROR: Not replaced, it appeared during the restore: {} ({})", target, std::strerror(errno)),
             true);
        return;
    }
    if (entry.linkGroup) linkGroups_.emplace(entry.linkGroup, relative);
    ++summary_.files;
    summary_.bytes += copied;
}

void FVPointInTimeRestore::finishFolders() {
    parent_.reset();
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
