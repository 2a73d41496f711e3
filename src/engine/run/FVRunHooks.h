#pragma once
// The destination's before- and after-hooks around one run: each a command for /bin/sh with the
// run's facts in FERROVANE_* variables, its output copied to the run log (and the front end), and
// a time limit. A hook runs only when this user approved that very command for the destination
// (see FVHookApprovals); one that is not approved is reported and left alone.

#include "engine/config/FVHookApprovals.h"
#include "engine/config/FVOptions.h"
#include "platform/FVHookProcess.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ferrovane {

// What both hooks are told of the run.
struct FVHookRun {
    std::string destination;
    std::string stamp;    // the run's stamp, as its archive folders and record are named
    std::string trigger;  // manual, schedule, connect or window
    bool dryRun = false;
};

// What the after-hook is told of how the run ended.
struct FVHookRunEnd {
    std::string outcome;  // finished, warnings, errors, stopped, failed or no-space
    uint64_t errors = 0;
    uint64_t filesCopied = 0;
    uint64_t bytesCopied = 0;
    std::string logFile;
};

class FVRunHooks {
public:
    // echo, when set, gets each line a hook writes, besides the run log.
    explicit FVRunHooks(const FVOptions& options = {}, FVHookApprovals approvals = FVHookApprovals(),
                        FVHookProcess::LineHandler echo = {});

    bool hasBefore() const { return !options_.beforeHook.empty(); }
    bool hasAfter() const { return !options_.afterHook.empty(); }

    // Runs the before-hook, if there is one. Returns why the run is skipped, or nothing when it
    // goes on. stop, asked while the hook runs, ends it early (the run is being cancelled).
    std::optional<std::string> runBefore(const FVHookRun& run, const FVHookProcess::StopRequest& stop = {});
    void runAfter(const FVHookRun& run, const FVHookRunEnd& end);

    // The problems of hooks that did not run or failed without skipping the run: the run's
    // warnings.
    const std::vector<std::string>& warnings() const { return warnings_; }

private:
    // Runs one hook; the description of its failure, or nothing when it succeeded or was refused.
    std::optional<std::string> runHook(FVHookKind kind, const std::string& command, FVHookProcess::Environment environment,
                                       const FVHookProcess::StopRequest& stop, const std::string& destination);

    FVOptions options_;
    FVHookApprovals approvals_;
    FVHookProcess::LineHandler echo_;
    std::vector<std::string> warnings_;
};

}  // namespace ferrovane
