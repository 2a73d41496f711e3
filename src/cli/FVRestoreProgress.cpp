#include "cli/FVRestoreProgress.h"

#include "cli/FVOutput.h"

#include <unistd.h>

namespace ferrovane {

namespace {
constexpr uint64_t kProgressLineEvery = 1000;
}

FVRestoreProgress::FVRestoreProgress() : terminal_(isatty(STDERR_FILENO)) {}

FVRestoreProgress::~FVRestoreProgress() {
    if (terminal_ && shownPercent_ >= 0) FVOutput::print(stderr, "\n");
}

void FVRestoreProgress::update(uint64_t done, uint64_t total) {
    if (total == 0) return;
    if (terminal_) {
        int percent = static_cast<int>(done * 100 / total);
        if (percent == shownPercent_) return;
        shownPercent_ = percent;
        FVOutput::print(stderr, "\rRestoring: {}%", percent);
        std::fflush(stderr);
    } else {
        for (; nextLine_ <= done; nextLine_ += kProgressLineEvery)
            if (nextLine_ > 0) FVOutput::print(stderr, "Restored {} of {} items\n", nextLine_, total);
    }
}

}  // namespace ferrovane
