#include "cli/FVCommandLineReport.h"

#include "cli/FVLocaleText.h"
#include "cli/FVOutput.h"
#include "engine/session/FVBackupSession.h"
#include "search/FVSearchText.h"

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>

namespace ferrovane {

FVCommandLineReport::FVCommandLineReport(std::unique_ptr<FVUserNotifier> notifier, std::unique_ptr<FVRunAttempt> attempt)
    : notifier_(std::move(notifier)), attempt_(std::move(attempt)) {}

void FVCommandLineReport::setOutput(const FVRunOutput& output) {
    output_ = output;
    FVProgressLine::Style style = FVProgressLine::styleFor(STDOUT_FILENO);
    if (output.progress == FVRunOutput::Progress::Json) style = FVProgressLine::Style::Json;
    else if (output.progress == FVRunOutput::Progress::None || !output.human()) style = FVProgressLine::Style::None;
    progress_ = std::make_unique<FVProgressLine>(stdout, style);
}

void FVCommandLineReport::say(const std::string& line) {
    if (output_.human()) progress_->interject(FVLocaleText::shown(line));
}

void FVCommandLineReport::notify(const FVUserNotification& notification, bool wait) {
    if (disableUserNotifications_) return;
    notifier_->deliver(notification);
    if (wait) std::this_thread::sleep_for(std::chrono::milliseconds(500));
}

void FVCommandLineReport::recordAttempt(FVJobOutcome outcome, const std::string& message) {
    if (attempt_ && !dryRun_) attempt_->record(outcome, message);
}

void FVCommandLineReport::printErrors(const std::vector<std::string>& errors) {
    progress_->finish();
    std::fflush(stdout);
    // One line per error, whatever the names in it hold.
    for (const std::string& error : errors)
        FVOutput::error("{}", FVLocaleText::shown(FVSearchText::printable(FVOutput::withoutErrorTag(error))));
    std::fflush(stderr);
}

void FVCommandLineReport::printNotes(const FVBackupSession& session) {
    progress_->finish();
    std::fflush(stdout);
    for (const std::string& warning : session.environmentWarnings())
        FVOutput::warning("{}", FVLocaleText::shown(FVSearchText::printable(warning)));
    // Quiet output keeps what went wrong and what makes the exit status; a note is neither.
    if (output_.verbosity != FVRunOutput::Verbosity::Quiet)
        for (const std::string& note : session.notes())
            FVOutput::warning("{}", FVLocaleText::shown(FVSearchText::printable(note)));
    for (const std::string& warning : session.warnings())
        FVOutput::warning("{}", FVLocaleText::shown(FVSearchText::printable(warning)));
    std::fflush(stderr);
}

}  // namespace ferrovane
