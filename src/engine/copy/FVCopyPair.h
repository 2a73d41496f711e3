#pragma once
// One item for the copy threads: the source and where it goes in the mirror.

#include "engine/run/FVBoundedQueue.h"
#include "engine/run/FVFileSystemItem.h"

namespace ferrovane {

struct FVCopyPair {
    FVFileSystemItemPtr source;
    FVFileSystemItemPtr destination;
    // The destination's data is current: only its mode, owner and group are brought in line.
    bool modeAndOwnerOnly = false;
    // The destination is current: only the digest of its bytes is taken, for the record.
    bool digestOnly = false;
};

// The pairs between the analysis and the copy threads.
using FVCopyPairs = FVBoundedQueue<FVCopyPair>;
// Pairs waiting to be copied before the analysis is held back: a few megabytes of items.
inline constexpr size_t kPendingCopyPairs = 20000;

}  // namespace ferrovane
