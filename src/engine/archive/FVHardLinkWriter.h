#pragma once
// Makes the mirror of each later name of a file a link to its first name's mirror, after the
// copies of the source item are done (on the run's own thread). The old entry is archived like a
// changed file and stays whole until the link is renamed over it. Where no link can be made (a
// file system without links, too many links, an immutable first copy), the name is handed back to
// be copied as a file of its own, after its folder, whose dates that copy changes.

#include "engine/analysis/FVHardLinkGroups.h"
#include "engine/archive/FVChangedFileArchive.h"
#include "engine/archive/FVDestinationTree.h"
#include "engine/run/FVRunSettings.h"
#include "engine/run/FVRunStatus.h"

#include <sys/stat.h>

#include <string>
#include <utility>
#include <vector>

namespace ferrovane {

class FVHardLinkWriter {
public:
    FVHardLinkWriter(const FVRunSettings& settings, const FVDestinationTree& destination, FVChangedFileArchive& archive,
                     FVRunStatus& status)
        : settings_(settings), destination_(destination), archive_(archive), status_(status) {}

    using CopyPair = std::pair<FVFileSystemItemPtr, FVFileSystemItemPtr>;
    // Returns the pairs (source, destination) still to copy.
    std::vector<CopyPair> run(const std::vector<FVHardLinkGroups::Request>& requests);

private:
    // The folder last reached, kept open for the next name: names come in walk order.
    struct OpenFolder {
        std::string path;
        FVFd fd;
        int error = 0;
    };
    enum class Outcome { Done, CopySeparately };
    // The folder's descriptor, or -1 with the error in cache.error.
    int folderAt(OpenFolder& cache, const std::string& path);
    Outcome link(const FVHardLinkGroups::Request& request);
    // Makes the link under a temporary name, archives the old entry (old, when there is one) and
    // renames the link over it.
    Outcome replaceWithLink(const FVHardLinkGroups::Request& request, int firstFolder, const std::string& firstName,
                            int folder, const std::string& name, const struct stat* old);
    void reportWouldLink(const FVHardLinkGroups::Request& request);
    void reportError(const std::string& message);

    const FVRunSettings& settings_;
    const FVDestinationTree& destination_;
    FVChangedFileArchive& archive_;
    FVRunStatus& status_;
    OpenFolder firstFolder_, folder_;
};

}  // namespace ferrovane
