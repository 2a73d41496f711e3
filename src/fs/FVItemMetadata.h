#pragma once
// Copying an item's metadata from one open item to another: owner, mode, times, extended
// attributes and access-control lists (inode flags: FVInodeFlags::clone). Working on descriptors
// keeps every change on the item that was opened, whatever happens to its name meanwhile.

#include "fs/FVDestinationProfile.h"

#include <sys/stat.h>

namespace ferrovane {

// An open item. Links and special files are opened with O_PATH (pathOnly); the calls that refuse
// such descriptors go through /proc/self/fd instead.
struct FVItemHandle {
    int fd;
    bool pathOnly;
};

// What a destination item is known to have before its metadata is cloned (read from a file made
// the same way in the same folder), so that calls that would change nothing are left out.
struct FVStartingState {
    uid_t owner;
    gid_t group;
    bool hasAttributes;  // any extended attribute at all
};

namespace FVItemMetadata {

// Owner and group (the group alone for an ordinary user who owns the item; nothing is tried that
// the process may not do), the extended attributes except the two skipped names, the
// access-control lists when cloneACL (never for links), and the mode with its set-id and sticky
// bits (not for links, which have none). Attributes that the destination has and the source lacks
// are removed. Every step is tried; false with the first errno when any failed. With start, the
// owner is left as it is where it is the source's already, and a destination without attributes
// is not searched for ones to remove. With keeps, what the destination file system cannot hold
// (owners, modes, attributes) is not tried at all: the run says so once, not per item.
bool cloneStatusAndAttributes(FVItemHandle source, const struct stat& st, FVItemHandle destination, bool cloneACL,
                              int* error, const FVStartingState* start = nullptr,
                              const FVDestinationProfile* keeps = nullptr);

// Access and modification times to the nanosecond.
bool cloneTimes(const struct stat& st, FVItemHandle destination, int* error);

}  // namespace FVItemMetadata

}  // namespace ferrovane
