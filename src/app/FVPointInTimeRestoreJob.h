#pragma once
// Restores items exactly as a complete run recorded them: each file from wherever its bytes are
// now (the mirror, or the archive of the run that displaced it), checked against its digest, with
// the metadata the run recorded.

#include "app/FVRestoreJob.h"
#include "engine/restore/FVPointInTimePlan.h"
#include "engine/restore/FVRestoreTarget.h"

#include <utility>

namespace ferrovane {

class FVPointInTimeRestoreJob final : public FVRestoreJob {
public:
    // items: each mirror path (as the run's layout names it) with where it goes; toFolder: the
    // folder chosen for them, "" for their original places.
    FVPointInTimeRestoreJob(std::string destination, FVRunRecord run,
                            std::vector<std::pair<std::string, FVRestoreTarget>> items, std::string toFolder)
        : destination_(std::move(destination)), run_(std::move(run)), items_(std::move(items)), toFolder_(std::move(toFolder)) {}

    std::vector<std::string> targets() const override;
    bool plan(std::string* problem) override;
    std::vector<Conflict> conflicts() const override;
    uint64_t itemCount() const override;
    Outcome copy(bool replace, const FVRestoreRun::Progress& progress, const FVRestoreRun::Report& report,
                 const std::atomic<bool>& interrupt) override;

private:
    std::string destination_;
    FVRunRecord run_;
    std::vector<std::pair<std::string, FVRestoreTarget>> items_;
    std::string toFolder_;
    std::vector<FVPointInTimePlan> plans_;
};

}  // namespace ferrovane
