#pragma once
// How a backup run from the command line ended, decided from what it met: the one place that
// gives it the outcome scripts read in the JSON summary and its exit status.

#include <string_view>

namespace ferrovane {

class FVBackupSession;

class FVRunEnding {
public:
    enum class Outcome { Finished, Warnings, Errors, Failed, NoSpace, Skipped, Stopped };

    // A run that went to its end: any error makes it Errors; the warnings of the session alone
    // (its record not written) Warnings; warning lines of the log count for nothing.
    static FVRunEnding ofFinished(const FVBackupSession& session);
    // A run that ended early: skipped by its before-hook, stopped for room, by a signal, or failed
    // (a fatal error of the destination).
    static FVRunEnding ofCancelled(const FVBackupSession& session, int signal);
    explicit FVRunEnding(Outcome outcome) : outcome_(outcome) {}

    Outcome outcome() const { return outcome_; }
    std::string_view name() const;
    // 128 + the signal's number when a signal came, even one that came while a finished run saved
    // its results (they are saved whole).
    int exitStatus(int signal) const;

private:
    Outcome outcome_;
};

}  // namespace ferrovane
