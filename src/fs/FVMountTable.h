#pragma once
// Look-ups in the mount table (libmount).

#include <string>

namespace ferrovane::FVMountTable {

// The type of the mounted file system that holds the path: "ext4", "tmpfs", "fuseblk",
// "fuse.davfs" ...; "" when the path cannot be found.
std::string fileSystemTypeAtPath(const std::string& path);
// The mount point of the file system that holds the path ("/" for the root); "" when the path
// cannot be found.
std::string mountPointOfPath(const std::string& path);

}  // namespace ferrovane::FVMountTable
