#pragma once
// What the user sees of a destination's schedule: whether runs start by themselves, when the next
// calendar run is due, and how the last run the schedule (or the disk) started ended. The same
// words in "ferrovane config DEST schedule" and in the main window.

#include "engine/config/FVOptions.h"
#include "scheduling/FVJobStatus.h"

#include <ctime>
#include <optional>
#include <string>

namespace ferrovane {

struct FVScheduleSummary {
    bool scheduled = false;
    // "daily at 14:00", "weekly on Friday at 09:30", "when the disk is connected, at most once an
    // hour", joined with " and " when both are on; "off" otherwise.
    std::string when;
    // The next calendar run after now (local time); nothing without a calendar schedule.
    std::optional<std::time_t> nextRun;
    // "Tue 2026-11-24 14:00, finished" or "none yet".
    std::string lastScheduledRun;

    static FVScheduleSummary of(const FVOptions& options, const std::optional<FVJobStatus>& status, std::time_t now);
    // The next local time at hour:minute on weekday (0 and 7 Sunday; -1 any day).
    static std::time_t nextCalendarRun(int64_t hour, int64_t minute, int64_t weekday, std::time_t now);
    static std::string localTimeText(std::time_t at);
};

}  // namespace ferrovane
