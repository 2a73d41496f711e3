#pragma once
// Restores one version inside the destination (its copy in the mirror or an archived one) as it
// stands there, folders with everything inside them.

#include "app/FVRestoreJob.h"
#include "engine/FVRestorePlan.h"
#include "engine/FVRestoreTarget.h"

namespace ferrovane {

class FVVersionRestoreJob final : public FVRestoreJob {
public:
    FVVersionRestoreJob(std::string destination, FVRestoreTarget target)
        : destination_(std::move(destination)), target_(std::move(target)) {}

    std::vector<std::string> targets() const override { return {target_.to}; }
    bool plan(std::string* problem) override;
    std::vector<Conflict> conflicts() const override;
    uint64_t itemCount() const override;
    Outcome copy(bool replace, const FVRestoreRun::Progress& progress, const FVRestoreRun::Report& report,
                 const std::atomic<bool>& interrupt) override;

private:
    std::string destination_;
    FVRestoreTarget target_;
    std::vector<FVRestorePlan> plans_;
};

}  // namespace ferrovane
