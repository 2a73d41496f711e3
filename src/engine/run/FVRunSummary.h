#pragma once
// The one line that ends every run, on the terminal and in the log:
// "Checked 12,345 items, copied 12 (1.2 GB), archived 3, deleted 1, 0 errors in 1 min 4 s."
// A dry run says "would copy", a run that ended early starts with "Stopped:". ASCII only.

#include "engine/run/FVRunTally.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace ferrovane {

struct FVRunSummary {
    FVRunTotals totals;
    size_t errors = 0;
    double seconds = 0;
    bool dryRun = false;
    bool stopped = false;

    std::string line() const;
    // 12345 -> "12,345".
    static std::string count(uint64_t number);
    // "0.4 s", "12 s", "1 min 4 s", "2 h 5 min".
    static std::string duration(double seconds);
};

}  // namespace ferrovane
