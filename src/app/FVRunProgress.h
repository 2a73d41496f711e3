#pragma once
// What the window says of a running backup, read from the run's totals: the files and bytes
// published of what the analysis has found to copy so far, the rate at which data is written,
// the time left and the file being written. Nothing counts as copied before it stands under its
// name in the mirror.

#include "engine/run/FVRunTally.h"

#include <QString>

#include <string>

namespace ferrovane {

struct FVRunProgress {
    FVRunTotals totals;
    // The run's share done, 0 to 100, and the seconds since it started.
    double percent = 0;
    double elapsed = 0;
    std::string currentFile;

    // "3 of 12 items copied, 45.0 MB of 200.0 MB".
    QString counts() const;
    // "20.0 MB/s · 8 s left · big.iso", as much of it as is known yet.
    QString pace() const;
};

}  // namespace ferrovane
