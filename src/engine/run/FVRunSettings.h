#pragma once
// What one run towards one destination is told before it starts and never changes afterwards:
// the parts of the run read it from any thread without a lock.

#include "engine/config/FVMirrorLayout.h"
#include "engine/config/FVOptions.h"
#include "fs/FVDestinationProfile.h"
#include "fs/FVFileStatus.h"

#include <functional>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <sys/types.h>

namespace ferrovane {

struct FVRunSettings {
    std::string targetPath;
    FVOptions options;
    // The stamp of this run's folders in __changed and __removed.
    std::string archiveFolderName;
    // The enabled source items, in list order, as the run's record names them.
    std::vector<std::string> recordedSources;
    // Destination items the cleanup never takes away (a clone of "/" keeps the volume's own files).
    std::vector<std::string> protectedPaths;
    bool willPerformCleanup = false;
    // Decides and reports everything, changes nothing.
    bool dryRun = false;
    // Where a dry run's decisions ("Would copy: ...") go besides the log; called on the run's threads.
    std::function<void(const std::string&)> reportPlannedChange;
    // The destination folder itself, so that a walk never descends into it from a source.
    dev_t destinationDevice = 0;
    ino_t destinationInode = 0;
    void identifyDestination() {
        struct stat destination {};
        if (FVFileStatus::stat(targetPath.c_str(), &destination) == 0) {
            destinationDevice = destination.st_dev;
            destinationInode = destination.st_ino;
        }
    }
    // What the destination file system can hold, probed before the run touches anything.
    FVDestinationProfile destinationProfile;

    bool syncMode() const { return options.syncMode != 0; }
    // Where the mirror and the archives lie (the sources are not needed for the mapping one way).
    FVMirrorLayout layout() const { return FVMirrorLayout(targetPath, syncMode(), {}); }
    // The destination folder of a source item.
    std::string itemTargetPath(const std::string& sourcePath) const { return layout().mirrorPath(sourcePath); }
};

}  // namespace ferrovane
