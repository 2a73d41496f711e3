#include "app/FVDestinationSchedule.h"

#include "engine/run/FVStrings.h"
#include "scheduling/FVOverdueState.h"
#include "scheduling/FVScheduleSummary.h"

namespace ferrovane {

FVDestinationSchedule FVDestinationSchedule::of(const std::string& destination, const FVOptions& options,
                                                const std::optional<FVJobStatus>& status, std::time_t now) {
    FVDestinationSchedule shown;
    const FVScheduleSummary summary = FVScheduleSummary::of(options, status, now);
    if (!summary.scheduled)
        shown.line = FVStrings::localized("schedulelineoff");
    else if (summary.nextRun)
        shown.line = FVStrings::format("schedulelinenext", summary.when, FVScheduleSummary::localTimeText(*summary.nextRun),
                                       summary.lastScheduledRun);
    else
        shown.line = FVStrings::format("scheduleline", summary.when, summary.lastScheduledRun);
    // The newest good run either place knows of: the status misses runs of another machine or
    // of an older version, the destination's records miss nothing it holds. They are read only
    // when the status alone does not settle it.
    const bool recentInStatus =
        status && status->lastSuccess > 0 && now - status->lastSuccess < options.overdueDays * 86400;
    const bool judged = options.isScheduled() && options.overdueDays > 0 && !recentInStatus;
    const std::time_t lastGood = judged ? FVOverdueState::lastGoodRunAt(destination) : 0;
    shown.overdue = FVOverdueCheck::evaluate(options, destination, status, lastGood, now);
    return shown;
}

std::optional<FVOverdueNotice> FVDestinationSchedule::overdueWhileAway(const std::string& destination,
                                                                      const std::optional<FVJobStatus>& status,
                                                                      std::time_t now) {
    // Without its configuration, a destination is scheduled as far as its job has run.
    if (!status || !status->lastScheduledAttempt) return std::nullopt;
    FVOptions options;
    options.automationEnabled = true;
    options.overdueDays = status->overdueDays;
    return FVOverdueCheck::evaluate(options, destination, status, 0, now);
}

}  // namespace ferrovane
