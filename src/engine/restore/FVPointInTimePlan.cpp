#include "engine/restore/FVPointInTimePlan.h"

#include "engine/analysis/FVChangeDecision.h"
#include "engine/record/FVVersionCatalog.h"
#include "engine/run/FVFileSystemItem.h"
#include "fs/FVDestinationProbe.h"
#include "fs/FVFileDescriptor.h"
#include "fs/FVMountTable.h"
#include "fs/FVText.h"

#include <sys/stat.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace ferrovane {

namespace {

mode_t fileTypeBits(FVManifestEntryType type) {
    switch (type) {
    case FVManifestEntryType::File: return S_IFREG;
    case FVManifestEntryType::Folder: return S_IFDIR;
    case FVManifestEntryType::Link: return S_IFLNK;
    case FVManifestEntryType::Other: break;
    }
    return 0;
}

}  // namespace

FVPointInTimePlan::FVPointInTimePlan(std::string destination, FVPointInTime pointInTime, FVRecordedBytes bytes,
                                     std::string mirrorPath, const FVRestoreTarget& target)
    : destination_(std::move(destination)), pointInTime_(std::move(pointInTime)), bytes_(std::move(bytes)),
      mirrorPath_(std::move(mirrorPath)), to_(target.to), root_(target.root),
      profile_(FVDestinationProbe::defaultsForType(FVMountTable::fileSystemTypeAtPath(root_))) {}

std::optional<FVPointInTimePlan> FVPointInTimePlan::make(const std::string& destination, const FVRunRecord& run,
                                                         const std::string& mirrorPath, const std::string& toFolder,
                                                         std::string* problem) {
    const std::vector<FVRunRecord> runs = FVRunRecords(destination).list();
    auto chosen = std::find_if(runs.begin(), runs.end(), [&](const FVRunRecord& r) { return r.stamp == run.stamp; });
    if (chosen == runs.end() || !chosen->complete()) {
        *problem = fmt::format("the run of {} is not a complete run of the destination", run.stamp);
        return std::nullopt;
    }
    auto pointInTime = FVPointInTime::open(destination, *chosen, problem);
    if (!pointInTime) return std::nullopt;
    auto target = FVRestoreTarget::forVersion(FVVersionCatalog(pointInTime->layout()), mirrorPath,
                                              pointInTime->layout().destinationPath(mirrorPath), toFolder, problem);
    if (!target) return std::nullopt;
    auto bytes = FVRecordedBytes::index(destination, runs, static_cast<size_t>(chosen - runs.begin()), mirrorPath, problem);
    if (!bytes) return std::nullopt;
    FVPointInTimePlan plan(destination, std::move(*pointInTime), std::move(*bytes), mirrorPath, *target);

    // The folders above the item, up to its source's mirror, with their targets: those missing now
    // are made again as they were recorded.
    std::vector<std::pair<std::string, std::string>> parents;  // mirror path, target; nearest first
    std::string parentMirror = mirrorPath, parentTarget = plan.to_;
    for (size_t k = 0; k < target->parentMirrors.size(); ++k) {
        parentMirror = parentMirror.substr(0, parentMirror.rfind('/'));
        parentTarget = FVText::deletingLastPathComponent(parentTarget);
        struct stat st {};
        if (parentTarget == plan.root_ || !FVText::isPathWithin(parentTarget, plan.root_) ||
            FVLongPath::lstat(parentTarget, &st) == 0 || errno != ENOENT)
            break;
        parents.emplace_back(parentMirror, parentTarget);
    }
    bool found = mirrorPath.empty();
    if (!plan.pointInTime_.forEachAtOrBelow("", [&](const FVManifestEntry& entry) {
            if (isManifestPathAtOrBelow(entry.path, mirrorPath)) {
                found = found || entry.path == mirrorPath;
                plan.add(entry);
                return;
            }
            if (entry.type != FVManifestEntryType::Folder) return;
            for (const auto& [mirror, parent] : parents)
                if (entry.path == mirror) plan.missingParents_.emplace_back(entry, parent);
        }, problem))
        return std::nullopt;
    if (!found) {
        *problem = fmt::format("the run of {} recorded nothing there", plan.pointInTime_.run().stamp);
        return std::nullopt;
    }
    std::sort(plan.missingParents_.begin(), plan.missingParents_.end(),
              [](const auto& a, const auto& b) { return a.second.size() < b.second.size(); });
    return plan;
}

std::optional<std::string> FVPointInTimePlan::targetOf(const std::string& entryPath) const {
    const std::string_view rest = std::string_view(entryPath).substr(mirrorPath_.size());
    std::string target = to_ == "/" ? (rest.empty() ? "/" : std::string(rest)) : to_ + std::string(rest);
    if (FVText::isPathWithin(target, destination_)) return std::nullopt;
    return target;
}

FVPointInTimePlan::State FVPointInTimePlan::stateOf(const FVManifestEntry& entry, const std::string& target,
                                                    std::string* reason) const {
    struct stat existing {};
    if (FVLongPath::lstat(target, &existing) != 0) {
        if (errno == ENOENT || errno == ENOTDIR) return State::New;
        *reason = std::strerror(errno);
        return State::Unreadable;
    }
    const mode_t recordedType = fileTypeBits(entry.type);
    if (recordedType == S_IFDIR && S_ISDIR(existing.st_mode)) return State::Merge;
    if (recordedType != (existing.st_mode & S_IFMT)) {
        *reason = S_ISDIR(existing.st_mode) ? "a folder is in the way" : "another kind of item is in the way";
        return State::InTheWay;
    }
    if (recordedType == S_IFLNK) {
        if (FVLongPath::readLink(target) == entry.linkTarget) return State::Identical;
    } else {
        FVFileSystemItem item(target, existing);
        const FVChangeDecision::Side recorded{FVFileType::Regular, entry.size, entry.modificationTimeNs,
                                              static_cast<mode_t>(entry.mode & 07777), entry.owner, entry.group};
        // Mode and owner alone are no other version: the contents are the same.
        switch (FVChangeDecision::decide(recorded, FVChangeDecision::sideOf(item), nullptr,
                                         FVChangeDecision::Tolerance::of(profile_))) {
        case FVChangeDecision::Reason::Unchanged: return State::Identical;
        case FVChangeDecision::Reason::ModeOrOwnerMismatch: return State::SameBytes;
        default: break;
        }
    }
    *reason = "a different version is there";
    return State::InTheWay;
}

void FVPointInTimePlan::add(const FVManifestEntry& entry) {
    std::optional<std::string> target = targetOf(entry.path);
    if (!target) return;
    ++entries_;
    std::string reason;
    switch (stateOf(entry, *target, &reason)) {
    case State::Identical:
    case State::SameBytes: ++identical_; return;
    case State::Unreadable: problems_.push_back(fmt::format("Could not examine {} ({})", *target, reason)); return;
    case State::InTheWay: conflicts_.push_back({*target, reason}); break;
    case State::New:
    case State::Merge: break;
    }
    if (entry.type == FVManifestEntryType::Folder) return;
    ++files_;
    if (entry.type == FVManifestEntryType::File) bytesToCopy_ += entry.size;
}

}  // namespace ferrovane
