#pragma once
// Says that a destination's schedule could not be set up, with what to do about it: once per
// destination and reason, remembered in the user's settings, not on every close of the options.

#include <string>

class QMessageBox;
class QWidget;

namespace ferrovane {

class FVLaunchAgentManager;

class FVScheduleFailureAlert {
public:
    // Opens the alert unless this reason was told for uuid already; returns it, or nothing.
    static QMessageBox* showOnce(QWidget* window, const FVLaunchAgentManager& jobs, const std::string& uuid,
                                 const std::string& reason);
    // The schedule works again: a later failure is told anew.
    static void forget(const std::string& uuid);
    // What to do: the commands that load the jobs written for uuid, and the note on lingering
    // where the account's service manager ends with its last session.
    static std::string remedy(const FVLaunchAgentManager& jobs, const std::string& uuid);
};

}  // namespace ferrovane
