#pragma once
// What became of a destination's latest run attempts, kept outside the destination (it must be
// readable while the disk is unplugged): one small file per destination identity (its UUID) in
// $XDG_STATE_HOME/Ferrovane/jobs/ (root: /var/lib/Ferrovane/jobs/). Every run of a destination
// with an identity records its attempt, whoever started it; a scheduled job also records the
// attempts that could not start. Overdue notices and the window's schedule line read it.

#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace ferrovane {

// How an attempt ended, as far as the user is concerned.
enum class FVJobOutcome {
    Finished,      // "Sync finished successfully."
    Warnings,      // finished, with warnings
    Errors,        // finished, with errors on some items
    Stopped,       // stopped by the user or a signal
    Failed,        // could not run (a fatal error, a bad configuration)
    NotConnected,  // the destination was not there
    NoSpace,       // stopped before copying: not enough room could be made
    Skipped,       // not needed: a successful run is recent enough
};

// Stable names, stored in the file and shown by "ferrovane runs --json".
const char* jobOutcomeName(FVJobOutcome outcome);
std::optional<FVJobOutcome> jobOutcomeNamed(const std::string& name);
// A successful run: the destination holds a good backup from this moment.
inline bool isSuccessful(FVJobOutcome outcome) { return outcome == FVJobOutcome::Finished || outcome == FVJobOutcome::Warnings; }

// What started a run.
enum class FVJobTrigger { Manual, Schedule, Connect };
const char* jobTriggerName(FVJobTrigger trigger);

struct FVJobAttempt {
    std::time_t time = 0;
    FVJobTrigger trigger = FVJobTrigger::Manual;
    FVJobOutcome outcome = FVJobOutcome::Finished;
    std::string message;  // one line for the user; empty when the outcome says all
};

struct FVJobStatus {
    std::string uuid;
    std::string destination;
    // The newest attempt of any kind, and the newest that was started by the schedule or the disk.
    std::optional<FVJobAttempt> lastAttempt;
    std::optional<FVJobAttempt> lastScheduledAttempt;
    // When the newest successful run ended; 0 when none is known.
    std::time_t lastSuccess = 0;
    // When the user was last told that backups are overdue (a notice is not repeated every hour).
    std::time_t lastOverdueNotice = 0;
    // The destination's limit for overdue notices, as of its last reachable run: the login check
    // must judge while the disk is away.
    int64_t overdueDays = 7;
};

class FVJobStatusStore {
public:
    // The default folder for this user (empty when there is no home folder to keep it in);
    // $FERROVANE_JOB_STATUS_DIRECTORY replaces it.
    static std::string defaultFolder();
    explicit FVJobStatusStore(std::string folder = defaultFolder()) : folder_(std::move(folder)) {}

    const std::string& folder() const { return folder_; }
    // Nothing when there is no status for uuid, or it cannot be read (a damaged file reads as none).
    std::optional<FVJobStatus> read(const std::string& uuid) const;
    // Every status kept, in no order.
    std::vector<FVJobStatus> all() const;
    // Adds an attempt to the status of uuid (created when missing) and writes it. False with the
    // reason when it cannot be written; a run never fails for that.
    // overdueDays: the destination's setting when its configuration could be read.
    bool record(const std::string& uuid, const std::string& destination, const FVJobAttempt& attempt,
                std::optional<int64_t> overdueDays = std::nullopt, std::string* error = nullptr);
    bool write(const FVJobStatus& status, std::string* error = nullptr);

private:
    std::string pathOf(const std::string& uuid) const;
    std::string folder_;
};

}  // namespace ferrovane
