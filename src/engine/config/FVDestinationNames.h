#pragma once
// Which source names the destination can hold as entries of their own. A name that is too long,
// that holds a byte the file system refuses or is not the UTF-8 it must be cannot be stored; on a
// case-insensitive destination, a name that differs only in case from an earlier one in the same
// folder would land on that one's mirror. Each is refused with the reason, never changed or let
// overwrite.

#include "fs/FVDestinationProfile.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace ferrovane {

class FVDestinationNames {
public:
    explicit FVDestinationNames(const FVDestinationProfile& profile) : profile_(profile) {}

    // Why the entry name at level (1 for a source root's entries) cannot have a mirror of its
    // own, or "" when it can. Called for a walk's entries in walk order (a folder's entries right
    // after it): the names seen in the current folder of each level are remembered.
    // folderFd is the folder that holds the entry, read again only when its name seems taken.
    std::string refusal(size_t level, std::string_view name, int folderFd);

    // The name as a case-insensitive file system compares it.
    static std::string folded(std::string_view name);
    // The folded names of a folder's entries (none when it cannot be listed).
    static std::unordered_set<std::string> foldedNamesIn(const std::string& folder);

private:
    const FVDestinationProfile profile_;
    // By level: hashes of the folded names of the current folder's entries. A folder of a
    // million entries costs a few megabytes; names are fetched only on a match.
    std::vector<std::unordered_set<uint64_t>> seen_;
};

}  // namespace ferrovane
