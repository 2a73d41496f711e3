#pragma once
// What thinning a destination's runs by the retention policy removes, decided without changing
// anything. The policy picks the points in time (complete records) that stay; every other record
// goes. A kept point in time stays whole: the versions it needs that later runs displaced lie in
// their archive folders, so an archive folder stays whole when the run just before it is kept,
// and otherwise keeps only the items that the latest kept record before it shows (same kind, size
// and modification time). Without such a record to judge by (runs made before records existed,
// damaged records), an archive folder stays when the policy keeps its own stamp. The newest run
// and the mirror are never touched.

#include "engine/archive/FVArchivedRuns.h"
#include "engine/config/FVMirrorLayout.h"
#include "engine/config/FVRetentionPolicy.h"

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace ferrovane {

struct FVThinningRemoval {
    std::string path;   // inside the destination
    std::string stamp;  // of the run it belonged to
    bool record = false;
    uint64_t items = 0;  // archived entries it holds, itself included; 0 for a record
    uint64_t bytes = 0;  // regular files' sizes (the record's own for a record)
};

class FVThinningPlan {
public:
    // timeGranularityNs: how finely the destination keeps modification times.
    FVThinningPlan(FVMirrorLayout layout, FVRetentionPolicy policy, int64_t timeGranularityNs = 1)
        : layout_(std::move(layout)), policy_(policy), timeGranularityNs_(std::max<int64_t>(timeGranularityNs, 1)) {}

    // runs: oldest first (FVArchivedRuns::list). comingRun: the stamp of a run about to be made
    // (a dry run's), counted as the newest point in time; empty when the newest listed run is the
    // latest. Records come first: removed in this order, an interruption leaves only whole points
    // in time and archived items that the next thinning takes.
    std::vector<FVThinningRemoval> removals(const std::vector<FVArchivedRun>& runs, std::time_t now,
                                            const std::string& comingRun = {}) const;

private:
    struct Folder;
    // Lists an archive folder's items; false when it cannot be read whole.
    bool list(Folder& folder) const;
    // Marks the items that the record shows; false when the record turns out damaged.
    bool judge(std::vector<Folder*>& folders, const FVRunRecord& record) const;
    void removeUnneeded(const Folder& folder, std::vector<FVThinningRemoval>& out) const;
    void removeWhole(const Folder& folder, std::vector<FVThinningRemoval>& out) const;

    FVMirrorLayout layout_;
    FVRetentionPolicy policy_;
    int64_t timeGranularityNs_;
};

}  // namespace ferrovane
