#pragma once
// The free-space rule of a run, before it touches anything: a run that fits whatever it writes
// (the used bytes of its sources' file systems are below what it may write) goes on at no cost;
// any other run looks ahead at what it would write (FVRunPlanner), makes room by purging the
// oldest archived runs where the options allow it (FVOldestRunPurge), and otherwise stops with
// one message. A dry run only says what it would purge.

#include "engine/archive/FVOldestRunPurge.h"
#include "engine/run/FVRunSettings.h"
#include "engine/run/FVRunStatus.h"
#include "engine/session/FVSpaceBudget.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace ferrovane {

struct FVRoomVerdict {
    bool fits = true;
    // Why the run stops; empty when it fits or the look ahead was cancelled.
    std::string problem;
    // Archives that should have gone and could not (the run's errors).
    std::vector<std::string> warnings;
    // What the user should know: that older runs were purged.
    std::vector<std::string> notes;
};

class FVRoomForRun {
public:
    // status: the look ahead's own (quiet), which a cancellation of the run cancels.
    // wouldChange: a dry run's lines ("Would purge: ...").
    FVRoomForRun(const FVRunSettings& settings, std::vector<std::string> excludedFiles, FVRunStatus& status,
                 std::function<void(const std::string&)> wouldChange);

    // From the file systems' numbers alone (a few statvfs calls): whether the run fits whatever
    // it finds to copy.
    bool fitsWhateverItWrites() const;
    // The look ahead and what follows from it; on the run's thread.
    FVRoomVerdict make();

private:
    struct Step {
        FVRunPurgeUnit unit;
        std::vector<std::string> paths;
    };
    std::optional<FVSpaceBudget> budgetNow() const;
    // The units to purge, oldest first, until the run fits by the sizes the archives take now;
    // empty steps with fits false when even all of them would not make room.
    std::vector<Step> purgePlan(const FVSpaceBudget& budget, uint64_t needed, bool* fits, uint64_t* freed) const;
    void log(const std::string& line) const;

    const FVRunSettings& settings_;
    std::vector<std::string> excludedFiles_;
    FVRunStatus& status_;
    std::function<void(const std::string&)> wouldChange_;
    FVDestinationTree destination_;
};

}  // namespace ferrovane
