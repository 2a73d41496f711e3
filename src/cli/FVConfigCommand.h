#pragma once
// "ferrovane config <destination> ...": edits a destination's configuration the way the window
// does, for machines without a display, writing the same file with the same writer:
//   show [--json] | add <path> [--mode backup|disabled|exclude|exclude-name] | remove <path>
//   | set <option> <value> | schedule daily HH:MM | weekly <weekday> HH:MM | off
//   | confirm-empty <path> | retention [DAYS WEEKS MONTHS YEARS | on | off] [--dry-run]
//   | hook [before|after [COMMAND | --remove | --approve]]
// Changes are made under the destination's lock; show reads without it.

#include <optional>
#include <string>
#include <vector>

namespace ferrovane::FVConfigCommand {

struct Arguments {
    std::string destination;
    std::string action;  // show, add, remove, set, schedule, confirm-empty or retention
    std::string path;    // add, remove, confirm-empty
    std::string mode;    // add; empty: backup
    std::string option, value;            // set
    std::vector<std::string> schedule;    // schedule's words
    bool json = false;                    // show
    std::vector<std::string> retention;   // retention's words
    bool dryRun = false;                  // retention: list what would go, change nothing
    std::string hookKind;                 // hook: before or after; empty: list the hooks
    std::optional<std::string> hookCommand;  // hook: the new command
    bool hookRemove = false, hookApprove = false;
};

// Exit status 0 on success, 1 when the change could not be made or saved (or the scheduled job
// could not be set up), 2 for bad input; nothing is written then. 75 when a run still held the
// destination after a wait of ten seconds.
int main(const Arguments& arguments);

}  // namespace ferrovane::FVConfigCommand
