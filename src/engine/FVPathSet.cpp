#include "engine/FVPathSet.h"

#include <bit>

namespace ferrovane {

FVPathSet::FVPathSet(size_t expected) : slots_(std::bit_ceil(expected * 2 < 16 ? 16 : expected * 2), 0) {}

uint64_t FVPathSet::hashOf(std::string_view path) {
    // FNV-1a, then a final mix so that similar paths spread over the table.
    uint64_t h = 1469598103934665603ull;
    for (unsigned char c : path) h = (h ^ c) * 1099511628211ull;
    h ^= h >> 33;
    h *= 0xff51afd7ed558ccdull;
    h ^= h >> 33;
    return h == 0 ? 1 : h;
}

void FVPathSet::insert(std::string_view path) {
    if ((count_ + 1) * 2 > slots_.size()) grow();
    uint64_t h = hashOf(path);
    size_t mask = slots_.size() - 1;
    for (size_t i = h & mask;; i = (i + 1) & mask) {
        if (slots_[i] == h) return;
        if (slots_[i] == 0) {
            slots_[i] = h;
            ++count_;
            return;
        }
    }
}

bool FVPathSet::contains(std::string_view path) const {
    uint64_t h = hashOf(path);
    size_t mask = slots_.size() - 1;
    for (size_t i = h & mask;; i = (i + 1) & mask) {
        if (slots_[i] == h) return true;
        if (slots_[i] == 0) return false;
    }
}

void FVPathSet::grow() {
    std::vector<uint64_t> old(slots_.size() * 2, 0);
    old.swap(slots_);
    size_t mask = slots_.size() - 1;
    for (uint64_t h : old) {
        if (!h) continue;
        size_t i = h & mask;
        while (slots_[i]) i = (i + 1) & mask;
        slots_[i] = h;
    }
}

}  // namespace ferrovane
