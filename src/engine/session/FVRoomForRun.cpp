#include "engine/session/FVRoomForRun.h"

#include "engine/analysis/FVTreeReadAhead.h"
#include "engine/archive/FVArchivedRuns.h"
#include "engine/run/FVLog.h"
#include "engine/run/FVNumber.h"
#include "engine/session/FVRunPlanner.h"
#include "engine/session/FVSourceBytesBound.h"
#include "fs/FVSpaceUsage.h"

#include <fmt/format.h>

#include <set>

namespace ferrovane {

FVRoomForRun::FVRoomForRun(const FVRunSettings& settings, std::vector<std::string> excludedFiles, FVRunStatus& status,
                           std::function<void(const std::string&)> wouldChange)
    : settings_(settings),
      excludedFiles_(std::move(excludedFiles)),
      status_(status),
      wouldChange_(std::move(wouldChange)),
      destination_(settings.targetPath) {}

std::optional<FVSpaceBudget> FVRoomForRun::budgetNow() const {
    std::optional<FVVolumeSpace> volume = FVSpaceUsage::volumeAt(settings_.targetPath);
    if (!volume) return std::nullopt;
    return FVSpaceBudget(settings_.options, volume->freeBytes, volume->totalBytes);
}

bool FVRoomForRun::fitsWhateverItWrites() const {
    // A destination that cannot be looked at fails on its own, with its own message.
    std::optional<FVSpaceBudget> budget = budgetNow();
    if (!budget) return true;
    // A walk never crosses mounts: a run writes at most what its sources' file systems hold.
    uint64_t bound = 0;
    std::set<dev_t> counted;
    for (const std::string& source : settings_.recordedSources) {
        std::optional<FVVolumeSpace> volume = FVSpaceUsage::volumeAt(source);
        if (volume && counted.insert(volume->device).second) bound += volume->usedBytes;
    }
    return budget->allows(bound);
}

void FVRoomForRun::log(const std::string& line) const {
    FVLog::currentLog().addLogLine(line);
    if (settings_.dryRun && wouldChange_) wouldChange_(line);
}

std::vector<FVRoomForRun::Step> FVRoomForRun::purgePlan(const FVSpaceBudget& budget, uint64_t needed, bool* fits,
                                                        uint64_t* freed) const {
    const FVOldestRunPurge purge(settings_.layout(), destination_);
    std::vector<FVArchivedRun> runs = FVArchivedRuns(settings_.layout()).list();
    std::vector<Step> steps;
    *freed = 0;
    *fits = false;
    while (std::optional<FVRunPurgeUnit> unit = FVOldestRunPurge::next(runs)) {
        Step step{*unit, purge.pathsOf(*unit, runs)};
        // Each unit takes something away, or the purge would never end.
        if (step.paths.empty()) break;
        for (const std::string& path : step.paths) *freed += FVSpaceUsage::treeBytes(path);
        steps.push_back(std::move(step));
        FVOldestRunPurge::apply(*unit, runs);
        if (budget.afterFreeing(*freed).allows(needed)) {
            *fits = true;
            break;
        }
    }
    return steps;
}

FVRoomVerdict FVRoomForRun::make() {
    FVRoomVerdict verdict;
    // Most runs fit even if every source entry were new: that costs a stat per entry, the look
    // ahead a comparison of both trees with their attribute lists, as much as the run's own walk.
    if (std::optional<FVSpaceBudget> budget = budgetNow()) {
        // The run's own walk reads both trees next: they are read meanwhile.
        std::vector<std::string> trees = settings_.recordedSources;
        for (const std::string& source : settings_.recordedSources) trees.push_back(settings_.itemTargetPath(source));
        FVTreeReadAhead readAhead(trees);
        std::optional<uint64_t> bound = FVSourceBytesBound(status_).of(settings_.recordedSources);
        if (!bound || budget->allows(*bound)) return verdict;
    }
    const uint64_t needed = FVRunPlanner(settings_, excludedFiles_, status_).bytesToWrite(settings_.recordedSources);
    if (status_.isCancelled()) return verdict;
    std::optional<FVSpaceBudget> budget = budgetNow();
    if (!budget) return verdict;
    const std::string& destination = settings_.targetPath;
    log(budget->spaceLine(destination, needed));
    if (budget->allows(needed)) return verdict;

    bool purgeFits = false;
    uint64_t purgeable = 0;
    std::vector<Step> plan = purgePlan(*budget, needed, &purgeFits, &purgeable);
    verdict.fits = false;
    if (!purgeFits || !settings_.options.purgeOldestForSpace) {
        verdict.problem = budget->shortfallMessage(destination, needed, purgeFits);
        if (!purgeFits && purgeable > 0 && settings_.options.purgeOldestForSpace)
            verdict.problem += fmt::format(" Purging the oldest archived runs would free only {}.",
                                           FVNumber::formattedDiskSizeString(static_cast<double>(purgeable)));
        return verdict;
    }
    if (settings_.dryRun) {
        for (const Step& step : plan)
            for (const std::string& path : step.paths) wouldChange_("Would purge: " + path);
        verdict.fits = true;
        return verdict;
    }

    // The look ahead sized the purge by what the archives take; the file system's own count decides.
    const FVOldestRunPurge purge(settings_.layout(), destination_);
    size_t runsPurged = 0;
    while (!budget->allows(needed)) {
        std::vector<FVArchivedRun> runs = FVArchivedRuns(settings_.layout()).list();
        std::optional<FVRunPurgeUnit> unit = FVOldestRunPurge::next(runs);
        if (!unit || purge.pathsOf(*unit, runs).empty()) break;
        std::string warning = purge.remove(*unit, runs, [](const std::string& line) { FVLog::currentLog().addLogLine(line); });
        if (!warning.empty()) {
            FVLog::currentLog().addLogLine(warning);
            verdict.warnings.push_back(std::move(warning));
            break;
        }
        ++runsPurged;
        // Freed blocks count once the file system has put the removal down.
        destination_.flush();
        budget = budgetNow();
        if (!budget) break;
    }
    verdict.fits = budget && budget->allows(needed);
    if (!verdict.fits) {
        verdict.problem = budget ? budget->shortfallMessage(destination, needed, false)
                                 : fmt::format("The free space of {} could not be read.", destination);
        return verdict;
    }
    std::vector<FVArchivedRun> left = FVArchivedRuns(settings_.layout()).list();
    verdict.notes.push_back(fmt::format("To make room on {}, {} purged, oldest first{}.", destination,
                                        runsPurged == 1 ? std::string("one archived run was")
                                                        : fmt::format("{} archived runs were", runsPurged),
                                        left.empty() ? std::string() : "; the oldest run kept is " + left.front().stamp));
    log(verdict.notes.back());
    return verdict;
}

}  // namespace ferrovane
