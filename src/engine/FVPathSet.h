#pragma once
// The set of source paths a run walked, for the cleanup pass. It holds 64-bit hashes in one flat
// table instead of the strings, so a million entries cost about 16 MB. A hash collision can only
// make the cleanup keep an item it could have archived, never remove one whose source exists.

#include <cstdint>
#include <string_view>
#include <vector>

namespace ferrovane {

class FVPathSet {
public:
    explicit FVPathSet(size_t expected = 1 << 16);
    void insert(std::string_view path);
    bool contains(std::string_view path) const;
    size_t size() const { return count_; }

private:
    static uint64_t hashOf(std::string_view path);
    void grow();

    std::vector<uint64_t> slots_;  // 0 marks an empty slot
    size_t count_ = 0;
};

}  // namespace ferrovane
