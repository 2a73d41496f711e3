#pragma once
// What a regular file starts with when a copying thread creates it in its current folder: owner
// and group (the folder's group in a set-group-id folder), the attributes the folder gives it (an
// access ACL from a default ACL, a security label) and the inode flags it inherits. All of it
// follows from the process and the folder alone, so it is read once, from the first file made in
// the folder, and the metadata clone of every later file there skips what would change nothing.

#include "fs/FVItemMetadata.h"

namespace ferrovane {

class FVNewFileProfile {
public:
    // The thread moved on to another folder, or the folder changed.
    void forget() { known_ = false; }
    // What fd, a file just created in the folder, starts with; nothing when it cannot be read.
    const FVStartingState* startOf(int fd);
    // Whether a new file may carry inode flags that a copy sets or clears.
    bool mayHaveCopiedFlags() const { return !known_ || hasCopiedFlags_; }

private:
    bool known_ = false;
    FVStartingState start_{};
    bool hasCopiedFlags_ = true;
};

}  // namespace ferrovane
