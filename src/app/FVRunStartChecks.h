#pragma once
// The checks before a backup starts from the window, in order, each refusing with its own alert:
// the destination is there and writable, something is to be backed up, a clone of "/" can be
// made, the sources' mirrors do not collide, the options are usable, and no other run holds the
// destination (whose lock is then held for the run).

#include "engine/config/FVDestinationLock.h"
#include "engine/config/FVOptions.h"
#include "engine/config/FVSourceItem.h"

#include <string>
#include <vector>

class QWidget;

namespace ferrovane {

class FVRunStartChecks {
public:
    // Away and Unusable: the destination is not there or cannot be written; the alert is up
    // and the caller puts the destination's list away.
    enum class Verdict { Passed, Refused, Away, Unusable };

    FVRunStartChecks(QWidget* window, bool runningAsRoot) : window_(window), runningAsRoot_(runningAsRoot) {}

    Verdict check(const std::string& destination, bool present, const std::vector<FVSourceItemPtr>& items,
                  const FVOptionsReadResult& options, FVDestinationLock& lock) const;
    // Whether the destination can hold these items' mirrors side by side; else says why.
    bool acceptsLayout(const std::string& destination, const FVOptions& options,
                       const std::vector<FVSourceItemPtr>& items) const;

private:
    bool acceptsClone(const std::string& destination, size_t sourceCount) const;

    QWidget* window_;
    bool runningAsRoot_;
};

}  // namespace ferrovane
