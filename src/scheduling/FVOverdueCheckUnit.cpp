#include "scheduling/FVOverdueCheckUnit.h"

#include "fs/FVAtomicFile.h"
#include "fs/FVFileStatus.h"
#include "fs/FVRemovals.h"
#include "platform/FVSystemLog.h"
#include "scheduling/FVLaunchAgentManager.h"

#include <unistd.h>

namespace ferrovane {

namespace {

constexpr const char* kClassName = "FVOverdueCheckUnit";
constexpr size_t kLargestUnit = 64 * 1024;

bool sameContent(const std::string& path, const std::string& content) {
    std::string existing;
    return FVAtomicFile::read(path, kLargestUnit, existing, nullptr) && existing == content;
}

}  // namespace

FVOverdueCheckUnit::FVOverdueCheckUnit(std::shared_ptr<FVCommandRunner> runner, std::string jobDirectory,
                                       std::string executable)
    : runner_(std::move(runner)), jobDirectory_(std::move(jobDirectory)), executable_(std::move(executable)) {
    if (!jobDirectory_.empty() && jobDirectory_.back() != '/') jobDirectory_ += '/';
}

std::string FVOverdueCheckUnit::pathOf(const char* suffix) const { return jobDirectory_ + label + suffix; }

std::optional<std::string> FVOverdueCheckUnit::serviceUnit(const std::string& executable, std::string* error) {
    if (!FVLaunchAgentManager::systemdCanStart(executable)) {
        if (error) *error = "systemd cannot start the program at \"" + executable + "\"";
        return std::nullopt;
    }
    return "[Unit]\n"
           "Description=Ferrovane check for overdue backups\n"
           "\n"
           "[Service]\n"
           "Type=oneshot\n"
           "Nice=19\n"
           "ExecStart=:" + FVLaunchAgentManager::systemdExecWord(executable) + " check-overdue\n";
}

std::string FVOverdueCheckUnit::timerUnit() {
    // A few minutes after login, so that the desktop's notification server is there to take the
    // notice, and at noon for a machine that is never logged out (after a resume too: calendar
    // times missed while asleep elapse on waking).
    return std::string("[Unit]\n"
                       "Description=Ferrovane check for overdue backups, after login and daily\n"
                       "\n"
                       "[Timer]\n"
                       "OnStartupSec=3min\n"
                       "OnCalendar=*-*-* 12:00:00\n"
                       "Unit=") + label + ".service\n"
           "\n"
           "[Install]\n"
           "WantedBy=timers.target\n";
}

bool FVOverdueCheckUnit::install(std::string* error) {
    auto fail = [&](std::string message) {
        FVSystemLog::error(kClassName, message);
        if (error) *error = std::move(message);
        return false;
    };
    std::string reason;
    std::optional<std::string> service = serviceUnit(executable_, &reason);
    if (!service) return fail(reason);
    const std::string timer = timerUnit();
    // Enabling leaves this link; without it (systemctl failed, or was not there) it is tried again.
    const bool enabled = FVFileStatus::access((jobDirectory_ + "timers.target.wants/" + label + ".timer").c_str(), F_OK) == 0;
    if (enabled && sameContent(pathOf(".service"), *service) && sameContent(pathOf(".timer"), timer)) return true;
    if (!FVAtomicFile::write(pathOf(".service"), *service, &reason) || !FVAtomicFile::write(pathOf(".timer"), timer, &reason))
        return fail("Unit write failed! " + reason);
    FVCommandResult result = runner_->run(FVLaunchAgentManager::systemctl({"daemon-reload"}));
    if (result.succeeded())
        result = runner_->run(FVLaunchAgentManager::systemctl({"enable", "--now", std::string(label) + ".timer"}));
    if (!result.succeeded()) return fail("loading the check for overdue backups failed: " + result.error);
    return true;
}

void FVOverdueCheckUnit::remove() {
    if (FVFileStatus::access(pathOf(".service").c_str(), F_OK) != 0 && FVFileStatus::access(pathOf(".timer").c_str(), F_OK) != 0) return;
    runner_->run(FVLaunchAgentManager::systemctl({"disable", "--now", std::string(label) + ".timer"}));
    FVRemovals::unlink(pathOf(".service").c_str());
    FVRemovals::unlink(pathOf(".timer").c_str());
    runner_->run(FVLaunchAgentManager::systemctl({"daemon-reload"}));
}

}  // namespace ferrovane
