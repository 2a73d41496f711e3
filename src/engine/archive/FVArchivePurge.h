#pragma once
// Deletes the archive folders (__removed/<stamp>, __changed/<stamp>) at least a given number of
// days old, judged by each folder's own modification date.

#include "engine/archive/FVDestinationTree.h"
#include "engine/run/FVRunSettings.h"
#include "engine/run/FVRunStatus.h"

#include <cstdint>
#include <string>

namespace ferrovane {

class FVArchivePurge {
public:
    FVArchivePurge(const FVRunSettings& settings, const FVDestinationTree& destination, FVRunStatus& status)
        : settings_(settings), destination_(destination), status_(status) {}

    // Each kind only when the options keep archives of it and set an age.
    void run();

private:
    void purgeFolder(const std::string& folder, int64_t age);

    const FVRunSettings& settings_;
    const FVDestinationTree& destination_;
    FVRunStatus& status_;
};

}  // namespace ferrovane
