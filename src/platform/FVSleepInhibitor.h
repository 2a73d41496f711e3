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

    // Takes the lock; false when there is no system bus or logind refuses.
    bool acquire(const std::string& why);
    void release();

private:
    std::atomic<int> fd_{-1};
};

}  // namespace ferrovane
