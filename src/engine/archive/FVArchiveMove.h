#pragma once
// Moves a version from the mirror into an archive so that no archived file shares its inode with
// a file left in the mirror: a mirror file with more than one name is copied into the archive and
// only its name is taken from the mirror, and a folder moved whole gets copies in place of the
// shared files it carries. Editing a mirror file in place then never changes an archived version.

#include "engine/archive/FVDestinationTree.h"
#include "engine/run/FVRunStatus.h"
#include "fs/FVDestinationProfile.h"
#include "fs/FVFileDescriptor.h"

#include <sys/stat.h>

#include <string>

namespace ferrovane {

class FVTemporaryEntry;

class FVArchiveMove {
public:
    FVArchiveMove(const FVDestinationTree& destination, FVRunStatus& status, bool cloneACL,
                  const FVDestinationProfile& keeps)
        : destination_(destination), status_(status), cloneACL_(cloneACL), keeps_(keeps) {}

    // Like FVDestinationTree::moveItem (0 or the errno; never replaces an archived item). known is
    // the item's lstat where the caller has it.
    int move(const std::string& from, const std::string& to, const struct stat* known = nullptr) const;

private:
    int copyThenRemove(const std::string& from, const std::string& to) const;
    // Replaces every file with more than one name below a folder about to be archived by a copy of
    // its own; 0, or the errno of the first file that keeps sharing its data.
    int unshareBelow(const std::string& folder) const;
    // A copy of in (data, then metadata) made as entry in dirFd, on its disk; invalid with errno
    // on failure.
    FVFd copyInto(int in, const struct stat& st, FVTemporaryEntry& entry, int dirFd, const std::string& path) const;

    const FVDestinationTree& destination_;
    FVRunStatus& status_;
    bool cloneACL_;
    const FVDestinationProfile& keeps_;
};

}  // namespace ferrovane
