#include "engine/run/FVDestinationFailure.h"

#include <cerrno>
#include <cstring>

#include <fmt/format.h>

namespace ferrovane {

std::string FVDestinationFailure::message() const {
    // The first two lines are matched by scripts and stay as they are.
    if (error_ == EROFS) return "ERROR: Destination is read-only. Aborting backup.";
    if (error_ == ENOSPC || error_ == EDQUOT) return "ERROR: No free space left at destination. Aborting backup.";
    const char* name = strerrorname_np(error_);
    return fmt::format("ERROR: Destination failed: {} ({}) while {} {}. Aborting backup.", std::strerror(error_),
                       name ? name : "?", action_, path_);
}

}  // namespace ferrovane
