#pragma once
// "ferrovane versions": every version a destination holds of one path; "ferrovane restore":
// copies a version, a folder or every source back out of a destination.

#include <string>

namespace ferrovane::FVRestoreCommand {

struct RestoreArguments {
    std::string destination, what, version, to;
    std::string at;  // a point in time: restore as the run it names recorded it
    bool all = false, replace = false, dryRun = false;
};

// Exit status: 0 done, 1 nothing found or conflicts or errors, 2 bad usage.
int versionsMain(const std::string& destination, const std::string& path, bool json);
int restoreMain(const RestoreArguments& arguments);

}  // namespace ferrovane::FVRestoreCommand
