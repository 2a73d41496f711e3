#pragma once
// What an earlier run recorded of its files, kept compactly (40 bytes a file, no paths, each
// distinct set of attributes once) so that a run can carry a digest and the attributes forward for
// a file it leaves as it is instead of reading the mirror and the source again. They are given only
// for the same path in the same state: same size and modification time, and the same source inode
// with the same change time (a write to the source, a new file under its name, or a change of its
// attributes or access control lists changes one of them). Links are kept too, without a digest:
// one found in the same state is the one the earlier run published.

#include "manifest/FVManifestEntry.h"

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

namespace ferrovane {

class FVDigestIndex {
public:
    struct Carried {
        FVContentHash hash;
        const FVManifestAttributes* attributes;
    };

    void reserve(size_t files) { slots_.reserve(files); }
    // A regular file's entry with a digest, or a link's, that the run published; others are
    // passed over.
    void add(const FVManifestEntry& entry);
    // Sorts what was added; find() answers only afterwards.
    void seal();

    std::optional<Carried> find(std::string_view path, const struct stat& source) const;

private:
    struct Slot {
        uint64_t path;
        uint64_t state;
        FVContentHash hash;
        uint32_t attributes;  // index into sets_
        bool operator<(const Slot& other) const { return path < other.path; }
    };
    static uint64_t stateOf(bool link, uint64_t size, int64_t modificationTimeNs, uint64_t inode, int64_t changeTimeNs);

    std::vector<Slot> slots_;
    std::vector<FVManifestAttributes> sets_{FVManifestAttributes()};
    std::map<FVManifestAttributes, uint32_t> setIds_;  // only while adding
    // The first slot of each range of keys with the same leading bits: a lookup scans a few slots.
    std::vector<uint32_t> buckets_;
    int bucketShift_ = 64;
};

}  // namespace ferrovane
