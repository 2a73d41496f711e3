#pragma once
// The 64-bit key of a path, for tables that keep the key instead of the path. Never 0, so a
// table may use 0 for an empty slot. Two paths of one key are as rare as a collision of XXH3-64.

#include <cstdint>
#include <string_view>

namespace ferrovane {

class FVPathKey final {
public:
    static uint64_t of(std::string_view path);
};

}  // namespace ferrovane
