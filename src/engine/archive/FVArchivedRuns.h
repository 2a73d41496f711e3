#pragma once
// The runs a destination still holds, oldest first: every stamp that names an archive folder
// (__changed/<stamp>, __removed/<stamp>) or a record (__runs/<stamp>.fvmanifest). What purging
// decides is taken on this list; a run's archive folders hold the versions that the run displaced,
// which the points in time before it need.

#include "engine/config/FVMirrorLayout.h"
#include "engine/record/FVRunRecords.h"

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace ferrovane {

struct FVArchivedRun {
    std::string stamp;
    std::time_t time = 0;
    bool hasChangedFolder = false;
    bool hasRemovedFolder = false;
    // The run's record, when it has one (it may be damaged: see FVRunRecord::problem).
    std::optional<FVRunRecord> record;

    bool hasArchives() const { return hasChangedFolder || hasRemovedFolder; }
};

class FVArchivedRuns {
public:
    explicit FVArchivedRuns(FVMirrorLayout layout) : layout_(std::move(layout)) {}

    // Oldest first, by the time in the stamp, then by name. Names that are no stamp are left out.
    std::vector<FVArchivedRun> list() const;

private:
    FVMirrorLayout layout_;
};

}  // namespace ferrovane
