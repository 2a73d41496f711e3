#pragma once
// Restores versions inside the destination (copies in the mirror or archived ones) as they stand
// there, folders with everything inside them.

#include "app/FVRestoreJob.h"
#include "engine/restore/FVRestorePlan.h"
#include "engine/restore/FVRestoreTarget.h"

namespace ferrovane {

class FVVersionRestoreJob final : public FVRestoreJob {
public:
    FVVersionRestoreJob(std::string destination, std::vector<FVRestoreTarget> targets)
        : destination_(std::move(destination)), targets_(std::move(targets)) {}

    std::vector<std::string> targets() const override;
    bool plan(std::string* problem) override;
    std::vector<Conflict> conflicts() const override;
    uint64_t itemCount() const override;
    Outcome copy(bool replace, const FVRestoreRun::Progress& progress, const FVRestoreRun::Report& report,
                 const std::atomic<bool>& interrupt) override;

private:
    std::string destination_;
    std::vector<FVRestoreTarget> targets_;
    std::vector<FVRestorePlan> plans_;
};

}  // namespace ferrovane
