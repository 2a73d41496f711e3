#include "search/FVSearchPlan.h"

#include "engine/config/FVMirrorLayout.h"
#include "engine/record/FVRunRecords.h"
#include "engine/record/FVVersionCatalog.h"

#include <algorithm>

namespace ferrovane {

FVSearchPlan FVSearchPlan::of(const std::string& destination) {
    FVSearchPlan plan;
    for (FVRunRecord& record : FVRunRecords(destination).list()) {
        if (!record.summary) plan.problems_.push_back(record.problem);
        plan.runs_.push_back({record.stamp, record.time, std::move(record.path), record.complete()});
    }
    // Only a destination with a record is planned further; without one it is walked whole.
    if (plan.runs_.empty()) return plan;
    const FVVersionCatalog archives(FVMirrorLayout::archivesOf(destination));
    for (FVArchiveKind kind : {FVArchiveKind::Changed, FVArchiveKind::Removed})
        for (FVVersionCatalog::ArchiveStamp& stamp : archives.stamps(kind))
            if (std::none_of(plan.runs_.begin(), plan.runs_.end(), [&](const Run& run) { return run.stamp == stamp.name; }))
                plan.runs_.push_back({std::move(stamp.name), stamp.time, "", false});
    std::sort(plan.runs_.begin(), plan.runs_.end(), [](const Run& a, const Run& b) {
        return a.time != b.time ? a.time > b.time : a.stamp > b.stamp;
    });
    return plan;
}

}  // namespace ferrovane
