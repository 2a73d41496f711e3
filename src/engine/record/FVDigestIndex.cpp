#include "engine/record/FVDigestIndex.h"

#include "manifest/FVPathKey.h"

#include <xxhash.h>

#include <algorithm>
#include <bit>

namespace ferrovane {

namespace {
int64_t nanoseconds(const struct timespec& time) {
    return static_cast<int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec;
}
}  // namespace

uint64_t FVDigestIndex::stateOf(bool link, uint64_t size, int64_t modificationTimeNs, uint64_t inode,
                                int64_t changeTimeNs) {
    const uint64_t values[5] = {link, size, static_cast<uint64_t>(modificationTimeNs), inode,
                                static_cast<uint64_t>(changeTimeNs)};
    return XXH3_64bits(values, sizeof values);
}

void FVDigestIndex::add(const FVManifestEntry& entry) {
    const bool link = entry.type == FVManifestEntryType::Link;
    if ((!link && (entry.type != FVManifestEntryType::File || !entry.hash)) || entry.failed || entry.sourceInode == 0)
        return;
    uint32_t set = 0;
    if (!entry.attributes.empty()) {
        auto [found, added] = setIds_.try_emplace(entry.attributes, static_cast<uint32_t>(sets_.size()));
        if (added) sets_.push_back(entry.attributes);
        set = found->second;
    }
    slots_.push_back({FVPathKey::of(entry.path),
                      stateOf(link, entry.size, entry.modificationTimeNs, entry.sourceInode, entry.sourceChangeTimeNs),
                      link ? FVContentHash() : *entry.hash, set});
}

void FVDigestIndex::seal() {
    setIds_.clear();
    std::sort(slots_.begin(), slots_.end());
    slots_.shrink_to_fit();
    // About four slots a bucket.
    const int bits = std::max(1, static_cast<int>(std::bit_width(slots_.size() / 4)));
    bucketShift_ = 64 - bits;
    buckets_.assign((size_t{1} << bits) + 1, 0);
    size_t slot = 0;
    for (size_t bucket = 0; bucket < buckets_.size(); ++bucket) {
        while (slot < slots_.size() && (slots_[slot].path >> bucketShift_) < bucket) ++slot;
        buckets_[bucket] = static_cast<uint32_t>(slot);
    }
}

std::optional<FVDigestIndex::Carried> FVDigestIndex::find(std::string_view path, const struct stat& source) const {
    if (slots_.empty()) return std::nullopt;
    const uint64_t key = FVPathKey::of(path);
    const uint64_t state = stateOf(S_ISLNK(source.st_mode), static_cast<uint64_t>(source.st_size),
                                   nanoseconds(source.st_mtim), source.st_ino, nanoseconds(source.st_ctim));
    const size_t bucket = key >> bucketShift_;
    for (size_t slot = buckets_[bucket]; slot < buckets_[bucket + 1]; ++slot)
        if (slots_[slot].path == key && slots_[slot].state == state)
            return Carried{slots_[slot].hash, &sets_[slots_[slot].attributes]};
    return std::nullopt;
}

}  // namespace ferrovane
