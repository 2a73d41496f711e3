#pragma once
// The options of the open destination in memory (the run options and the schedule), and bringing
// the destination's scheduled job in line with them. The sheet that edits them belongs to the window.

#include "engine/config/FVOptions.h"
#include "engine/config/FVPlist.h"
#include "scheduling/FVLaunchAgentManager.h"

#include <string>
#include <vector>

namespace ferrovane {

class FVOptionsPanelController {
public:
    explicit FVOptionsPanelController(FVLaunchAgentManager& launchAgentManager);

    // Takes the dictionary itself (a new one when null) and fills in the missing defaults.
    void setAllOptions(PlistDictPtr options);
    // The live dictionary, not a copy.
    const PlistDictPtr& allOptions() const { return options_; }
    // The options as a run reads them: a value that cannot be used reads as its default.
    FVOptions options() const { return FVOptionTable::read(*options_).options; }
    bool boolForOptionsKey(std::string_view key) const { return options_->boolValue(key); }
    std::string uuid() const;

    // Creates and stores the UUID on first need, then writes each job (calendar, disk connected,
    // monthly verify) that is on and removes the others. Returns false with the reason when
    // writing a job failed; the options stay as they are either way. An option that cannot be used is such a reason; no job
    // is written or removed then.
    bool updateAutomations(const std::string& destinationPath, std::string* error = nullptr);

    // The commands that load the written jobs the options ask for, one line each, for a user
    // whose service manager could not be reached; empty without a UUID.
    std::vector<std::string> manualSetupCommands() const;
    // The unit files of those jobs that are written, for the same user.
    std::vector<std::string> writtenJobFiles() const;

    // A new random UUID in upper-case text.
    static std::string makeUUID();

private:
    // The kinds of job the options ask for whose files are there.
    std::vector<FVJobKind> writtenJobKinds() const;

    FVLaunchAgentManager& launchAgentManager_;
    PlistDictPtr options_;
};

}  // namespace ferrovane
