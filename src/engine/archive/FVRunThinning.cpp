#include "engine/archive/FVRunThinning.h"

#include "engine/archive/FVArchivedRuns.h"
#include "engine/archive/FVThinningPlan.h"
#include "engine/run/FVNumber.h"

#include <fmt/format.h>

#include <cstring>
#include <ctime>

namespace ferrovane {

void FVRunThinning::run() {
    const FVOptions& options = settings_.options;
    if (!options.retentionEnabled) return;
    const FVMirrorLayout layout = settings_.layout();
    const FVThinningPlan plan(layout, FVRetentionPolicy::of(options), settings_.destinationProfile.timeGranularityNs);
    // A real run has written its record by now; a dry run's would be the newest.
    const std::vector<FVThinningRemoval> removals = plan.removals(
        FVArchivedRuns(layout).list(), std::time(nullptr), settings_.dryRun ? settings_.archiveFolderName : "");
    uint64_t records = 0, items = 0, bytes = 0;
    for (const FVThinningRemoval& removal : removals) {
        if (status_.isCancelled()) break;
        if (settings_.dryRun) {
            status_.planned("Would purge: " + removal.path);
            continue;
        }
        const bool insideArchive = !removal.record && removal.path != layout.archiveFolder(FVArchiveKind::Changed, removal.stamp) &&
                                   removal.path != layout.archiveFolder(FVArchiveKind::Removed, removal.stamp);
        int error = 0;
        auto remove = [&] { error = destination_.removeUnlocking(removal.path); };
        // An archived folder keeps its own dates when part of what it holds goes.
        if (insideArchive) destination_.keepingParentDates(removal.path, remove);
        else remove();
        if (error == 0) {
            status_.log(removal.record ? fmt::format("Removed the record of run {} (retention)", removal.stamp)
                                       : fmt::format("Removed archive {} (retention)", removal.path));
            records += removal.record;
            items += removal.items;
            bytes += removal.bytes;
            continue;
        }
        const std::string message = fmt::format("Could not remove {} (retention): {}", removal.path, std::strerror(error));
        if (status_.report(
                FVRunError::atDestination("purging", error, removal.path, message, FVRunError::Kind::Warning).listedWithLevel()))
            return;
        // The versions a record still names stay with it.
        if (removal.record) break;
    }
    if (records + items > 0)
        status_.log(fmt::format("Retention: removed {} run record{} and {} archived item{} ({}).", records,
                                records == 1 ? "" : "s", items, items == 1 ? "" : "s",
                                FVNumber::formattedDiskSizeString(static_cast<double>(bytes))));
}

}  // namespace ferrovane
