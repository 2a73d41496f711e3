#include "engine/analysis/FVSourceExclusions.h"

#include "fs/FVCacheDirectoryTag.h"
#include "fs/FVInodeFlags.h"
#include "fs/FVText.h"

#include <fcntl.h>

#include <algorithm>

namespace ferrovane {

bool FVSourceExclusions::any() const {
    return !options_.excludePatterns.empty() || options_.excludeCacheFolders || options_.excludeNodumpItems;
}

bool FVSourceExclusions::matchesPattern(std::string_view relative, bool isDirectory) const {
    return std::any_of(options_.excludePatterns.begin(), options_.excludePatterns.end(),
                       [&](const FVExcludePattern& pattern) { return pattern.matches(relative, isDirectory); });
}

bool FVSourceExclusions::isCacheFolder(int dirFd, const char* name) const {
    return options_.excludeCacheFolders && FVCacheDirectoryTag::isTagged(dirFd, name);
}

bool FVSourceExclusions::isNoDump(int dirFd, const char* name) const {
    return options_.excludeNodumpItems && FVInodeFlags::hasNoDump(dirFd, name);
}

bool FVSourceExclusions::excludes(const std::string& sourcePath, std::string_view relative, bool isDirectory) const {
    while (relative.starts_with('/')) relative.remove_prefix(1);
    if (relative.empty()) return false;
    if (matchesPattern(relative, isDirectory) || isNoDump(AT_FDCWD, sourcePath.c_str())) return true;
    return FVText::lastPathComponent(sourcePath) != FVCacheDirectoryTag::kName &&
           isCacheFolder(AT_FDCWD, FVText::deletingLastPathComponent(sourcePath).c_str());
}

}  // namespace ferrovane
