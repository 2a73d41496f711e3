#pragma once
// One command-line run as an attempt of its destination: what started it (the user, the calendar,
// the disk) and how it ended, recorded in the job status under the destination's identity (its
// UUID), so that the overdue notice and the schedule line can tell what became of runs that
// nobody watched. A destination without an identity has nothing to record under.

#include "scheduling/FVJobStatus.h"

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>

namespace ferrovane {

class FVRunAttempt {
public:
    // jobID: the identity the job passed on the command line; empty for a run by hand.
    FVRunAttempt(std::string destination, FVJobTrigger trigger, std::string jobID,
                 FVJobStatusStore store = FVJobStatusStore());

    FVJobTrigger trigger() const { return trigger_; }
    bool startedByItself() const { return trigger_ != FVJobTrigger::Manual; }
    // The identity and the overdue limit the destination's configuration holds; until it is read,
    // the job's identity from the command line stands in.
    void identify(const std::string& uuid, std::optional<int64_t> overdueDays);
    // When the newest good run of the destination started or ended, whichever the job status and
    // the destination's records know later, if that is less than intervalMinutes before now.
    std::optional<std::time_t> recentSuccess(int64_t intervalMinutes, std::time_t now) const;
    // Records how the attempt ended, once: later calls do nothing. A status that cannot be written
    // is said on standard error; the run's own result stands.
    void record(FVJobOutcome outcome, const std::string& message = {});

private:
    std::string destination_;
    FVJobTrigger trigger_;
    std::string uuid_;
    std::optional<int64_t> overdueDays_;
    FVJobStatusStore store_;
    bool recorded_ = false;
};

}  // namespace ferrovane
