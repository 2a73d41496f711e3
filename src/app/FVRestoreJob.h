#pragma once
// One restore as the window runs it: planned off the main thread, then copied, with the items in
// the way for the user to decide about first. A version found in the destination, or the files as
// a run recorded them.

#include "engine/restore/FVRestoreRun.h"

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

namespace ferrovane {

class FVRestoreJob {
public:
    struct Conflict {
        std::string target;
        std::string reason;
    };
    struct Outcome {
        uint64_t files = 0;
        uint64_t bytes = 0;
        uint64_t replaced = 0;
        uint64_t identical = 0;  // already at their target as restored
        bool cancelled = false;
    };

    virtual ~FVRestoreJob() = default;

    // Where the items go, known before planning.
    virtual std::vector<std::string> targets() const = 0;
    // Reads what the restore takes and writes nothing; false, with the reason, when nothing can
    // be restored.
    virtual bool plan(std::string* problem) = 0;
    // Once planned: what stands in the way, and the items to handle in all.
    virtual std::vector<Conflict> conflicts() const = 0;
    virtual uint64_t itemCount() const = 0;
    // Copies what was planned; replace moves what is in the way to the trash first.
    virtual Outcome copy(bool replace, const FVRestoreRun::Progress& progress, const FVRestoreRun::Report& report,
                         const std::atomic<bool>& interrupt) = 0;
};

}  // namespace ferrovane
