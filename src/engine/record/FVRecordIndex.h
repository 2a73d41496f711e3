#pragma once
// What runs recorded, by path, in flat memory: one 32-byte slot per path in an open-addressing
// table keyed by a 64-bit hash of the path. The paths themselves are not kept; whoever needs
// them reads the manifest again. At a million paths the table takes under 50 MB.

#include "manifest/FVContentHash.h"
#include "manifest/FVManifestEntry.h"

#include <cstdint>
#include <functional>
#include <string_view>
#include <vector>

namespace ferrovane {

class FVRecordIndex {
public:
    struct Record {
        FVContentHash digest;
        FVManifestEntryType type = FVManifestEntryType::File;
        bool hasDigest = false;
        // The run could not bring the item up to date: a folder's contents are then not known.
        bool failed = false;
        // Set by whoever walks the items the index describes.
        bool seen = false;
        uint32_t mark = 0;
    };

    // Room for this many paths without growing.
    void reserve(size_t paths);
    // The record of a path, made empty when there was none.
    Record& insert(uint64_t key);
    Record* find(uint64_t key);
    // What the entry records replaces what an earlier run recorded for its path (its mark stays).
    // A digest is kept only for a file the run brought up to date.
    Record& record(const FVManifestEntry& entry);
    void forEach(const std::function<void(Record&)>& visit);
    void clear();
    size_t size() const { return size_; }

private:
    struct Slot {
        uint64_t key = 0;  // 0: empty
        Record record;
    };

    size_t slotOf(uint64_t key) const;
    void grow(size_t capacity);

    std::vector<Slot> slots_;
    size_t size_ = 0;
};

}  // namespace ferrovane
