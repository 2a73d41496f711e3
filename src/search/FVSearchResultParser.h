#pragma once
// Groups the flat hit list of a destination search into one entry per logical file: its current
// copy and the versions filed in the archive folders ("__removed", "__changed") of past runs.

#include <cstddef>
#include <string>
#include <vector>

namespace ferrovane {

struct FVSearchResult {
    std::string path;                     // the path the file has, or had, in the mirror
    std::vector<std::string> timestamps;  // "%Y-%m-%d %H:%M" local time, newest first;
                                          // empty when the file could not be read
    std::vector<std::string> fullpaths;   // the versions' real paths, in the order of timestamps
    size_t selectedIndex = 0;             // the version chosen in the display
    bool hasMultipleVersions = false;
};

class FVSearchResultParser {
public:
    // Entries ordered by logical path (bytes), so that a list that grows by one hit keeps its
    // rows in place; versions with equal time stamps keep hit order.
    static std::vector<FVSearchResult> parsedResults(const std::vector<std::string>& hits,
                                                     const std::string& destination);

    // The modification time of the item itself (links are not followed), or "" when unreadable.
    static std::string timestamp(const std::string& hit);
};

}  // namespace ferrovane
