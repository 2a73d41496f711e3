#include "cli/FVCommandLineMode.h"

#include "FVVersion.h"
#include "cli/FVExitStatus.h"
#include "cli/FVOutput.h"
#include "cli/FVRunSignals.h"
#include "engine/run/FVLog.h"
#include "engine/run/FVStrings.h"
#include "fs/FVFileStatus.h"
#include "fs/FVText.h"
#include "scheduling/FVScheduleSummary.h"
#include "search/FVSearchText.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <cstdio>

namespace ferrovane {

FVCommandLineMode::FVCommandLineMode(std::unique_ptr<FVUserNotifier> notifier, std::unique_ptr<FVRunAttempt> attempt)
    : report_(std::move(notifier), std::move(attempt)) {}

FVCommandLineMode::~FVCommandLineMode() = default;

int FVCommandLineMode::main(const std::string& destinationPath, bool noNotifications, bool dryRun,
                           FVJobTrigger trigger, const std::string& jobID, const FVRunOutput& output) {
    FVRunSignals::block();

    // The argument is used as the bytes it is: Linux paths are bytes, not text in one encoding.
    std::string destination = destinationPath;
    if (destination.size() > 1 && destination.back() == '/')
        destination = FVText::standardizedPath(destination);
    FVCommandLineMode runner(makeDesktopNotifier(), std::make_unique<FVRunAttempt>(destination, trigger, jobID));
    runner.report().setDisableUserNotifications(noNotifications || dryRun);
    runner.report().setDryRun(dryRun);
    runner.report().setOutput(output);
    FVRunSignals::listen([&runner](int signal) { runner.interrupt(signal); });
    int status = runner.startBackupWithDestinationPath(destination);
    std::fflush(stdout);
    std::fflush(stderr);
    // The results are on disk; threads still winding down have nothing left to save.
    std::_Exit(status);
}

int FVCommandLineMode::startBackupWithDestinationPath(const std::string& destinationPath) {
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
        report_.recordAttempt(FVJobOutcome::Failed, "cannot lock the destination: " + lock_.reason());
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
        if (report_.attempt() && report_.attempt()->startedByItself() && !FVFileStatus::pathExists(settingsPath_)) {
            report_.say(fmt::format("The destination {} is not connected: nothing to back up now.",
                            FVSearchText::printable(destinationPath_)));
            report_.recordAttempt(FVJobOutcome::NotConnected);
            return 0;
        }
        report_.recordAttempt(FVJobOutcome::Failed, "the destination is not available or not configured");
        refuseToLoad(unavailableMessage());
        report_.notify({"Cannot sync to: " + FVText::lastPathComponent(destinationPath_), "",
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
        report_.recordAttempt(FVJobOutcome::Failed, loaded.problem);
        return FVExitStatus::kRunFailed;
    case FVConfigurationReadStatus::Ok:
        break;
    }
    // Nothing is touched on a value the program cannot trust.
    FVOptionsReadResult options = FVOptionTable::read(*loaded.configuration.settings);
    if (FVRunAttempt* attempt = report_.attempt())
        attempt->identify(options.options.UUID, options.problems.empty()
                                                    ? std::optional<int64_t>(options.options.overdueDays)
                                                    : std::nullopt);
    if (!options.problems.empty()) {
        std::string problems;
        for (const std::string& problem : options.problems) problems += FVSearchText::printable(problem) + " ";
        refuseToLoad(fmt::format("the configuration {} holds an option that cannot be used: {}Nothing was changed. "
                                 "Correct it with: ferrovane config {} set OPTION VALUE",
                                 shownSettings, problems, shownDestination));
        report_.recordAttempt(FVJobOutcome::Failed, options.problems.front());
        return FVExitStatus::kRunFailed;
    }
    // Only a run that starts says so: a refused one leaves standard output empty.
    if (report_.output().human()) std::printf("Ferrovane v%s (%s) launched.\n", FERROVANE_VERSION, FERROVANE_BUILD_NUMBER);
    std::fflush(stdout);
    if (skipsAsRecent(options.options.connectedRunIntervalMinutes)) return 0;
    return runBackup(std::move(loaded.configuration), std::move(loaded.skippedItems), options.options);
}

int FVCommandLineMode::runBackup(FVConfiguration configuration, std::vector<std::string> skippedItems,
                                 const FVOptions& options) {
    run_ = std::make_unique<FVCommandLineRun>(report_, runLoop_, cancellingSignal_, destinationPath_, settingsPath_,
                                              std::move(configuration), std::move(skippedItems), options);
    run_->start();
    return runLoop_.run();
}

void FVCommandLineMode::interrupt(int signal) {
    int first = 0;
    if (!cancellingSignal_.compare_exchange_strong(first, signal)) {
        if (signal != SIGINT) return;
        if (report_.output().human()) std::printf("\n%s\n", FVStrings::localized("backupstopped").c_str());
        std::fflush(stdout);
        std::_Exit(FVExitStatus::interrupted(first));
    }
    runLoop_.post([this] {
        if (run_) run_->cancel();
    });
}

std::string FVCommandLineMode::unavailableMessage() const {
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

void FVCommandLineMode::refuseToLoad(const std::string& message) {
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

bool FVCommandLineMode::skipsAsRecent(int64_t intervalMinutes) {
    FVRunAttempt* attempt = report_.attempt();
    if (!attempt || attempt->trigger() != FVJobTrigger::Connect) return false;
    std::optional<std::time_t> last = attempt->recentSuccess(intervalMinutes, std::time(nullptr));
    if (!last) return false;
    report_.say(fmt::format("Skipped: the last good run to {} was at {}, less than {} minutes ago.",
                    FVSearchText::printable(destinationPath_), FVScheduleSummary::localTimeText(*last),
                    intervalMinutes));
    report_.recordAttempt(FVJobOutcome::Skipped);
    return true;
}

}  // namespace ferrovane
