#include "cli/FVCommanlineMode.h"

#include "FVVersion.h"
#include "cli/FVExitStatus.h"
#include "cli/FVRunSignals.h"
#include "engine/FVAdditions.h"
#include "fs/FVText.h"
#include "scheduling/FVScheduleSummary.h"
#include "search/FVSearchText.h"

#include <unistd.h>

#include <fmt/format.h>

#include <chrono>
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

    if (output.human()) std::printf("Ferrovane v%s (%s) launched.\n", FERROVANE_VERSION, FERROVANE_BUILD_NUMBER);
    std::fflush(stdout);
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

    // A missing destination falls through to the message for an unavailable configuration.
    switch (lock_.acquire(destinationPath_)) {
    case FVDestinationLock::Status::Busy:
        std::fprintf(stderr, "%s\n", FVDestinationLock::busyMessage(destinationPath_).c_str());
        return FVDestinationLock::busyExitStatus;
    case FVDestinationLock::Status::Failed:
        std::fprintf(stderr, "Ferrovane cannot make sure that no other run uses this destination (%s). Aborting.\n",
                     lock_.reason().c_str());
        recordAttempt(FVJobOutcome::Failed, "cannot lock the destination: " + lock_.reason());
        return FVExitStatus::kRunFailed;
    case FVDestinationLock::Status::Acquired:
    case FVDestinationLock::Status::Missing:
        break;
    }

    FVConfigurationReadResult loaded = FVConfigurationFile::read(settingsPath_);
    switch (loaded.status) {
    case FVConfigurationReadStatus::Unavailable:
        // A disk that is not plugged in is no failure of a job: it is recorded, and the overdue
        // notice tells the user when it lasts.
        if (attempt_ && attempt_->startedByItself() && !FVFileManager::pathExists(settingsPath_)) {
            say(fmt::format("The destination {} is not connected: nothing to back up now.",
                            FVSearchText::printable(destinationPath_)));
            recordAttempt(FVJobOutcome::NotConnected);
            return 0;
        }
        recordAttempt(FVJobOutcome::Failed, "the destination is not available or not configured");
        std::printf("Could not read configuration at destination path or destination path unavailable. Aborting.\n");
        std::fflush(stdout);
        notify({"Cannot sync to: " + FVText::lastPathComponent(destinationPath_), "",
                "Destination not available or unconfigured!"},
               true);
        return FVExitStatus::kRunFailed;
    case FVConfigurationReadStatus::NotPropertyList:
        std::printf("Failed to read destination configuration file, check permissions and process disk access. Aborting.\n");
        std::fprintf(stderr, "%s\n", loaded.problem.c_str());
        recordAttempt(FVJobOutcome::Failed, loaded.problem);
        return FVExitStatus::kRunFailed;
    case FVConfigurationReadStatus::Malformed:
        std::printf("Failed to read destination configuration file, check permissions and process disk access. Aborting.\n");
        std::fprintf(stderr, "%s. The file was left as it is.\n", loaded.problem.c_str());
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
        std::printf("The destination configuration holds an option that cannot be used. Aborting.\n");
        for (const std::string& problem : options.problems) std::fprintf(stderr, "%s\n", problem.c_str());
        std::fprintf(stderr, "Nothing was changed. Correct it with: ferrovane config %s set <option> <value>\n",
                     destinationPath_.c_str());
        recordAttempt(FVJobOutcome::Failed, options.problems.front());
        return FVExitStatus::kRunFailed;
    }
    for (const std::string& skipped : loaded.skippedItems) std::fprintf(stderr, "%s\n", skipped.c_str());
    configuration_ = std::move(loaded.configuration);
    skippedItems_ = std::move(loaded.skippedItems);
    options_ = options.options;
    if (skipsAsRecent()) return 0;
    return runBackup();
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
