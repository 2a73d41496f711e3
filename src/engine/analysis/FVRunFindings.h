#pragma once
// What the analysis of the source items learns for the cleanup that follows them. Both run on
// the session's driver thread, one after the other, so nothing here needs a lock.

#include "fs/FVText.h"

#include <algorithm>
#include <map>
#include <string>
#include <vector>

namespace ferrovane {

struct FVRunFindings {
    // Patterns left out of the mirror; the analysis adds each item's fixed ones as it goes.
    std::vector<std::string> excludedFiles;
    // By source item: the mirror folders (relative to the item's mirror, "" for the mirror itself)
    // that hold names the source lacks; only these are looked at by the cleanup.
    std::map<std::string, std::vector<std::string>> mirrorFoldersToClean;
    // Source items that could not be read: their mirror is kept as it is.
    std::vector<std::string> unreadableSourcePaths;
    // Places where a source holds the destination itself.
    std::vector<std::string> destinationSourcePaths;

    bool isBelowUnreadableSource(const std::string& sourcePath) const { return isBelowAny(sourcePath, unreadableSourcePaths); }
    bool isWithinDestination(const std::string& sourcePath) const { return isBelowAny(sourcePath, destinationSourcePaths); }

private:
    static bool isBelowAny(const std::string& path, const std::vector<std::string>& folders) {
        return std::any_of(folders.begin(), folders.end(),
                           [&](const std::string& folder) { return FVText::isPathWithin(path, folder); });
    }
};

}  // namespace ferrovane
