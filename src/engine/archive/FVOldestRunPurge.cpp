#include "engine/archive/FVOldestRunPurge.h"

#include "engine/record/FVRunRecords.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>

namespace ferrovane {

namespace {

template <typename Runs>
auto find(Runs& runs, const std::string& stamp) {
    return std::find_if(runs.begin(), runs.end(), [&](const FVArchivedRun& run) { return run.stamp == stamp; });
}

}  // namespace

std::optional<FVRunPurgeUnit> FVOldestRunPurge::next(const std::vector<FVArchivedRun>& runs) {
    // The newest run keeps its archives: the versions its run just displaced.
    if (runs.size() < 2) return std::nullopt;
    const FVArchivedRun& oldest = runs.front();
    if (oldest.hasArchives()) return FVRunPurgeUnit{std::nullopt, oldest.stamp};

    auto newestComplete = std::find_if(runs.rbegin(), runs.rend(),
                                       [](const FVArchivedRun& run) { return run.record && run.record->complete(); });
    if (newestComplete != runs.rend() && newestComplete->stamp == oldest.stamp) return std::nullopt;
    FVRunPurgeUnit unit{oldest.stamp, std::nullopt};
    const FVArchivedRun& following = runs[1];
    if (following.hasArchives() && &following != &runs.back()) unit.archiveStamp = following.stamp;
    return unit;
}

void FVOldestRunPurge::apply(const FVRunPurgeUnit& unit, std::vector<FVArchivedRun>& runs) {
    if (unit.recordStamp) {
        auto run = find(runs, *unit.recordStamp);
        if (run != runs.end()) run->record.reset();
    }
    if (unit.archiveStamp) {
        auto run = find(runs, *unit.archiveStamp);
        if (run != runs.end()) run->hasChangedFolder = run->hasRemovedFolder = false;
    }
    std::erase_if(runs, [](const FVArchivedRun& run) { return !run.hasArchives() && !run.record; });
}

std::vector<std::string> FVOldestRunPurge::pathsOf(const FVRunPurgeUnit& unit,
                                                   const std::vector<FVArchivedRun>& runs) const {
    std::vector<std::string> paths;
    if (unit.recordStamp) {
        auto run = find(runs, *unit.recordStamp);
        if (run != runs.end() && run->record) paths.push_back(run->record->path);
    }
    if (unit.archiveStamp) {
        auto run = find(runs, *unit.archiveStamp);
        if (run != runs.end() && run->hasChangedFolder)
            paths.push_back(layout_.archiveFolder(FVArchiveKind::Changed, *unit.archiveStamp));
        if (run != runs.end() && run->hasRemovedFolder)
            paths.push_back(layout_.archiveFolder(FVArchiveKind::Removed, *unit.archiveStamp));
    }
    return paths;
}

std::string FVOldestRunPurge::remove(const FVRunPurgeUnit& unit, const std::vector<FVArchivedRun>& runs,
                                     const std::function<void(const std::string&)>& log) const {
    for (const std::string& path : pathsOf(unit, runs)) {
        const int error = destination_.removeUnlocking(path);
        if (error != 0 && error != ENOENT)
            return fmt::format("WARNING: Could not remove {} to make room: {}", path, std::strerror(error));
        log(fmt::format("Removed {} to make room", path));
    }
    return {};
}

}  // namespace ferrovane
