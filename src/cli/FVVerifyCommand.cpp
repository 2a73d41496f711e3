#include "cli/FVVerifyCommand.h"

#include "cli/FVExitStatus.h"
#include "cli/FVJsonText.h"
#include "cli/FVOutput.h"
#include "cli/FVProgressLine.h"
#include "cli/FVRunSignals.h"
#include "engine/config/FVDestinationLock.h"
#include "engine/record/FVVerification.h"
#include "engine/run/FVLog.h"
#include "search/FVSearchText.h"

#include <unistd.h>

#include <atomic>
#include <cstdlib>

namespace ferrovane::FVVerifyCommand {

namespace {

std::atomic<int> cancellingSignal{0};
std::atomic<FVVerification*> activeVerification{nullptr};

void onSignal(int signal) {
    int none = 0;
    cancellingSignal.compare_exchange_strong(none, signal);
    if (FVVerification* verification = activeVerification.load()) verification->cancel();
}

std::string shown(std::string_view text) { return FVSearchText::printable(text); }

const char* statusName(FVVerificationSummary::Status status) {
    switch (status) {
    case FVVerificationSummary::Status::Clean: return "intact";
    case FVVerificationSummary::Status::Differs: return "differs";
    case FVVerificationSummary::Status::Cancelled: return "stopped";
    case FVVerificationSummary::Status::CannotRun: return "cannot run";
    case FVVerificationSummary::Status::Busy: return "busy";
    }
    return "";
}

}  // namespace

int main(const Arguments& arguments) {
    FVRunSignals::block();
    FVRunSignals::listen(onSignal);
    FVProgressLine progress(stderr, FVProgressLine::styleFor(STDERR_FILENO));
    bool first = true;
    if (arguments.json) FVOutput::print(stdout, "{{{}, \"findings\": [", FVJsonText::formatVersionField());
    FVVerification verification(
        {arguments.destination, arguments.at, arguments.sources},
        [&](const FVVerification::Progress& p) {
            FVProgressStep step;
            step.task = p.task;
            step.percent = p.percent;
            step.files = p.files;
            step.filesVerb = "read";
            step.bytes = p.bytes;
            progress.update(step);
        },
        [&](const FVVerificationFinding& finding) {
            const char* kind = FVVerificationFinding::kindName(finding.kind);
            if (arguments.json) {
                FVOutput::print(stdout, "{}\n  {{\"kind\": {}, {}, \"detail\": {}}}", first ? "" : ",",
                                FVJsonText::quoted(kind), FVJsonText::pathFields("path", finding.path),
                                FVJsonText::quoted(finding.detail));
            } else {
                progress.finish();
                FVOutput::print(stdout, "{}: {}{}\n", kind, shown(finding.path),
                                finding.detail.empty() ? "" : " (" + shown(finding.detail) + ")");
            }
            std::fflush(stdout);
            first = false;
        });
    activeVerification.store(&verification);
    if (cancellingSignal.load()) verification.cancel();
    FVVerificationSummary summary = verification.run();
    if (std::string warning = FVLog::currentLog().unwrittenWarning(); !warning.empty())
        FVOutput::warning("{}", shown(warning));
    activeVerification.store(nullptr);
    progress.finish();

    const std::string line = FVVerification::describe(summary);
    if (arguments.json)
        FVOutput::print(stdout,
                        "{}],\n \"status\": \"{}\", \"run\": {}, \"files\": {}, \"bytes\": {}, \"damaged\": {}, "
                        "\"missing\": {}, \"unexpected\": {}, \"sourcesDiffering\": {}, \"unreadable\": {}, "
                        "\"gone\": {}, \"unrecorded\": {}, \"summary\": {}}}\n",
                        first ? "" : "\n", statusName(summary.status), FVJsonText::quoted(summary.run), summary.files,
                        summary.bytes, summary.damaged, summary.missing, summary.unexpected,
                        summary.sourcesDiffering, summary.unreadable, summary.gone, summary.unrecorded,
                        FVJsonText::quoted(line));
    switch (summary.status) {
    case FVVerificationSummary::Status::Clean:
        if (!arguments.json) FVOutput::print(stdout, "Verify: {}\n", shown(line));
        return FVExitStatus::kOk;
    case FVVerificationSummary::Status::Differs:
        if (!arguments.json) FVOutput::print(stdout, "Verify: {}\n", shown(line));
        return FVExitStatus::kIncomplete;
    case FVVerificationSummary::Status::Cancelled:
        FVOutput::error("{}", shown(line));
        return FVExitStatus::interrupted(cancellingSignal.load());
    case FVVerificationSummary::Status::Busy:
        FVOutput::error("{}", shown(line));
        return FVDestinationLock::busyExitStatus;
    case FVVerificationSummary::Status::CannotRun:
        break;
    }
    FVOutput::error("cannot verify {}: {}", shown(arguments.destination), shown(line));
    return FVExitStatus::kRunFailed;
}

}  // namespace ferrovane::FVVerifyCommand
