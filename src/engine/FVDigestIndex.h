#pragma once
// The digests of the files an earlier run recorded, kept compactly (32 bytes a file, no paths) so
// that a run can carry a digest forward for a file it leaves as it is instead of reading the
// mirror again. A digest is given only for the same path in the same state: same size and
// modification time, and the same source inode with the same change time (any write to the
// source, a rename over it or a new file under its name changes one of them).

#include "manifest/FVManifestEntry.h"

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

namespace ferrovane {

class FVDigestIndex {
public:
    void reserve(size_t files) { slots_.reserve(files); }
    // A regular file's entry with a digest that the run published; others are passed over.
    void add(const FVManifestEntry& entry);
    // Sorts what was added; find() answers only afterwards.
    void seal();

    std::optional<FVContentHash> find(std::string_view path, const struct stat& source,
                                      int64_t modificationTimeNs) const;
    size_t size() const { return slots_.size(); }

    static uint64_t keyOf(std::string_view path);
    static uint64_t stateOf(uint64_t size, int64_t modificationTimeNs, uint64_t inode, int64_t changeTimeNs);

private:
    struct Slot {
        uint64_t path;
        uint64_t state;
        FVContentHash hash;
        bool operator<(const Slot& other) const { return path < other.path; }
    };
    std::vector<Slot> slots_;
};

}  // namespace ferrovane
