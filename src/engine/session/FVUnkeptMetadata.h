#pragma once
// What the destination could not keep of the sources, said once per run as a warning in the log
// and in the run's outcome: the names of a file with several names stored as separate files, and
// attributes or access control lists left out of the copies. Either way the mirror is not the
// sources' equal, so the run does not finish successfully; and neither makes the next run copy
// anything again.

#include "engine/analysis/FVHardLinkGroups.h"
#include "engine/record/FVRunRecorder.h"
#include "engine/run/FVRunStatus.h"
#include "fs/FVDestinationProfile.h"

#include <string>
#include <vector>

namespace ferrovane {

class FVUnkeptMetadata {
public:
    FVUnkeptMetadata(const FVDestinationProfile& profile, FVRunStatus& status) : profile_(profile), status_(status) {}

    // After each source item: what its walk met and what the run's record holds so far (nullptr
    // when the run keeps no record).
    void check(const FVHardLinkGroups& groups, const FVRunRecorder* recorder);
    const std::vector<std::string>& warnings() const { return warnings_; }

private:
    void warn(std::string message);

    const FVDestinationProfile& profile_;
    FVRunStatus& status_;
    bool linksSaid_ = false;
    bool attributesSaid_ = false;
    std::vector<std::string> warnings_;
};

}  // namespace ferrovane
