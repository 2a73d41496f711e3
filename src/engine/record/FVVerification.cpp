#include "engine/record/FVVerification.h"

#include "engine/config/FVDestinationLock.h"
#include "engine/record/FVVerificationPass.h"
#include "engine/run/FVLog.h"
#include "engine/run/FVNumber.h"

#include <fmt/format.h>

#include <algorithm>

namespace ferrovane {

const char* FVVerificationFinding::kindName(Kind kind) {
    switch (kind) {
    case Kind::Damaged: return "damaged";
    case Kind::Missing: return "missing";
    case Kind::Unexpected: return "unexpected";
    case Kind::SourceDiffers: return "source differs";
    case Kind::Unreadable: return "unreadable";
    case Kind::Gone: return "gone";
    case Kind::Unrecorded: return "unrecorded";
    }
    return "";
}

FVVerification::FVVerification(Options options, ProgressCallback progress, FindingCallback finding)
    : options_(std::move(options)), progress_(std::move(progress)), finding_(std::move(finding)) {}

FVVerificationSummary FVVerification::run() {
    FVVerificationSummary summary;
    FVDestinationLock lock;
    switch (lock.acquire(options_.destination, FVDestinationLock::Mode::Shared)) {
    case FVDestinationLock::Status::Busy:
        summary.status = FVVerificationSummary::Status::Busy;
        summary.problem = FVDestinationLock::busyMessage(options_.destination);
        return summary;
    case FVDestinationLock::Status::Missing:
        summary.problem = "the destination " + options_.destination + " is not a folder";
        return summary;
    case FVDestinationLock::Status::Failed:
        summary.problem = "cannot make sure that no run uses the destination (" + lock.reason() + ")";
        return summary;
    case FVDestinationLock::Status::Acquired:
        break;
    }
    const FVRunRecords records(options_.destination);
    const std::vector<FVRunRecord> runs = records.list();
    auto latest = std::find_if(runs.rbegin(), runs.rend(), [](const FVRunRecord& run) { return run.complete(); });
    if (latest == runs.rend()) {
        summary.problem = "the destination holds no record of a complete run (" + records.folder() +
                          "); back it up once with this version, then verify it";
        return summary;
    }
    size_t latestIndex = static_cast<size_t>(runs.rend() - latest) - 1;
    size_t chosenIndex = latestIndex;
    if (!options_.at.empty()) {
        std::optional<FVRunRecord> chosen = records.resolve(options_.at, &summary.problem);
        if (!chosen) return summary;
        chosenIndex = static_cast<size_t>(
            std::find_if(runs.begin(), runs.end(), [&](const FVRunRecord& run) { return run.stamp == chosen->stamp; }) -
            runs.begin());
    }
    summary.run = runs[chosenIndex].stamp;
    {
        FVVerificationPass pass(options_, progress_, finding_, cancelled_, summary);
        pass.verifyMirror(runs, latestIndex);
        if (!cancelled_.load(std::memory_order_relaxed)) pass.verifyArchives(runs);
        if (!cancelled_.load(std::memory_order_relaxed) && chosenIndex != latestIndex)
            pass.locateVersions(runs, chosenIndex);
        pass.finish();
    }
    bool differs = summary.damaged || summary.missing || summary.unexpected || summary.sourcesDiffering ||
                   summary.unreadable || summary.gone;
    summary.status = cancelled_.load(std::memory_order_relaxed) ? FVVerificationSummary::Status::Cancelled
                     : differs                                  ? FVVerificationSummary::Status::Differs
                                                                : FVVerificationSummary::Status::Clean;
    FVLog& log = FVLog::currentLog();
    log.newLog();
    log.addLogLine(fmt::format("Verify of {}: {}", options_.destination, describe(summary)));
    log.closeLog();
    return summary;
}

std::string FVVerification::describe(const FVVerificationSummary& summary) {
    using Status = FVVerificationSummary::Status;
    if (summary.status == Status::CannotRun || summary.status == Status::Busy) return summary.problem;
    std::string text = fmt::format("{} ({}) read against the run {}", FVNumber::counted(summary.files, "file"),
                                   FVNumber::formattedDiskSizeString(static_cast<double>(summary.bytes)), summary.run);
    std::string counts;
    auto add = [&](uint64_t count, const char* what) {
        if (count) counts += fmt::format("{}{} {}", counts.empty() ? "" : ", ", count, what);
    };
    add(summary.damaged, "damaged");
    add(summary.missing, "missing");
    add(summary.unexpected, "unexpected");
    add(summary.sourcesDiffering, "source files differ");
    add(summary.unreadable, "unreadable");
    add(summary.gone, "gone");
    if (summary.status == Status::Cancelled) return text + ": stopped" + (counts.empty() ? "" : " (" + counts + ")");
    text += counts.empty() ? ": intact" : ": " + counts;
    if (summary.unrecorded) text += fmt::format(" ({} archived files older than the first record)", summary.unrecorded);
    return text;
}

}  // namespace ferrovane
