#include "app/FVRunStartChecks.h"

#include "app/FVAlert.h"
#include "app/FVQtStrings.h"
#include "engine/config/FVMirrorLayout.h"
#include "fs/FVMountTable.h"

#include <QMessageBox>

#include <algorithm>
#include <set>
#include <unistd.h>

namespace ferrovane {

namespace {

// A clone of "/" needs a file system that keeps Unix owners and modes.
bool keepsOwnersAndModes(const std::string& type) {
    static const std::set<std::string> types = {"ext2", "ext3", "ext4", "xfs", "btrfs", "f2fs", "zfs"};
    return types.count(type) > 0;
}

}  // namespace

FVRunStartChecks::Verdict FVRunStartChecks::check(const std::string& destination, bool present,
                                                  const std::vector<FVSourceItemPtr>& items,
                                                  const FVOptionsReadResult& options, FVDestinationLock& lock) const {
    std::vector<std::string> paths;
    for (const FVSourceItemPtr& item : items)
        if (item->enabled() == int64_t(FVSourceMode::Backup)) paths.push_back(item->sourcePath());

    if (!present) {
        FVAlert::show(window_, "backupnotfound", "backupnotfoundlong")->raise();
        return Verdict::Away;
    }
    if (access(destination.c_str(), R_OK) != 0 || access(destination.c_str(), W_OK) != 0) {
        FVAlert::show(window_, "backupnotfound", "backupnotfoundlong")->raise();
        return Verdict::Unusable;
    }
    if (paths.empty()) {
        FVAlert::show(window_, "nosources", "nosourceslong");
        return Verdict::Refused;
    }
    if (std::find(paths.begin(), paths.end(), "/") != paths.end() && !acceptsClone(destination, paths.size()))
        return Verdict::Refused;
    if (!acceptsLayout(destination, options.options, items)) return Verdict::Refused;
    if (!options.problems.empty()) {
        QMessageBox* box = FVAlert::show(window_, "optionsinvalid", "optionsinvalidlong");
        box->setInformativeText(QString::fromStdString(options.problems.front()) + "\n\n" + localized("optionsinvalidlong"));
        return Verdict::Refused;
    }
    if (lock.acquire(destination) != FVDestinationLock::Status::Acquired) {
        QMessageBox* box = FVAlert::show(window_, "destinationbusy", "destinationbusylong");
        box->setInformativeText(QString::fromStdString(lock.reason().empty() ? FVDestinationLock::busyMessage(destination)
                                                                             : lock.reason()));
        return Verdict::Refused;
    }
    return Verdict::Passed;
}

bool FVRunStartChecks::acceptsClone(const std::string& destination, size_t sourceCount) const {
    if (!runningAsRoot_) {
        FVAlert::show(window_, "cloningbutnotroot", "cloningbutnotrootlong");
        return false;
    }
    if (!keepsOwnersAndModes(FVMountTable::fileSystemTypeAtPath(destination))) {
        FVAlert::show(window_, "cloningbutnothfs", "cloningbutnothfslong");
        return false;
    }
    if (sourceCount >= 2) {
        FVAlert::show(window_, "cloningwithothersources", "cloningwithothersourceslong");
        return false;
    }
    return true;
}

// The same check as the run's: sources whose mirrors would collide are refused with the reason.
bool FVRunStartChecks::acceptsLayout(const std::string& destination, const FVOptions& options,
                                     const std::vector<FVSourceItemPtr>& items) const {
    const FVMirrorLayout layout = FVMirrorLayout::fromItems(destination, options.syncMode != 0, items);
    std::optional<std::string> problem = layout.validateAsSeen();
    if (!problem) return true;
    QMessageBox* box = FVAlert::show(window_, "layoutinvalid", "layoutinvalid");
    box->setInformativeText(qPath(*problem));
    return false;
}

}  // namespace ferrovane
