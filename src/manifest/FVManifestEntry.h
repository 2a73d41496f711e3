#pragma once
// One entry of a run's manifest: an item as the mirror holds it after the run, with the metadata
// of its source (which the destination may not be able to hold) and, for a regular file, the
// digest of its bytes.

#include "manifest/FVContentHash.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace ferrovane {

enum class FVManifestEntryType : uint8_t { File = 1, Folder = 2, Link = 3, Other = 4 };

const char* manifestEntryTypeName(FVManifestEntryType type);

// Extended attributes, access control lists included (system.posix_acl_*), sorted by name.
using FVManifestAttributes = std::vector<std::pair<std::string, std::string>>;

struct FVManifestEntry {
    // Relative to the mirror, as the layout names it: "/" then the components; bytes, not text.
    std::string path;
    FVManifestEntryType type = FVManifestEntryType::File;
    uint64_t size = 0;
    int64_t modificationTimeNs = 0;  // since the epoch
    uint32_t mode = 0;               // permission bits and the set-id and sticky bits
    uint32_t owner = 0;
    uint32_t group = 0;
    std::string linkTarget;          // links only
    FVManifestAttributes attributes;
    // Entries of one run with one non-zero group are hard links to one another.
    uint64_t linkGroup = 0;
    // The source item as it was when it was copied: its identity and its change time.
    uint64_t sourceDevice = 0;
    uint64_t sourceInode = 0;
    int64_t sourceChangeTimeNs = 0;
    // Regular files whose bytes the run knows; nothing when they could not be read.
    std::optional<FVContentHash> hash;
    // The run could not bring this item up to date: the mirror may hold an older state of it.
    bool failed = false;

    bool operator==(const FVManifestEntry&) const = default;
};

// Whether a recorded path is folder or lies inside it; "" is the mirror's root and holds them all.
bool isManifestPathAtOrBelow(std::string_view path, std::string_view folder);

// What a run did, recorded when its manifest is closed.
enum class FVManifestOutcome : uint8_t { Complete = 1, Stopped = 2, Failed = 3 };

const char* manifestOutcomeName(FVManifestOutcome outcome);

struct FVManifestSummary {
    FVManifestOutcome outcome = FVManifestOutcome::Failed;
    uint64_t entries = 0;       // written into the manifest
    uint64_t files = 0;         // regular files among them
    uint64_t bytes = 0;         // their sizes together
    uint64_t copied = 0;        // items the run copied or updated
    uint64_t archived = 0;      // items it moved into __changed or __removed
    uint64_t removed = 0;       // items it deleted or archived because their source was gone
    uint64_t errors = 0;
    int64_t finishedAtNs = 0;
};

struct FVManifestHeader {
    uint32_t formatVersion = 0;
    std::string stamp;            // the run's stamp, as its archive folders are named
    int64_t startedAtNs = 0;
    std::string programVersion;
    std::vector<std::string> sources;  // the enabled source items of the run
    bool folderPerSource = false;
};

}  // namespace ferrovane
