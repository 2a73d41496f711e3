#pragma once
// Makes room by taking away the oldest archived run, one unit at a time, so that every point in
// time that stays is whole: the oldest stamp's archive folders (they only held versions for
// points before it, already gone), or, for a stamp that has only its record, that record and
// then the archive folders of the next stamp, which only that record still needed. The newest
// run's archive folders, the newest complete record and the mirror are never touched.

#include "engine/archive/FVArchivedRuns.h"
#include "engine/archive/FVDestinationTree.h"
#include "engine/config/FVMirrorLayout.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace ferrovane {

struct FVRunPurgeUnit {
    // The record that goes first (a record without its versions would be a false promise).
    std::optional<std::string> recordStamp;
    // The stamp whose archive folders go after it.
    std::optional<std::string> archiveStamp;
};

class FVOldestRunPurge {
public:
    FVOldestRunPurge(FVMirrorLayout layout, const FVDestinationTree& destination)
        : layout_(std::move(layout)), destination_(destination) {}

    // The unit that goes next from runs (oldest first); nothing when only what must stay is left.
    static std::optional<FVRunPurgeUnit> next(const std::vector<FVArchivedRun>& runs);
    // Runs as they are once unit is gone (to look ahead without deleting).
    static void apply(const FVRunPurgeUnit& unit, std::vector<FVArchivedRun>& runs);

    // The paths of unit in the order they go.
    std::vector<std::string> pathsOf(const FVRunPurgeUnit& unit, const std::vector<FVArchivedRun>& runs) const;
    // Deletes unit's paths, unlocking locked items; logs each removal through log. Returns the
    // warning of a path that could not go (the rest of the unit stays then), "" when all went.
    std::string remove(const FVRunPurgeUnit& unit, const std::vector<FVArchivedRun>& runs,
                       const std::function<void(const std::string&)>& log) const;

private:
    FVMirrorLayout layout_;
    const FVDestinationTree& destination_;
};

}  // namespace ferrovane
