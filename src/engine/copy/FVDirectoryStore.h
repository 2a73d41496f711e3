#pragma once
// Every folder met in a copy session, in order, as (source, destination) path pairs packed into
// one byte arena: a run over millions of folders keeps two allocations instead of millions.

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace ferrovane {

class FVDirectoryStore {
public:
    void append(std::string_view source, std::string_view destination);
    size_t size() const { return ends_.size() / 2; }
    std::string_view source(size_t i) const { return slice(2 * i); }
    std::string_view destination(size_t i) const { return slice(2 * i + 1); }
    void clear();

private:
    std::string_view slice(size_t k) const {
        size_t begin = k == 0 ? 0 : ends_[k - 1];
        return std::string_view(arena_).substr(begin, ends_[k] - begin);
    }
    std::string arena_;
    std::vector<size_t> ends_;
};

}  // namespace ferrovane
