#include "engine/archive/FVArchivedRuns.h"

#include "engine/record/FVVersionCatalog.h"

#include <algorithm>
#include <map>

namespace ferrovane {

std::vector<FVArchivedRun> FVArchivedRuns::list() const {
    std::map<std::string, FVArchivedRun> byStamp;
    auto at = [&](const std::string& stamp, std::time_t time) -> FVArchivedRun& {
        FVArchivedRun& run = byStamp[stamp];
        run.stamp = stamp;
        run.time = time;
        return run;
    };
    const FVVersionCatalog catalog(layout_);
    for (const FVVersionCatalog::ArchiveStamp& s : catalog.stamps(FVArchiveKind::Changed))
        at(s.name, s.time).hasChangedFolder = true;
    for (const FVVersionCatalog::ArchiveStamp& s : catalog.stamps(FVArchiveKind::Removed))
        at(s.name, s.time).hasRemovedFolder = true;
    for (FVRunRecord& record : FVRunRecords(layout_.destination()).list())
        if (std::optional<std::time_t> time = FVVersionCatalog::stampTime(record.stamp))
            at(record.stamp, *time).record = std::move(record);

    std::vector<FVArchivedRun> runs;
    runs.reserve(byStamp.size());
    for (auto& [stamp, run] : byStamp) runs.push_back(std::move(run));
    std::stable_sort(runs.begin(), runs.end(),
                     [](const FVArchivedRun& a, const FVArchivedRun& b) { return a.time < b.time; });
    return runs;
}

}  // namespace ferrovane
