#include "scheduling/FVOverdueCheck.h"

#include <fmt/format.h>

#include <algorithm>

namespace ferrovane {

namespace {

constexpr std::time_t kDay = 86400;

std::string localTime(std::time_t at) {
    struct tm local {};
    localtime_r(&at, &local);
    char text[64];
    strftime(text, sizeof text, "%a %Y-%m-%d %H:%M", &local);
    return text;
}

}  // namespace

std::string FVOverdueNotice::text() const {
    std::string line = lastGoodRun == 0 ? fmt::format("No backup to {} has succeeded yet", destination)
                                        : fmt::format("No backup to {} since {} ({} day{})", destination,
                                                      localTime(lastGoodRun), days, days == 1 ? "" : "s");
    return line + (reason.empty() ? "." : ": " + reason + ".");
}

std::string FVOverdueCheck::reasonFor(const FVJobAttempt& attempt) {
    switch (attempt.outcome) {
    case FVJobOutcome::NotConnected: return "the disk was not connected";
    case FVJobOutcome::NoSpace: return "the disk is full";
    case FVJobOutcome::Stopped: return "the last run was stopped";
    case FVJobOutcome::Errors:
    case FVJobOutcome::Failed:
        return attempt.message.empty() ? "the last run failed" : "the last run failed: " + attempt.message;
    case FVJobOutcome::Finished:
    case FVJobOutcome::Warnings:
    case FVJobOutcome::Skipped: break;
    }
    return {};
}

std::optional<FVOverdueNotice> FVOverdueCheck::evaluate(const FVOptions& options, const std::string& destination,
                                                        const std::optional<FVJobStatus>& status,
                                                        std::time_t lastGoodAtDestination, std::time_t now) {
    if (!options.isScheduled() || options.overdueDays <= 0) return std::nullopt;
    FVOverdueNotice notice;
    notice.destination = destination;
    notice.lastGoodRun = std::max(lastGoodAtDestination, status ? status->lastSuccess : 0);
    const std::optional<FVJobAttempt>& latest = status ? status->lastAttempt : std::nullopt;
    if (notice.lastGoodRun == 0) {
        // Never backed up: told as soon as a run the schedule started did not back up.
        if (!status || !status->lastScheduledAttempt) return std::nullopt;
    } else if (now - notice.lastGoodRun < options.overdueDays * kDay) {
        return std::nullopt;
    }
    notice.days = notice.lastGoodRun == 0 ? 0 : (now - notice.lastGoodRun) / kDay;
    if (latest && latest->time >= notice.lastGoodRun) notice.reason = reasonFor(*latest);
    if (notice.reason.empty()) notice.reason = "no scheduled run has started since";
    return notice;
}

}  // namespace ferrovane
