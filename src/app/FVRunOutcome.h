#pragma once
// What the last run on a destination came to: finished, stopped, not started for lack of room or
// never, when, its errors, the source a stop interrupted and the destination's failure that ended it.
// Kept per destination in the user's settings until the next run, so that a failed or stopped
// run never looks like a good one, also after a restart.

#include <QDateTime>
#include <QString>

#include <string>
#include <vector>

namespace ferrovane {

class FVRunOutcome {
public:
    // NoRoom: the free-space check refused the run before it copied anything; nobody stopped it.
    enum class State { Never, Finished, Stopped, NoRoom };

    FVRunOutcome() = default;
    FVRunOutcome(State state, QDateTime time, std::vector<std::string> errors)
        : state_(state), time_(std::move(time)), errors_(std::move(errors)) {}

    static FVRunOutcome load(const QString& destination);
    void save(const QString& destination) const;

    // A stopped run: the source it was backing up when it stopped, if any; the others either
    // finished in it or were never reached and keep their last backup.
    const std::string& interruptedSource() const { return interruptedSource_; }
    // copied: what of that source was published before the stop; -1 when not known.
    void setInterruptedSource(std::string sourcePath, long long copied = -1) {
        interruptedSource_ = std::move(sourcePath);
        interruptedCopied_ = copied;
    }
    long long interruptedCopied() const { return interruptedCopied_; }
    // The line naming why the destination ended the run (failed, gone); empty if it held.
    const std::string& destinationFailure() const { return destinationFailure_; }
    void setDestinationFailure(std::string line) { destinationFailure_ = std::move(line); }

    State state() const { return state_; }
    const QDateTime& time() const { return time_; }
    const std::vector<std::string>& errors() const { return errors_; }

    // The line under the list: the outcome at a glance, with its time.
    QString headline() const;
    // The errors that name a path inside sourcePath.
    long long errorCountFor(const std::string& sourcePath) const;
    static QString stamp(const QDateTime& time);
    static std::string causeOf(const std::string& failureLine);

private:
    State state_ = State::Never;
    QDateTime time_;
    std::vector<std::string> errors_;
    std::string interruptedSource_;
    long long interruptedCopied_ = -1;
    std::string destinationFailure_;
};

}  // namespace ferrovane
