#include "cli/FVCommanlineMode.h"

#include "FVVersion.h"
#include "cli/FVExitStatus.h"
#include "cli/FVOutput.h"
#include "cli/FVRunSignals.h"
#include "fs/FVFileStatus.h"
#include "engine/FVLog.h"
#include "fs/FVText.h"
#include "scheduling/FVScheduleSummary.h"
#include "search/FVSearchText.h"

#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <cstdio>
#include <thread>

namespace ferrovane {

namespace {

// Give the notification server time to take the message before the process ends.
void waitForNotificationHandOver() { std::this_thread::sleep_for(std::chrono::milliseconds(500)); }

}  // namespace

FVCommanlineMode::FVCommanlineMode(std::unique_ptr<FVUserNotifier> notifier)
    : notifier_(std::move(notifier)) {}

int FVCommanlineMode::main(const std::string& destinationPath, bool noNotifications, bool dryRun,
                           FVJobTrigger trigger, const std::string& jobID, const FVRunOutput& output) {
    FVRunSignals::block();

    // The argument is used as the bytes it is: Linux paths are bytes, not text in one encoding.
    std::string destination = destinationPath;
    if (destination.size() > 1 && destination.back() == '/')
        destination = FVText::standardizedPath(destination);
    FVCommanlineMode runner(makeDesktopNotifier());
    runner.setDisableUserNotifications(noNotifications || dryRun);
    runner.setDryRun(dryRun);
    runner.setOutput(output);
    runner.setAttempt(std::make_unique<FVRunAttempt>(destination, trigger, jobID));
    FVRunSignals::listen([&runner](int signal) { runner.interrupt(signal); });
    int status = runner.startBackupWithDestinationPath(destination);
    std::fflush(stdout);
    std::fflush(stderr);
    // The results are on disk; threads still winding down have nothing left to save.
    std::_Exit(status);
}

void FVCommanlineMode::notify(const FVUserNotification& notification, bool wait) {
    if (disableUserNotifications_) return;
    notifier_->deliver(notification);
    if (wait) waitForNotificationHandOver();
}

int FVCommanlineMode::startBackupWithDestinationPath(const std::string& destinationPath) {
    destinationPath_ = destinationPath;
    settingsPath_ = FVConfigurationFile::formattedPath(destinationPath);

    const std::string shownDestination = FVSearchText::printable(destinationPath_);
    // A missing destination falls through to the message for an unavailable configuration.
    switch (lock_.acquire(destinationPath_)) {
    case FVDestinationLock::Status::Busy:
        FVOutput::error("{}", FVSearchText::printable(FVDestinationLock::busyMessage(destinationPath_)));
        return FVDestinationLock::busyExitStatus;
    case FVDestinationLock::Status::Failed:
        refuseToLoad(fmt::format("cannot make sure that no other run uses {} ({}); nothing was done. Check that "
                                 "the destination is writable and try again",
                                 shownDestination, lock_.reason()));
        recordAttempt(FVJobOutcome::Failed, "cannot lock the destination: " + lock_.reason());
        return FVExitStatus::kRunFailed;
    case FVDestinationLock::Status::Acquired:
    case FVDestinationLock::Status::Missing:
        break;
    }

    FVConfigurationReadResult loaded = FVConfigurationFile::read(settingsPath_);
    const std::string shownSettings = FVSearchText::printable(settingsPath_);
    switch (loaded.status) {
    case FVConfigurationReadStatus::Unavailable:
        // A disk that is not plugged in is no failure of a job: it is recorded, and the overdue
        // notice tells the user when it lasts.
        if (attempt_ && attempt_->startedByItself() && !FVFileStatus::pathExists(settingsPath_)) {
            say(fmt::format("The destination {} is not connected: nothing to back up now.",
                            FVSearchText::printable(destinationPath_)));
            recordAttempt(FVJobOutcome::NotConnected);
            return 0;
        }
        recordAttempt(FVJobOutcome::Failed, "the destination is not available or not configured");
        refuseToLoad(unavailableMessage());
        notify({"Cannot sync to: " + FVText::lastPathComponent(destinationPath_), "",
                "Destination not available or unconfigured!"},
               true);
        return FVExitStatus::kRunFailed;
    case FVConfigurationReadStatus::NotPropertyList:
    case FVConfigurationReadStatus::Malformed:
        // The reason may name the file itself.
        refuseToLoad(fmt::format("cannot use {}. The file was left as it is; repair it, or move it away and set the "
                                 "destination up again with ferrovane config {} add SOURCE",
                                 loaded.problem.starts_with(settingsPath_)
                                     ? FVSearchText::printable(loaded.problem)
                                     : shownSettings + ": " + FVSearchText::printable(loaded.problem),
                                 shownDestination));
        recordAttempt(FVJobOutcome::Failed, loaded.problem);
        return FVExitStatus::kRunFailed;
    case FVConfigurationReadStatus::Ok:
        break;
    }
    // Nothing is touched on a value the program cannot trust.
    FVOptionsReadResult options = FVOptionTable::read(*loaded.configuration.settings);
    if (attempt_) attempt_->identify(loaded.configuration.settings->stringValue(FVOptionKey::UUID).value_or(""),
                                     options.problems.empty() ? std::optional<int64_t>(options.options.overdueDays)
                                                              : std::nullopt);
    if (!options.problems.empty()) {
        std::string problems;
        for (const std::string& problem : options.problems) problems += FVSearchText::printable(problem) + " ";
        refuseToLoad(fmt::format("the configuration {} holds an option that cannot be used: {}Nothing was changed. "
                                 "Correct it with: ferrovane config {} set OPTION VALUE",
                                 shownSettings, problems, shownDestination));
        recordAttempt(FVJobOutcome::Failed, options.problems.front());
        return FVExitStatus::kRunFailed;
    }
    // Only a run that starts says so: a refused one leaves standard output empty.
    if (output_.human()) std::printf("Ferrovane v%s (%s) launched.\n", FERROVANE_VERSION, FERROVANE_BUILD_NUMBER);
    std::fflush(stdout);
    configuration_ = std::move(loaded.configuration);
    skippedItems_ = std::move(loaded.skippedItems);
    options_ = options.options;
    if (skipsAsRecent()) return 0;
    return runBackup();
}

std::string FVCommanlineMode::unavailableMessage() const {
    const std::string destination = FVSearchText::printable(destinationPath_);
    const std::string settings = FVSearchText::printable(settingsPath_);
    const std::string toSetUp = fmt::format("To make {} a destination: ferrovane config {} add SOURCE", destination,
                                            destination);
    struct stat st {};
    if (stat(destinationPath_.c_str(), &st) != 0)
        return fmt::format("cannot read the configuration {} ({}: {}). Is the disk connected? {}", settings,
                           destination, std::strerror(errno), toSetUp);
    if (!S_ISDIR(st.st_mode)) return fmt::format("{} is not a folder. {}", destination, toSetUp);
    if (stat(settingsPath_.c_str(), &st) != 0)
        return fmt::format("cannot read the configuration {} ({}). Is the disk connected? {}", settings,
                           std::strerror(errno), toSetUp);
    if (S_ISDIR(st.st_mode))
        return fmt::format("the configuration {} is a folder. Move it away, then: ferrovane config {} add SOURCE",
                           settings, destination);
    return fmt::format("cannot read the configuration {} ({}). Check its permissions, or run as its owner",
                       settings, std::strerror(access(settingsPath_.c_str(), R_OK) == 0 ? EIO : errno));
}

void FVCommanlineMode::refuseToLoad(const std::string& message) {
    FVOutput::error("{}", message);
    FVLog& log = FVLog::currentLog();
    log.setRunContext(destinationPath_, "");
    log.newLog();
    log.addLogLine(fmt::format("Ferrovane cannot sync to: {}", destinationPath_));
    log.addLogLine("ERROR: " + message);
    log.closeLog();
    if (std::string warning = log.unwrittenWarning(); !warning.empty())
        FVOutput::warning("{}", FVSearchText::printable(warning));
}

void FVCommanlineMode::recordAttempt(FVJobOutcome outcome, const std::string& message) {
    if (attempt_ && !dryRun_) attempt_->record(outcome, message);
}

bool FVCommanlineMode::skipsAsRecent() {
    if (!attempt_ || attempt_->trigger() != FVJobTrigger::Connect) return false;
    std::optional<std::time_t> last = attempt_->recentSuccess(options_.connectedRunIntervalMinutes, std::time(nullptr));
    if (!last) return false;
    say(fmt::format("Skipped: the last good run to {} was at {}, less than {} minutes ago.",
                    FVSearchText::printable(destinationPath_), FVScheduleSummary::localTimeText(*last),
                    options_.connectedRunIntervalMinutes));
    recordAttempt(FVJobOutcome::Skipped);
    return true;
}

}  // namespace ferrovane
