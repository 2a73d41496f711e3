#pragma once
// "ferrovane runs <destination> [--json]": the runs a destination remembers, read-only: whether
// its scheduled backups are overdue, every recorded run with its outcome and counts, every
// archive stamp with what its __changed/ and __removed/ folders hold, newest first, and the last
// results of each source item as the runs wrote them into the configuration.

#include <string>

namespace ferrovane::FVRunsCommand {

// Exit status 0, 1 when the destination or its configuration cannot be read.
int main(const std::string& destination, bool json);

}  // namespace ferrovane::FVRunsCommand
