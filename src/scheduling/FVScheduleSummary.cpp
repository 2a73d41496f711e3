#include "scheduling/FVScheduleSummary.h"

#include "engine/run/FVNumber.h"

#include <fmt/format.h>

namespace ferrovane {

namespace {

const char* const kWeekdayNames[] = {"Sunday", "Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday"};

std::string intervalText(int64_t minutes) {
    if (minutes <= 0) return "every time";
    if (minutes % 1440 == 0) return minutes == 1440 ? "at most once a day" : fmt::format("at most once in {} days", minutes / 1440);
    if (minutes % 60 == 0) return minutes == 60 ? "at most once an hour" : fmt::format("at most once in {} hours", minutes / 60);
    return "at most once in " + FVNumber::counted(static_cast<uint64_t>(minutes), "minute");
}

// How an attempt ended, in the words a person reads; scripts get the stable names in JSON.
const char* outcomeWords(FVJobOutcome outcome) {
    switch (outcome) {
    case FVJobOutcome::Finished: return "finished";
    case FVJobOutcome::Warnings: return "finished with warnings";
    case FVJobOutcome::Errors: return "finished with errors";
    case FVJobOutcome::Stopped: return "stopped";
    case FVJobOutcome::Failed: return "failed";
    case FVJobOutcome::NotConnected: return "the disk was not connected";
    case FVJobOutcome::NoSpace: return "not enough room on the disk";
    case FVJobOutcome::Skipped: return "skipped, a backup was recent enough";
    }
    return "failed";
}

}  // namespace

std::string FVScheduleSummary::localTimeText(std::time_t at) {
    struct tm local {};
    localtime_r(&at, &local);
    char text[64];
    strftime(text, sizeof text, "%a %Y-%m-%d %H:%M", &local);
    return text;
}

std::time_t FVScheduleSummary::nextCalendarRun(int64_t hour, int64_t minute, int64_t weekday, std::time_t now) {
    struct tm local {};
    localtime_r(&now, &local);
    for (int day = 0; day <= 7; ++day) {
        struct tm candidate = local;
        candidate.tm_mday += day;
        candidate.tm_hour = static_cast<int>(hour);
        candidate.tm_min = static_cast<int>(minute);
        candidate.tm_sec = 0;
        candidate.tm_isdst = -1;  // as the calendar of that day has it
        std::time_t at = mktime(&candidate);
        if (at <= now) continue;
        if (weekday >= 0 && candidate.tm_wday != weekday % 7) continue;
        return at;
    }
    return now;
}

FVScheduleSummary FVScheduleSummary::of(const FVOptions& options, const std::optional<FVJobStatus>& status,
                                        std::time_t now) {
    FVScheduleSummary summary;
    summary.scheduled = options.isScheduled();
    std::string calendar, connected;
    if (options.automationEnabled) {
        const int64_t weekday = options.automationIntervalSelection == 0 ? -1 : options.automationWeekdaySelection;
        const std::string time = fmt::format("{:02}:{:02}", options.automationTimeHours, options.automationTimeMinutes);
        calendar = weekday < 0 ? "daily at " + time : fmt::format("weekly on {} at {}", kWeekdayNames[weekday % 7], time);
        summary.nextRun = nextCalendarRun(options.automationTimeHours, options.automationTimeMinutes, weekday, now);
    }
    if (options.backUpWhenConnected)
        connected = "when the disk is connected, " + intervalText(options.connectedRunIntervalMinutes);
    summary.when = calendar.empty() ? (connected.empty() ? "off" : connected)
                                    : (connected.empty() ? calendar : calendar + " and " + connected);
    if (status && status->lastScheduledAttempt) {
        const FVJobAttempt& last = *status->lastScheduledAttempt;
        summary.lastScheduledRun = localTimeText(last.time) + ", " + outcomeWords(last.outcome);
        if (!last.message.empty()) summary.lastScheduledRun += ": " + last.message;
    } else {
        summary.lastScheduledRun = "none yet";
    }
    return summary;
}

}  // namespace ferrovane
