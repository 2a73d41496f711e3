#pragma once
// "ferrovane search <destination> <words>...": the destination search for machines without a
// display. Prints one block per file: its logical path, then each version (the current copy, then
// the archived ones by run, newest first) with its run, its modification time and its real path.

#include <string>

namespace ferrovane::FVSearchCommand {

// Exit status 0 with matches, 1 without, 2 for bad usage or a destination that cannot be read.
int main(const std::string& destination, const std::string& text, bool json);

}  // namespace ferrovane::FVSearchCommand
