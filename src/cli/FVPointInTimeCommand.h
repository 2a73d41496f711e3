#pragma once
// "ferrovane ls": a folder (or one item) as a complete run recorded it; "ferrovane restore --at":
// a file or a folder brought back exactly as that run recorded it. Both read the destination's
// record of its runs.

#include "cli/FVRestoreCommand.h"

#include <string>

namespace ferrovane::FVPointInTimeCommand {

// at: a stamp, a date or a time (FVRunRecords::resolve); empty for the newest complete run.
// Exit status: 0 listed, 1 no such run or item, 2 bad usage.
int listMain(const std::string& destination, const std::string& path, const std::string& at, bool json);
// Exit status: 0 done, 1 no such run or item, conflicts, errors or files whose bytes are gone,
// 2 bad usage, 75 busy, 128 + N cancelled by signal N.
int restoreMain(const FVRestoreCommand::RestoreArguments& arguments);

}  // namespace ferrovane::FVPointInTimeCommand
