#pragma once
// Groups the flat hit list of a destination search into one entry per logical file: its current
// copy and the versions filed in the archive folders ("__removed", "__changed") of past runs, in
// the order of the runs, newest first, as "ferrovane versions" lists them.

#include <cstddef>
#include <string>
#include <vector>

namespace ferrovane {

struct FVSearchResult {
    std::string path;                     // the path the file has, or had, in the mirror
    // The versions: the current copy (the mirror's) first, then the archived ones by the run that
    // archived them, newest first. Each version's modification time, "%Y-%m-%d %H:%M" local time
    // ("" when the file could not be read), its real path, and the stamp of its run ("" for the
    // current copy).
    std::vector<std::string> timestamps;
    std::vector<std::string> fullpaths;
    std::vector<std::string> runs;
    size_t selectedIndex = 0;             // the version chosen in the display
    bool hasMultipleVersions = false;
};

class FVSearchResultParser {
public:
    // Entries ordered by logical path (bytes), so that a list that grows by one hit keeps its
    // rows in place; two versions of one run (changed and removed) keep hit order.
    static std::vector<FVSearchResult> parsedResults(const std::vector<std::string>& hits,
                                                     const std::string& destination);

    // The modification time of the item itself (links are not followed), or "" when unreadable.
    static std::string timestamp(const std::string& hit);
};

}  // namespace ferrovane
