#include "engine/FVDigestIndex.h"

#include <xxhash.h>

#include <algorithm>

namespace ferrovane {

uint64_t FVDigestIndex::keyOf(std::string_view path) { return XXH3_64bits(path.data(), path.size()); }

uint64_t FVDigestIndex::stateOf(uint64_t size, int64_t modificationTimeNs, uint64_t inode, int64_t changeTimeNs) {
    const uint64_t values[4] = {size, static_cast<uint64_t>(modificationTimeNs), inode,
                                static_cast<uint64_t>(changeTimeNs)};
    return XXH3_64bits(values, sizeof values);
}

void FVDigestIndex::add(const FVManifestEntry& entry) {
    if (entry.type != FVManifestEntryType::File || !entry.hash || entry.failed || entry.sourceInode == 0) return;
    slots_.push_back({keyOf(entry.path),
                      stateOf(entry.size, entry.modificationTimeNs, entry.sourceInode, entry.sourceChangeTimeNs),
                      *entry.hash});
}

void FVDigestIndex::seal() {
    std::sort(slots_.begin(), slots_.end());
    slots_.shrink_to_fit();
}

std::optional<FVContentHash> FVDigestIndex::find(std::string_view path, const struct stat& source,
                                                 int64_t modificationTimeNs) const {
    const uint64_t key = keyOf(path);
    const int64_t changeTimeNs = static_cast<int64_t>(source.st_ctim.tv_sec) * 1'000'000'000 + source.st_ctim.tv_nsec;
    const uint64_t state = stateOf(static_cast<uint64_t>(source.st_size), modificationTimeNs, source.st_ino, changeTimeNs);
    auto [first, last] = std::equal_range(slots_.begin(), slots_.end(), Slot{key, 0, {}});
    for (auto slot = first; slot != last; ++slot)
        if (slot->state == state) return slot->hash;
    return std::nullopt;
}

}  // namespace ferrovane
