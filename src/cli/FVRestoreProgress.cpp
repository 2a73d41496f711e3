#include "cli/FVRestoreProgress.h"

#include <unistd.h>

namespace ferrovane {

FVRestoreProgress::FVRestoreProgress() : line_(stderr, FVProgressLine::styleFor(STDERR_FILENO)) {}

FVRestoreProgress::~FVRestoreProgress() { line_.finish(); }

void FVRestoreProgress::update(uint64_t done, uint64_t total) {
    if (total == 0) return;
    FVProgressStep step;
    step.task = "Restoring";
    step.percent = static_cast<float>(static_cast<double>(done) * 100.0 / static_cast<double>(total));
    step.files = done;
    step.filesTotal = total;
    line_.update(step);
}

}  // namespace ferrovane
