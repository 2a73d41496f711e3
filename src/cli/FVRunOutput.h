#pragma once
// What a backup run prints on standard output, as its options chose: -q only errors (on standard
// error), -v also each item copied, archived or deleted, --json one JSON summary at the end
// instead of the human lines, --progress=json one JSON line per progress step before it.

namespace ferrovane {

struct FVRunOutput {
    enum class Verbosity { Quiet, Normal, Verbose };
    enum class Progress { Automatic, None, Json };

    Verbosity verbosity = Verbosity::Normal;
    bool json = false;
    Progress progress = Progress::Automatic;

    // Whether the human lines (the banner, progress, outcome and summary) are printed.
    bool human() const { return !json && verbosity != Verbosity::Quiet; }
};

}  // namespace ferrovane
