#pragma once
// The changes a run makes to its destination outside the copy worker (archive moves, removals,
// flag clearing), each reached from the destination's root without following links, so that a
// link planted in the destination can never send one elsewhere.

#include "fs/FVConfinedDirectory.h"

#include <functional>
#include <optional>
#include <string>

namespace ferrovane {

class FVDestinationTree {
public:
    explicit FVDestinationTree(const std::string& rootPath) : destination_(rootPath) {}

    // Moves within the destination without following links; never replaces an archived item.
    // The target's missing folders are made by the move itself. Both return 0 or the errno.
    int moveItem(const std::string& from, const std::string& to) const;
    int removeItem(const std::string& path) const;
    // Removes an archived item that may hold immutable or append-only files: when the plain
    // removal fails, clears the flags below it and tries once more. 0 or the errno.
    int removeUnlocking(const std::string& path) const;
    // A descriptor of the folder at an absolute path below the root (see FVConfinedDirectory).
    FVFd openFolder(const std::string& path, bool createMissing, int* error) const;
    // Clears the immutable flag of an item (and, recursively, of all below it).
    void unlock(const std::string& path, bool recursively = false) const;
    // Runs change (which takes the item away) and gives the item's folder its dates back.
    void keepingParentDates(const std::string& itemPath, const std::function<void()>& change) const;
    // Puts what the run wrote on the destination's disk (syncfs); 0 or the errno.
    int flush() const;

private:
    // The part of an absolute path below the destination root, doubled separators folded;
    // nothing for a path outside it.
    std::optional<std::string> relative(const std::string& path) const;

    FVConfinedDirectory destination_;
};

}  // namespace ferrovane
