#pragma once
// Which source names the destination can hold as entries of their own. A name that is too long,
// that holds a byte the file system refuses or is not the UTF-8 it must be cannot be stored; on a
// case-insensitive destination, a name that differs only in case from an earlier one in the same
// folder would land on that one's mirror. Each is refused with the reason, never changed or let
// overwrite.

#include "fs/FVDestinationProfile.h"

#include <cstddef>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ferrovane {

class FVDestinationNames {
public:
    explicit FVDestinationNames(const FVDestinationProfile& profile) : profile_(profile) {}

    // Why the entry name at level (1 for a source root's entries) cannot have a mirror of its
    // own, or "" when it can. Called for a walk's entries in walk order (a folder's entries right
    // after it): the names seen in the current folder of each level are remembered.
    std::string refusal(size_t level, std::string_view name);

    // The name as a case-insensitive file system compares it.
    static std::string folded(std::string_view name);
    // Whether the folder that holds path has an entry whose name differs from path's last
    // component only in case (false when it cannot be listed).
    static bool folderHoldsOtherCase(const std::string& path);

private:
    const FVDestinationProfile profile_;
    // By level: the folded names of the current folder's entries, each with its first name.
    std::vector<std::unordered_map<std::string, std::string>> seen_;
};

}  // namespace ferrovane
