#include "engine/analysis/FVHardLinkGroups.h"

#include <sys/stat.h>

namespace ferrovane {

bool FVHardLinkGroups::takeLaterName(const FVFileSystemItemPtr& source, const FVFileSystemItemPtr& destination,
                                     bool needed) {
    const struct stat& st = source->statBuffer();
    if (!(S_ISREG(st.st_mode) || S_ISLNK(st.st_mode)) || st.st_nlink < 2) return false;
    Inode mirror{};
    if (destination->fileExists()) mirror = {destination->statBuffer().st_dev, destination->statBuffer().st_ino};
    auto [first, isFirst] = firstNames_.try_emplace(Inode{st.st_dev, st.st_ino});
    if (isFirst) {
        first->second = {destination->path(), mirror};
        return false;
    }
    // A mirror that is the first name's mirror and matches the source was linked by an earlier run.
    if (!needed && mirror.inode != 0 && mirror == first->second.mirror) return true;
    requests_.push_back({source, destination, first->second.destinationPath, !needed});
    return true;
}

}  // namespace ferrovane
