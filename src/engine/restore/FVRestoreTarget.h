#pragma once
// Where a version inside a destination goes back to: its original place, or a folder the user
// chose, and the folder the copy is confined to. Shared by the command line and the window.

#include "engine/record/FVVersionCatalog.h"

#include <optional>
#include <string>
#include <vector>

namespace ferrovane {

struct FVRestoreTarget {
    std::string from, to, root;
    // The mirror folders that the folders above to stand for, nearest first: a version going
    // back to its original place, whose folders the restore may have to make again.
    std::vector<std::string> parentMirrors;

    // A target below anchor, a folder the user chose (a chosen folder, or the folder of a
    // source). The copy is confined to the deepest existing folder at or above anchor, taken
    // with its links resolved as the user named it; below it no link is followed.
    static FVRestoreTarget confined(std::string from, const std::string& anchor, const std::string& to);

    // The version at versionPath (inside the catalog's destination) of the item at mirrorPath:
    // into toFolder under the item's name, or, when toFolder is empty, back to its original
    // path. Nothing, with the reason, when the original place is not known.
    static std::optional<FVRestoreTarget> forVersion(const FVVersionCatalog& catalog, const std::string& mirrorPath,
                                                     const std::string& versionPath, const std::string& toFolder,
                                                     std::string* problem);
};

}  // namespace ferrovane
