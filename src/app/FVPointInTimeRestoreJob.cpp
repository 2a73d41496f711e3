#include "app/FVPointInTimeRestoreJob.h"

#include "engine/restore/FVPointInTimeRestore.h"

namespace ferrovane {

std::vector<std::string> FVPointInTimeRestoreJob::targets() const {
    std::vector<std::string> targets;
    for (const auto& [mirror, target] : items_) targets.push_back(target.to);
    return targets;
}

bool FVPointInTimeRestoreJob::plan(std::string* problem) {
    for (const auto& item : items_) {
        auto plan = FVPointInTimePlan::make(destination_, run_, item.first, toFolder_, problem);
        if (!plan) return false;
        plans_.push_back(std::move(*plan));
    }
    return true;
}

std::vector<FVRestoreJob::Conflict> FVPointInTimeRestoreJob::conflicts() const {
    std::vector<Conflict> conflicts;
    for (const auto& plan : plans_)
        for (const auto& conflict : plan.conflicts()) conflicts.push_back({conflict.target, conflict.reason});
    return conflicts;
}

uint64_t FVPointInTimeRestoreJob::itemCount() const {
    uint64_t count = 0;
    for (const auto& plan : plans_) count += plan.entryCount();
    return count;
}

FVRestoreJob::Outcome FVPointInTimeRestoreJob::copy(bool replace, const FVRestoreRun::Progress& progress,
                                                    const FVRestoreRun::Report& report, const std::atomic<bool>& interrupt) {
    Outcome outcome;
    const uint64_t total = itemCount();
    uint64_t before = 0;
    for (const FVPointInTimePlan& plan : plans_) {
        FVPointInTimeRestore restore(plan, replace);
        FVPointInTimeRestore::Summary summary =
            restore.run([&](uint64_t done, uint64_t) { progress(before + done, total); }, report, interrupt);
        outcome.files += summary.files;
        outcome.bytes += summary.bytes;
        outcome.replaced += summary.replaced;
        outcome.identical += plan.identicalCount();
        before += plan.entryCount();
        if ((outcome.cancelled = summary.cancelled)) break;
    }
    return outcome;
}

}  // namespace ferrovane
