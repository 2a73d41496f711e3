#pragma once
// The numbers of the free-space rule: what a destination keeps free (the reserve), how much a run
// may write, and the one message of a run that does not fit.

#include "engine/config/FVOptions.h"

#include <cstdint>
#include <string>

namespace ferrovane {

class FVSpaceBudget {
public:
    static constexpr uint64_t kMegabyte = 1000 * 1000;
    static constexpr uint64_t kAutomaticFloor = uint64_t{1} << 30;

    // freeBytes: what the run may still write; volumeBytes: the whole volume.
    FVSpaceBudget(const FVOptions& options, uint64_t freeBytes, uint64_t volumeBytes);

    // With keepFreeSpace off nothing; keepFreeSpaceMB megabytes; or, for 0, the larger of 1 GiB
    // and 2 % of the volume, at most a tenth of it, so that a small stick still takes runs.
    static uint64_t reserveFor(const FVOptions& options, uint64_t volumeBytes);

    uint64_t freeBytes() const { return free_; }
    uint64_t reserve() const { return reserve_; }
    // What a run may write and still leave the reserve free.
    uint64_t budget() const { return free_ > reserve_ ? free_ - reserve_ : 0; }
    bool allows(uint64_t bytes) const { return bytes <= budget(); }
    // The same volume with bytes more free.
    FVSpaceBudget afterFreeing(uint64_t bytes) const {
        FVSpaceBudget freed = *this;
        freed.free_ += bytes;
        return freed;
    }

    // "Not enough room on DEST: this run writes ..., ... is free and ... is kept free." and what
    // to do about it. purgeForbidden: older runs could have made room had the options let them.
    std::string shortfallMessage(const std::string& destination, uint64_t needed, bool purgeForbidden) const;
    // The line a run that had to look first logs: what it writes against what it may.
    std::string spaceLine(const std::string& destination, uint64_t needed) const;

private:
    bool keepsFreeSpace_;
    uint64_t free_;
    uint64_t reserve_;
};

}  // namespace ferrovane
