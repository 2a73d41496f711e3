#pragma once
// "ferrovane verify DESTINATION [--at STAMP] [--sources] [--json]": reads the destination's files
// again and compares them with the digests its runs recorded. Each finding is one line on
// standard output ("damaged: PATH"), progress goes to standard error on a terminal.

#include <string>

namespace ferrovane::FVVerifyCommand {

struct Arguments {
    std::string destination;
    std::string at;
    bool sources = false;
    bool json = false;
};

// Exit status 0 intact, 1 anything differs, 75 a run holds the destination, 128 + N stopped by
// signal N, 255 cannot verify (no records, no such run).
int main(const Arguments& arguments);

}  // namespace ferrovane::FVVerifyCommand
