#pragma once
// The look ahead of a run that may not fit: the analysis in its dry-run form over every source
// item, which decides exactly what the run would copy, summing what that writes. Touches nothing.

#include "engine/run/FVRunSettings.h"
#include "engine/run/FVRunStatus.h"

#include <sys/stat.h>

#include <cstdint>
#include <string>
#include <vector>

namespace ferrovane {

class FVRunPlanner {
public:
    // status: quiet, the look ahead's own; cancelling it stops the walk.
    FVRunPlanner(const FVRunSettings& settings, std::vector<std::string> excludedFiles, FVRunStatus& status);

    // The bytes the run would write into the destination for sources: new and changed files
    // whole (an archived version stays besides its replacement), a block for each file's tail
    // and for each folder or link.
    uint64_t bytesToWrite(const std::vector<std::string>& sources);
    // What the copy of one item with this lstat writes.
    static uint64_t bytesOfCopy(const struct stat& st);

private:
    FVRunSettings settings_;
    std::vector<std::string> excludedFiles_;
    FVRunStatus& status_;
};

}  // namespace ferrovane
