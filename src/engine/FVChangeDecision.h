#pragma once
// Whether a source item must be copied over its destination counterpart, decided from what both
// are (existence, type, size, modification date) and, last and only when all else matches, from
// their extended-attribute signatures. A pure function: the caller reads the items.

#include "engine/FVFileSystemItem.h"

#include <cstdint>
#include <functional>

namespace ferrovane {

class FVChangeDecision {
public:
    // What is known of one side; type None means the item does not exist.
    struct Side {
        FVFileType type = FVFileType::None;
        uint64_t size = 0;
        int64_t modificationDate = 0;  // whole seconds
    };
    enum class Reason { Unchanged, DestinationMissing, TypeMismatch, SizeMismatch, DateMismatch, XattrMismatch };

    // Dates within this many seconds of each other, either way, are the same date: file systems
    // keep them with different precision.
    static constexpr int64_t kDateWindow = 10;

    // xattrsIdentical is asked only when nothing else tells the two apart; an empty function
    // (changes to extended attributes ignored) counts as identical.
    static Reason decide(const Side& source, const Side& destination, const std::function<bool()>& xattrsIdentical);
    static Side sideOf(FVFileSystemItem& item);
};

}  // namespace ferrovane
