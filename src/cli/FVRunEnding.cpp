#include "cli/FVRunEnding.h"

#include "cli/FVExitStatus.h"
#include "engine/session/FVBackupSession.h"

namespace ferrovane {

FVRunEnding FVRunEnding::ofFinished(const FVBackupSession& session) {
    if (!session.errorMessages().empty()) return FVRunEnding(Outcome::Errors);
    return FVRunEnding(session.warnings().empty() ? Outcome::Finished : Outcome::Warnings);
}

FVRunEnding FVRunEnding::ofCancelled(const FVBackupSession& session, int signal) {
    if (session.skippedByBeforeHook()) return FVRunEnding(Outcome::Skipped);
    if (session.stoppedForSpace()) return FVRunEnding(Outcome::NoSpace);
    return FVRunEnding(signal ? Outcome::Stopped : Outcome::Failed);
}

std::string_view FVRunEnding::name() const {
    switch (outcome_) {
    case Outcome::Finished: return "finished";
    case Outcome::Warnings: return "warnings";
    case Outcome::Errors: return "errors";
    case Outcome::Failed: return "failed";
    case Outcome::NoSpace: return "no-space";
    case Outcome::Skipped: return "skipped";
    case Outcome::Stopped: return "stopped";
    }
    return "failed";
}

int FVRunEnding::exitStatus(int signal) const {
    if (signal) return FVExitStatus::interrupted(signal);
    switch (outcome_) {
    case Outcome::Finished: return FVExitStatus::kOk;
    // Its backup is whole but not all that was asked was done, or nothing was touched.
    case Outcome::Warnings:
    case Outcome::NoSpace:
    case Outcome::Skipped: return FVExitStatus::kIncomplete;
    case Outcome::Errors:
    case Outcome::Failed:
    case Outcome::Stopped: break;
    }
    return FVExitStatus::kRunFailed;
}

}  // namespace ferrovane
