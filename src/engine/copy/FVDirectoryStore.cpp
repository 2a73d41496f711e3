#include "engine/copy/FVDirectoryStore.h"

namespace ferrovane {

void FVDirectoryStore::append(std::string_view source, std::string_view destination) {
    if (ends_.empty()) {
        ends_.reserve(2 * 10000);
        arena_.reserve(10000 * 128);
    }
    arena_.append(source);
    ends_.push_back(arena_.size());
    arena_.append(destination);
    ends_.push_back(arena_.size());
}

void FVDirectoryStore::clear() {
    std::string().swap(arena_);
    std::vector<size_t>().swap(ends_);
}

}  // namespace ferrovane
