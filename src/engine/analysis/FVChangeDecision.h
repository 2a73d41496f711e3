#pragma once
// Whether a source item must be copied over its destination counterpart, decided from what both
// are (existence, type, size or link target length, modification time), from their
// extended-attribute signatures when all else matches, and last from mode, owner and group, which
// alone are applied in place. A pure function: the caller reads the items.

#include "engine/run/FVFileSystemItem.h"
#include "fs/FVDestinationProfile.h"

#include <sys/types.h>

#include <cstdint>
#include <functional>

namespace ferrovane {

class FVChangeDecision {
public:
    // What is known of one side; type None means the item does not exist.
    struct Side {
        FVFileType type = FVFileType::None;
        uint64_t size = 0;
        int64_t modificationTimeNs = 0;  // since 1970
        mode_t mode = 0;                 // permission, set-id and sticky bits
        uid_t owner = 0;
        gid_t group = 0;
    };
    // How closely the destination can match its source.
    struct Tolerance {
        // Two times are the same when they are less than this apart: the destination keeps no
        // finer time (1 ns exact, 2 s on FAT), and drivers round either way.
        int64_t timeGranularityNs = 1;
        bool comparesModes = true;
        bool comparesOwners = true;
        // The mode bits compared: the set-id bits only where the owners are kept too (the kernel
        // drops them when another user's item is copied).
        mode_t modeBits = 07777;
        // Where the destination cannot set a link's time, a link's date is no change (its target
        // is compared instead).
        bool comparesLinkTimes = true;
        // What the destination can hold, and the process can set: owners only as the superuser.
        static Tolerance of(const FVDestinationProfile& profile);
    };
    enum class Reason {
        Unchanged,
        DestinationMissing,
        TypeMismatch,
        SizeMismatch,
        DateMismatch,
        XattrMismatch,
        // Two links of one length and no comparable dates point at different targets.
        LinkTargetMismatch,
        // Only mode, owner or group differ: the destination item is brought in line where it is.
        ModeOrOwnerMismatch,
    };

    // xattrsIdentical is asked only when nothing but mode and owner could still tell the two
    // apart; an empty function (changes to extended attributes ignored) counts as identical.
    static Reason decide(const Side& source, const Side& destination, const std::function<bool()>& xattrsIdentical,
                         const Tolerance& tolerance);
    static Side sideOf(FVFileSystemItem& item);
};

}  // namespace ferrovane
