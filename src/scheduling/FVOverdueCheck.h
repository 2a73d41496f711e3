#pragma once
// Whether the user must be told that a scheduled destination has gone too long without a good
// backup, and why later runs failed or did not start. Decided from values only; the command line,
// the login check and the window each gather them and show the notice their own way.

#include "engine/config/FVOptions.h"
#include "scheduling/FVJobStatus.h"

#include <ctime>
#include <optional>
#include <string>

namespace ferrovane {

struct FVOverdueNotice {
    std::string destination;
    // When the last successful run ended; 0 when there never was one.
    std::time_t lastGoodRun = 0;
    int64_t days = 0;  // whole days since lastGoodRun
    // Why later runs did not back up, in a few words ("the disk was not connected"); may be empty.
    std::string reason;

    // One line for the user: "No backup to /media/me/Disk since Tue 2026-11-10 14:02 (14 days):
    // the disk was not connected."
    std::string text() const;
};

class FVOverdueCheck {
public:
    // status: what the job status store keeps for the destination's identity; lastGoodAtDestination:
    // the newest good run the destination itself shows (its records, its items' last backup), 0
    // when unknown or unreachable. Only destinations whose runs start by themselves are ever overdue.
    static std::optional<FVOverdueNotice> evaluate(const FVOptions& options, const std::string& destination,
                                                   const std::optional<FVJobStatus>& status,
                                                   std::time_t lastGoodAtDestination, std::time_t now);
    // The few words for an attempt that did not back up.
    static std::string reasonFor(const FVJobAttempt& attempt);
};

}  // namespace ferrovane
