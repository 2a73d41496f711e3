#pragma once
// "ferrovane search <destination> <text>": the destination search for machines without a
// display. Prints one block per file: its logical path, then each version's time stamp and real
// path, newest first.

namespace ferrovane::FVSearchCommand {

// argv[1] is "search". Exit status 0 with matches, 1 without, 2 for bad usage or a destination
// that cannot be read.
int main(int argc, char** argv);

}  // namespace ferrovane::FVSearchCommand
