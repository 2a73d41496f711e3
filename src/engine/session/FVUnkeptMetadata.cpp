#include "engine/session/FVUnkeptMetadata.h"

#include <fmt/format.h>

namespace ferrovane {

void FVUnkeptMetadata::check(const FVHardLinkGroups& groups, const FVRunRecorder* recorder) {
    if (!linksSaid_ && groups.separateNames() > 0) {
        linksSaid_ = true;
        warn(fmt::format("The destination ({}) cannot keep hard links: the names of a file with several names are "
                         "stored as separate files.",
                         profile_.fileSystemType));
    }
    if (!attributesSaid_ && !profile_.extendedAttributes && recorder && recorder->recordedCarriedAttributes()) {
        attributesSaid_ = true;
        warn(fmt::format("The destination ({}) cannot keep extended attributes or ACLs: its copies lack them, and "
                         "the record of the run keeps them for a restore.",
                         profile_.fileSystemType));
    }
}

void FVUnkeptMetadata::warn(std::string message) {
    status_.log("WARNING: " + message);
    warnings_.push_back(std::move(message));
}

}  // namespace ferrovane
