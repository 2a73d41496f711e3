#pragma once
// Keeps the machine from sleeping while a run is under way (logind's Inhibit lock).

#include <atomic>
#include <string>

namespace ferrovane {

class FVSleepInhibitor {
public:
    FVSleepInhibitor() = default;
    ~FVSleepInhibitor() { release(); }
    FVSleepInhibitor(const FVSleepInhibitor&) = delete;
    FVSleepInhibitor& operator=(const FVSleepInhibitor&) = delete;

    // Takes the lock; false when there is no system bus or logind refuses, and problem() says which.
    bool acquire(const std::string& why);
    void release();
    // Why the last acquire failed; empty after one that succeeded. Read on the acquiring thread.
    const std::string& problem() const { return problem_; }

private:
    std::atomic<int> fd_{-1};
    std::string problem_;
};

}  // namespace ferrovane
