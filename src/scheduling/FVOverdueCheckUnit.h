#pragma once
// The check for overdue backups that runs without any backup job running: a service that runs
// "ferrovane check-overdue" and its timer, shortly after the service manager starts (a user's
// at login, the system's at boot) and every day at noon. Written beside the backup jobs while any
// exists (the job manager installs it with every job and removes it with the last).

#include "platform/FVCommandRunner.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ferrovane {

class FVOverdueCheckUnit {
public:
    // Not under the jobs' label prefix: the job manager would take it for a job identity.
    static constexpr const char* label = "com.quillmarsh.ferrovane-check-overdue";

    FVOverdueCheckUnit(std::shared_ptr<FVCommandRunner> runner, std::string jobDirectory, std::string executable);

    // Writes the service and the timer, reloads and enables the timer; nothing when both are as
    // they should be and the timer is enabled. False with the reason (also in the system log)
    // when the files cannot be written or loaded.
    bool install(std::string* error = nullptr);
    // Disables the timer and deletes both files when they exist.
    void remove();

    // The unit texts; nothing (with the reason) for a program path systemd cannot start.
    static std::optional<std::string> serviceUnit(const std::string& executable, std::string* error);
    static std::string timerUnit();

private:
    std::string pathOf(const char* suffix) const;

    std::shared_ptr<FVCommandRunner> runner_;
    std::string jobDirectory_;
    std::string executable_;
};

}  // namespace ferrovane
