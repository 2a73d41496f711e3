#pragma once
// Where the bytes of the files one complete run recorded are now. A file stays in the mirror until
// a later run records it differently (another digest or type, or, when that run is complete, not at
// all); that run displaced it into its own __changed or __removed folder, if archiving kept it.
// The index holds one small slot per recorded file of the subtree asked for; the later manifests
// are streamed through it, never held.

#include "engine/record/FVRunRecords.h"
#include "manifest/FVContentHash.h"
#include "manifest/FVManifestEntry.h"

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace ferrovane {

class FVRecordedBytes {
public:
    // runs: the destination's runs, oldest first (FVRunRecords::list); chosen: the index of the
    // complete run whose files are sought; path: the mirror path of the subtree ("" for all).
    // The destination's archive folders are listed once, here.
    // Nothing, with the reason, when a manifest cannot be read; a later manifest that turns out
    // damaged only ends the search there (the bytes are then looked for everywhere).
    static std::optional<FVRecordedBytes> index(const std::string& destination, const std::vector<FVRunRecord>& runs,
                                                size_t chosen, const std::string& path, std::string* problem);

    // Where the bytes of a file the run recorded should be, as paths below the destination root
    // without a leading "/": the archive folders of the run that displaced it, else the mirror.
    // Runs whose records retention took may lie between: their archive folders come first,
    // oldest first, as the first of them to hold the path displaced the recorded version.
    std::vector<std::string> likeliestPlaces(const FVManifestEntry& entry) const;
    // For when those do not hold the recorded digest: the mirror and the same path in every
    // archive folder of the destination, newest first, less the likeliest places.
    std::vector<std::string> otherPlaces(const FVManifestEntry& entry) const;
    // The stamp of the run that displaced a file; "" when the mirror still holds it.
    std::string displacedBy(const std::string& path) const;

private:
    // 32 bytes per file. Paths are kept as their key: two paths of one key would only send a file
    // to a likeliest place that does not match, and the other places are tried.
    struct Slot {
        uint64_t pathKey = 0;
        FVContentHash digest;
        uint32_t displacer = 0;  // 1 + index into laterStamps_; 0 none yet
        bool hasDigest = false;
        bool seen = false;  // recorded by the later run being read
    };

    Slot* find(uint64_t key);
    const Slot* find(uint64_t key) const;
    void readLater(const FVRunRecord& run, const std::string& path);

    std::vector<Slot> slots_;  // sorted by key
    std::vector<std::string> laterStamps_;
    std::vector<std::time_t> laterTimes_;
    std::time_t chosenTime_ = 0;
    struct ArchiveFolder {
        std::time_t time = 0;
        std::string place;  // "__changed/<stamp>"
    };
    std::vector<ArchiveFolder> archiveFolders_;  // newest first
};

}  // namespace ferrovane
