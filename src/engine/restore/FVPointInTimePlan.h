#pragma once
// What restoring a file or a folder as one complete run recorded it takes: where each recorded
// entry goes, which existing items are in the way (a restore writes nothing while any is, unless
// the user chose to replace them), which are already as recorded, and where the bytes of each
// file are now. Planning reads the run's manifest and the later ones as streams and writes
// nothing; the plan keeps counts, the conflicts and a small slot per file, not the entries.

#include "engine/record/FVPointInTime.h"
#include "engine/record/FVRecordedBytes.h"
#include "engine/restore/FVRestoreTarget.h"
#include "fs/FVDestinationProfile.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ferrovane {

class FVPointInTimePlan {
public:
    struct Conflict {
        std::string target;
        std::string reason;
    };
    // SameBytes: the recorded contents, with another mode, owner or group (a copy from a disk that
    // keeps none): the restore puts the recorded ones on it in place.
    enum class State { New, Identical, SameBytes, Merge, InTheWay, Unreadable };

    // The item at mirrorPath (as that run's layout names it) as the complete run recorded it:
    // into toFolder under its name, or, when toFolder is empty, back to its original place.
    // Nothing, with the reason, when a manifest cannot be read, the run is no point in time, it
    // recorded no such item, or its original place is not known.
    static std::optional<FVPointInTimePlan> make(const std::string& destination, const FVRunRecord& run,
                                                 const std::string& mirrorPath, const std::string& toFolder,
                                                 std::string* problem);

    const std::string& destination() const { return destination_; }
    const FVPointInTime& pointInTime() const { return pointInTime_; }
    const std::string& mirrorPath() const { return mirrorPath_; }
    const std::string& to() const { return to_; }
    const std::string& confinementRoot() const { return root_; }
    const FVRecordedBytes& bytes() const { return bytes_; }
    const FVDestinationProfile& targetProfile() const { return profile_; }

    // Where a recorded entry at or below mirrorPath goes; nothing for one that would land inside
    // the destination (its own folders when the whole destination is restored).
    std::optional<std::string> targetOf(const std::string& entryPath) const;
    // How the item at a target stands against the entry; reason says what is in the way.
    State stateOf(const FVManifestEntry& entry, const std::string& target, std::string* reason) const;
    // The recorded folders above the item that a restore to its original place makes again
    // (they are missing now), outermost first, with their targets.
    const std::vector<std::pair<FVManifestEntry, std::string>>& missingParents() const { return missingParents_; }

    uint64_t entryCount() const { return entries_; }
    uint64_t fileCount() const { return files_; }
    uint64_t byteCount() const { return bytesToCopy_; }
    uint64_t identicalCount() const { return identical_; }
    const std::vector<Conflict>& conflicts() const { return conflicts_; }
    // Targets that could not be examined, as messages.
    const std::vector<std::string>& problems() const { return problems_; }

private:
    FVPointInTimePlan(std::string destination, FVPointInTime pointInTime, FVRecordedBytes bytes, std::string mirrorPath,
                      const FVRestoreTarget& target);
    void add(const FVManifestEntry& entry);

    std::string destination_;
    FVPointInTime pointInTime_;
    FVRecordedBytes bytes_;
    std::string mirrorPath_, to_, root_;
    FVDestinationProfile profile_;
    std::vector<std::pair<FVManifestEntry, std::string>> missingParents_;
    uint64_t entries_ = 0, files_ = 0, bytesToCopy_ = 0, identical_ = 0;
    std::vector<Conflict> conflicts_;
    std::vector<std::string> problems_;
};

}  // namespace ferrovane
