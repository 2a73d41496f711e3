#pragma once
// A restore's progress on standard error: on a terminal one percentage rewritten in place, anywhere
// else a plain line every thousand items.

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
    bool terminal_;
    int shownPercent_ = -1;
    uint64_t nextLine_ = 0;
};

}  // namespace ferrovane
