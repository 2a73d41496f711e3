#pragma once
// What a copy thread left at a destination path, for the run's record of the mirror.

#include "manifest/FVContentHash.h"
#include "manifest/FVManifestEntry.h"

#include <sys/stat.h>

#include <optional>
#include <string>
#include <string_view>

namespace ferrovane {

struct FVCopyRecord {
    const std::string& sourcePath;
    const std::string& destinationPath;
    // The source as copied, with the modification time its copy was given.
    const struct stat& source;
    std::string_view linkTarget;        // links only
    std::optional<FVContentHash> hash;  // a regular file's published bytes, when they were seen whole
    bool copied = false;                // false: the digest of a current copy was taken, nothing copied
    bool failed = false;                // not brought up to date: the mirror holds what it held
    // The source's attributes when the copy read them; else the record reads them.
    const FVManifestAttributes* attributes = nullptr;
};

}  // namespace ferrovane
