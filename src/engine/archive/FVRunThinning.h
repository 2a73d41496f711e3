#pragma once
// Thins a destination's runs by the retention policy at the end of a run, after the age purge:
// removes what FVThinningPlan names (records first), logs each removal and counts what went. A
// dry run only lists it. Called under the destination's lock, which the run holds.

#include "engine/archive/FVDestinationTree.h"
#include "engine/run/FVRunSettings.h"
#include "engine/run/FVRunStatus.h"

namespace ferrovane {

class FVRunThinning {
public:
    FVRunThinning(const FVRunSettings& settings, const FVDestinationTree& destination, FVRunStatus& status)
        : settings_(settings), destination_(destination), status_(status) {}

    // Only when the options switch retention on.
    void run();

private:
    const FVRunSettings& settings_;
    const FVDestinationTree& destination_;
    FVRunStatus& status_;
};

}  // namespace ferrovane
