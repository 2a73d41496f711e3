#pragma once
// The mirror folders that match the analysis' current source folders, one descriptor per level,
// so that each mirror entry is examined relative to its folder rather than by its whole path.
// Each folder also counts the names it holds against the source entries found in it: a folder
// with more names than that holds something the source lacks, and only such folders need the
// cleanup's attention.

#include "engine/run/FVFileSystemItem.h"
#include "fs/FVFileDescriptor.h"
#include "fs/FVThreadWorkingFolder.h"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace ferrovane {

class FVMirrorFolders {
public:
    // countNames: whether folders are listed to count their names (only the cleanup needs it).
    explicit FVMirrorFolders(bool countNames) : countNames_(countNames) {}

    // The mirror item of a source entry at level (1 for the root's entries), found by name in
    // its folder; falls back to the path where the level has no open folder.
    FVFileSystemItemPtr item(size_t level, const char* name, const std::string& path);
    // The attribute signature of the mirror item of a source entry at level, read by name in its
    // folder where it can be.
    std::string signature(size_t level, const char* name, const std::string& path, bool includeACL);
    // Every folder deeper than level is done: their counts are settled.
    void leaveBelow(size_t level);
    // Called for every source folder the walk may enter, with its level, name, relative path
    // and mirror item.
    void enter(size_t level, const char* name, std::string relativePath, FVFileSystemItem& mirror);
    // A source entry in the folder of that level that the mirror holds too.
    void countMatch(size_t level);
    // Ends the walk: the relative paths ("" for the root) of the folders that hold names the
    // source lacks, or whose names could not be counted.
    std::vector<std::string> finish();

private:
    struct Folder {
        FVFd fd;
        std::string relativePath;
        size_t names = 0;    // as listed when entered
        size_t matched = 0;  // source entries found in it
        bool exists = false;
        bool counted = false;  // false: the names could not be counted
    };
    static constexpr size_t kLevelLimit = 64;

    void settle(Folder& folder);

    const bool countNames_;
    std::vector<Folder> folders_;
    FVThreadWorkingFolder workingFolder_;
    std::vector<std::string> withExtraNames_;
};

}  // namespace ferrovane
