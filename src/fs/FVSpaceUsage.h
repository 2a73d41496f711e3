#pragma once
// How much room there is: a volume's free, used and whole size (statvfs), and the space a tree
// takes on its disk (allocated blocks, without crossing mounts or following links).

#include <cstdint>
#include <optional>
#include <string>

#include <sys/types.h>

namespace ferrovane {

struct FVVolumeSpace {
    // What an ordinary user may still write (f_bavail).
    uint64_t freeBytes = 0;
    // In use, the superuser's share included (f_blocks - f_bfree).
    uint64_t usedBytes = 0;
    uint64_t totalBytes = 0;
    // The volume's device, so that sources on one file system count once.
    dev_t device = 0;
};

namespace FVSpaceUsage {

// Nothing when path cannot be looked at; error gets the errno then.
std::optional<FVVolumeSpace> volumeAt(const std::string& path, int* error = nullptr);
// The allocated bytes of path and everything below it; what cannot be read counts as nothing.
uint64_t treeBytes(const std::string& path);

}  // namespace FVSpaceUsage

}  // namespace ferrovane
