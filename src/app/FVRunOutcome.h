#pragma once
// What the last run on a destination came to: finished, stopped, not started for lack of room or
// never, when, and its errors.
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

    State state() const { return state_; }
    const QDateTime& time() const { return time_; }
    const std::vector<std::string>& errors() const { return errors_; }

    // The line under the list: the outcome at a glance, with its time.
    QString headline() const;
    // The errors that name a path inside sourcePath.
    long long errorCountFor(const std::string& sourcePath) const;
    static QString stamp(const QDateTime& time);

private:
    State state_ = State::Never;
    QDateTime time_;
    std::vector<std::string> errors_;
};

}  // namespace ferrovane
