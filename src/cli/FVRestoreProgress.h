#pragma once
// A restore's progress on standard error, in the backup's form (see FVProgressLine): on a
// terminal one line rewritten in place with files done of all, rate and time left; anywhere else
// a plain line now and then.

#include "cli/FVProgressLine.h"

#include <cstdint>

namespace ferrovane {

class FVRestoreProgress {
public:
    FVRestoreProgress();
    ~FVRestoreProgress();
    FVRestoreProgress(const FVRestoreProgress&) = delete;
    FVRestoreProgress& operator=(const FVRestoreProgress&) = delete;

    void update(uint64_t done, uint64_t total);

private:
    FVProgressLine line_;
};

}  // namespace ferrovane
