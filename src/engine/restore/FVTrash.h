#pragma once
// Moves an item out of the way without deleting it: into the desktop's trash (the freedesktop
// layout, so that a file manager can put it back), or, where no trash on the item's file system
// can be used, beside itself under a name that says what happened.

#include <ctime>
#include <string>

namespace ferrovane {

class FVTrash {
public:
    struct Outcome {
        bool moved = false;
        bool inTrash = false;   // false: renamed beside itself
        std::string placedAt;   // where the item is now
        std::string problem;    // why nothing was moved
    };

    // The home trash is $XDG_DATA_HOME/Trash (default ~/.local/share/Trash).
    static std::string homeTrashPath();
    // Moves path (never following it when it is a link) at the given time.
    static Outcome moveAside(const std::string& path, std::time_t now);

    // "Path=" values are percent-encoded bytes; '/' and unreserved characters stay as they are.
    static std::string percentEncoded(const std::string& path);
};

}  // namespace ferrovane
