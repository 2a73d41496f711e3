#pragma once
// What each run left in a destination's archives: the stamp folders under __changed/ and
// __removed/, with the items and bytes each holds. Reads only; folders the runs made to hold an
// item's path are not items, an empty folder is one.

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace ferrovane {

struct FVArchiveHolding {
    uint64_t items = 0;
    uint64_t bytes = 0;  // of the regular files
};

struct FVArchiveRun {
    std::string stamp;
    std::time_t time = 0;
    FVArchiveHolding changed, removed;
};

class FVArchiveRuns {
public:
    // Newest first. A stamp that only one archive has holds nothing in the other.
    static FVArchiveRuns read(const std::string& destination);

    const std::vector<FVArchiveRun>& runs() const { return runs_; }
    // One line for each archive folder that could not be read (its path and the reason); the
    // runs above then hold less than the destination does.
    const std::vector<std::string>& problems() const { return problems_; }

private:
    void add(const std::string& archive, FVArchiveHolding FVArchiveRun::*kind);
    FVArchiveRun& run(const std::string& stamp, std::time_t time);

    std::vector<FVArchiveRun> runs_;
    std::vector<std::string> problems_;
};

}  // namespace ferrovane
