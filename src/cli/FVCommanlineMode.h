#pragma once
// The command-line front end: one backup of the destination named on the command line, with
// the configuration stored in that destination, progress on standard output and an exit status.

#include "engine/FVConfigurationFile.h"
#include "platform/FVUserNotifier.h"

#include <memory>
#include <string>

namespace ferrovane {

class FVCommanlineMode {
public:
    explicit FVCommanlineMode(std::unique_ptr<FVUserNotifier> notifier);

    // The command-line branch of the entry point (argv[1] begins with "/"). Returns the exit
    // status: 0 after a run without errors, 255 for every failure.
    static int main(int argc, char** argv);

    void setDisableUserNotifications(bool disable) { disableUserNotifications_ = disable; }
    int startBackupWithDestinationPath(const std::string& destinationPath);

private:
    void notify(const FVUserNotification& notification, bool wait);
    void warnAboutOptionTypes() const;
    // Runs the loaded configuration; returns the exit status.
    int runBackup();

    std::unique_ptr<FVUserNotifier> notifier_;
    bool disableUserNotifications_ = false;
    std::string destinationPath_;
    std::string settingsPath_;
    FVConfiguration configuration_;
};

}  // namespace ferrovane
