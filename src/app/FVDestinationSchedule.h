#pragma once
// What the main window tells of the open destination's schedule: the line that says whether runs
// start by themselves, when the next one is due and how the last scheduled one ended, and the
// overdue notice for the banner when no backup has succeeded for too long.

#include "engine/config/FVOptions.h"
#include "scheduling/FVJobStatus.h"
#include "scheduling/FVOverdueCheck.h"

#include <ctime>
#include <optional>
#include <string>

namespace ferrovane {

struct FVDestinationSchedule {
    std::string line;
    std::optional<FVOverdueNotice> overdue;

    static FVDestinationSchedule of(const std::string& destination, const FVOptions& options,
                                    const std::optional<FVJobStatus>& status, std::time_t now);
    // For a destination that cannot be read (a disk that is away): judged by what its scheduled
    // job recorded, with the overdue limit of its last reachable run.
    static std::optional<FVOverdueNotice> overdueWhileAway(const std::string& destination,
                                                           const std::optional<FVJobStatus>& status, std::time_t now);
};

}  // namespace ferrovane
