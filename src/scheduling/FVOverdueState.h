#pragma once
// One destination as the overdue check sees it: its job status, its options and its newest good
// run, read from the destination itself when it is there, and whether the user must be told.
// "ferrovane runs", "ferrovane check-overdue" and the end of a scheduled run gather it alike.

#include "engine/config/FVConfigurationFile.h"
#include "scheduling/FVJobStatus.h"
#include "scheduling/FVOverdueCheck.h"

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace ferrovane {

struct FVOverdueState {
    std::string uuid;
    std::string destination;
    // Its configuration was read now, and it is the destination of this identity.
    bool reachable = false;
    // Read from the destination; while it is away, as far as the job status tells.
    FVOptions options;
    std::optional<FVJobStatus> status;
    // The newest good run the destination itself shows; 0 when none or away.
    std::time_t lastGoodAtDestination = 0;
    std::optional<FVOverdueNotice> notice;

    // The newest good run of both the status and the destination; 0 when none is known.
    std::time_t lastGoodRun() const;

    // A destination whose configuration is at hand.
    static FVOverdueState ofDestination(const std::string& destination, const FVConfiguration& configuration,
                                        const FVJobStatusStore& store, std::time_t now);
    // A job identity of this user: its status says where the destination is. startsRuns: a job
    // of this identity starts backups (not only verifications), to judge by while the disk is
    // away.
    static FVOverdueState ofJob(const std::string& uuid, bool startsRuns, const FVJobStatusStore& store,
                                std::time_t now);
    // The start of the newest complete run without errors in the destination's record; for a
    // destination without records, the oldest last backup of the sources it backs up (0 when
    // none are given).
    static std::time_t lastGoodRunAt(const std::string& destination,
                                     const std::vector<FVSourceItemPtr>& sources = {});
};

}  // namespace ferrovane
