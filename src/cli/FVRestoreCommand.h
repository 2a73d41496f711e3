#pragma once
// "ferrovane versions": every version a destination holds of one path; "ferrovane restore":
// copies a version, a folder or every source back out of a destination.

namespace ferrovane::FVRestoreCommand {

// argv[1] is "versions" or "restore". Exit status: 0 done, 1 nothing found or conflicts or
// errors, 2 bad usage.
int versionsMain(int argc, char** argv);
int restoreMain(int argc, char** argv);

}  // namespace ferrovane::FVRestoreCommand
