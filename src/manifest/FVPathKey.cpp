#include "manifest/FVPathKey.h"

#include <xxhash.h>

namespace ferrovane {

uint64_t FVPathKey::of(std::string_view path) {
    const uint64_t key = XXH3_64bits(path.data(), path.size());
    return key == 0 ? 1 : key;
}

}  // namespace ferrovane
