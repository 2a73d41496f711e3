#pragma once
// What a run could write at most for its sources: every entry charged as if the mirror lacked it
// (FVRunPlanner's charge), with nothing compared against the mirror. One stat per source entry,
// where the look ahead compares both trees and their attribute lists: a run that fits this bound
// needs no look ahead.

#include "engine/run/FVRunStatus.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ferrovane {

class FVSourceBytesBound {
public:
    // status: the look ahead's own; cancelling it stops the walk.
    explicit FVSourceBytesBound(const FVRunStatus& status) : status_(status) {}

    // Nothing when cancelled. Excluded entries and later names of a file count as well: a bound.
    std::optional<uint64_t> of(const std::vector<std::string>& sources) const;

private:
    const FVRunStatus& status_;
};

}  // namespace ferrovane
