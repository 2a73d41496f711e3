#include "cli/FVRunAttempt.h"

#include "cli/FVOutput.h"
#include "engine/record/FVRunRecords.h"
#include "scheduling/FVOverdueNotifier.h"
#include "search/FVSearchText.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdio>

namespace ferrovane {

namespace {

// The status keeps one line for the user, not a whole error report.
constexpr size_t kLongestMessage = 300;

std::string oneLine(const std::string& message) {
    std::string line = FVSearchText::printable(message.substr(0, message.find('\n')));
    if (line.size() > kLongestMessage) line = line.substr(0, kLongestMessage) + "...";
    return line;
}

}  // namespace

FVRunAttempt::FVRunAttempt(std::string destination, FVJobTrigger trigger, std::string jobID, FVJobStatusStore store)
    : destination_(std::move(destination)), trigger_(trigger), uuid_(std::move(jobID)), store_(std::move(store)) {}

void FVRunAttempt::identify(const std::string& uuid, std::optional<int64_t> overdueDays) {
    if (!uuid.empty()) uuid_ = uuid;
    overdueDays_ = overdueDays;
}

std::optional<std::time_t> FVRunAttempt::recentSuccess(int64_t intervalMinutes, std::time_t now) const {
    if (intervalMinutes <= 0) return std::nullopt;
    std::time_t last = 0;
    if (std::optional<FVJobStatus> status = store_.read(uuid_)) last = status->lastSuccess;
    // A run that left no status (another account, a lost state folder) still shows in the records.
    for (const FVRunRecord& record : FVRunRecords(destination_).list())
        if (record.complete()) last = std::max(last, record.time);
    if (last == 0 || now - last >= intervalMinutes * 60) return std::nullopt;
    return last;
}

void FVRunAttempt::record(FVJobOutcome outcome, const std::string& message) {
    if (recorded_ || uuid_.empty()) return;
    recorded_ = true;
    std::string error;
    FVJobAttempt attempt{std::time(nullptr), trigger_, outcome, oneLine(message)};
    if (!store_.record(uuid_, destination_, attempt, overdueDays_, &error))
        FVOutput::warning("the outcome of this run could not be kept for the schedule: {}", error);
    // A run nobody watched is where the user learns that backups have stopped.
    else if (startedByItself())
        FVOverdueNotifier::noticeIfOverdue(uuid_);
}

}  // namespace ferrovane
