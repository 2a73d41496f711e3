#include "app/FVVersionRestoreJob.h"

#include "engine/run/FVStrings.h"

#include <sys/stat.h>

#include <cstring>

namespace ferrovane {

std::vector<std::string> FVVersionRestoreJob::targets() const {
    std::vector<std::string> paths;
    for (const FVRestoreTarget& target : targets_) paths.push_back(target.to);
    return paths;
}

bool FVVersionRestoreJob::plan(std::string* problem) {
    for (const FVRestoreTarget& target : targets_) {
        struct stat st {};
        if (int error = FVRestorePlan::examine(destination_, target.from, &st)) {
            *problem = FVStrings::format("restorenocopy", target.to, std::strerror(error));
            return false;
        }
        plans_.emplace_back(destination_, target.from, target.to, target.root, target.parentMirrors);
    }
    return true;
}

std::vector<FVRestoreJob::Conflict> FVVersionRestoreJob::conflicts() const {
    std::vector<Conflict> conflicts;
    for (const auto& plan : plans_)
        for (const auto& conflict : plan.conflicts()) conflicts.push_back({conflict.target, conflict.reason});
    return conflicts;
}

uint64_t FVVersionRestoreJob::itemCount() const {
    uint64_t count = 0;
    for (const auto& plan : plans_) count += plan.pairs().size();
    return count;
}

FVRestoreJob::Outcome FVVersionRestoreJob::copy(bool replace, const FVRestoreRun::Progress& progress,
                                                const FVRestoreRun::Report& report, const std::atomic<bool>& interrupt) {
    FVRestoreRun run(plans_, replace);
    FVRestoreRun::Summary summary = run.run(destination_, progress, report, interrupt);
    Outcome outcome{summary.files, summary.bytes, summary.replaced, 0, summary.cancelled};
    for (const auto& plan : plans_) outcome.identical += plan.identicalCount();
    return outcome;
}

}  // namespace ferrovane
