#include "engine/session/FVSourceBytesBound.h"

#include "engine/session/FVRunPlanner.h"
#include "fs/FVDirectoryWalker.h"

namespace ferrovane {

std::optional<uint64_t> FVSourceBytesBound::of(const std::vector<std::string>& sources) const {
    uint64_t bytes = 0;
    for (const std::string& source : sources) {
        // Like the run's own walk, it stays on each source's file system.
        FVDirectoryWalker walker(source);
        while (const FVDirectoryWalker::Entry* entry = walker.next()) {
            if (status_.isCancelled()) return std::nullopt;
            if (entry->error == 0) bytes += FVRunPlanner::bytesOfCopy(entry->st);
        }
    }
    return bytes;
}

}  // namespace ferrovane
