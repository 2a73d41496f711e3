#pragma once
// What a destination's options leave out below every source root, besides the path patterns of
// FVExclusionRules: what the user's patterns match, the contents of folders tagged as caches
// (the folder and its CACHEDIR.TAG stay, as tar --exclude-caches keeps them, so that the mirror
// shows what was left out and why) and items with the nodump flag. The source root itself is
// never left out by these: the user chose it.

#include "engine/config/FVOptions.h"

#include <string>
#include <string_view>

namespace ferrovane {

class FVSourceExclusions {
public:
    explicit FVSourceExclusions(const FVOptions& options) : options_(options) {}

    bool any() const;
    // relative: below the source root without a leading "/" ("a/b").
    bool matchesPattern(std::string_view relative, bool isDirectory) const;
    // The entry name in dirFd (a path with AT_FDCWD) is a folder whose contents are left out.
    bool isCacheFolder(int dirFd, const char* name) const;
    // The entry name in dirFd (a path with AT_FDCWD) is left out for its nodump flag.
    bool isNoDump(int dirFd, const char* name) const;
    // All of the above for one existing source path below root (relative with or without its
    // leading "/"), for the cleanup, which meets it by its mirror.
    bool excludes(const std::string& sourcePath, std::string_view relative, bool isDirectory) const;

private:
    const FVOptions& options_;
};

}  // namespace ferrovane
