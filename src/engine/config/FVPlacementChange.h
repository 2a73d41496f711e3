#pragma once
// What a change of the placement option (syncMode) does to the mirrors already in a destination:
// each backed-up source's mirror belongs somewhere else afterwards, and the one in place would
// stay behind, never updated and never removed, while the next run copied everything again.
// Such a change is refused while a mirror is in place, with the commands that move it by hand.
// The program does not move mirrors itself: the archives and the record of every earlier run keep
// the placement they were made with.

#include "engine/config/FVSourceItem.h"

#include <optional>
#include <string>
#include <vector>

namespace ferrovane {

class FVPlacementChange {
public:
    struct Move {
        std::string from;  // the mirror where the current placement keeps it
        std::string to;    // where the new placement wants it
        bool occupied;     // something is already at the new place
    };

    FVPlacementChange(const std::string& destination, bool fromFolderPerSource, bool toFolderPerSource,
                      const std::vector<FVSourceItemPtr>& items);

    // The mirrors in place that the change would leave behind.
    const std::vector<Move>& strandedMirrors() const { return stranded_; }
    // Nothing when no mirror would be left behind; else what to do, ending with the command to
    // repeat once the mirrors are moved.
    std::optional<std::string> refusal(const std::string& repeat) const;

private:
    std::vector<Move> stranded_;
};

}  // namespace ferrovane
