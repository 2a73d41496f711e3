#include "manifest/FVContentHash.h"
#include "fs/FVFileData.h"

#include <xxhash.h>

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <new>

namespace ferrovane {

std::string FVContentHash::hex() const {
    static const char digits[] = "0123456789abcdef";
    std::string out(32, '0');
    for (int i = 0; i < 16; ++i) {
        out[15 - i] = digits[(high >> (4 * i)) & 0xf];
        out[31 - i] = digits[(low >> (4 * i)) & 0xf];
    }
    return out;
}

std::optional<FVContentHash> FVContentHash::fromHex(std::string_view text) {
    if (text.size() != 32) return std::nullopt;
    FVContentHash hash;
    for (size_t i = 0; i < 32; ++i) {
        char c = text[i];
        uint64_t digit;
        if (c >= '0' && c <= '9') digit = uint64_t(c - '0');
        else if (c >= 'a' && c <= 'f') digit = uint64_t(c - 'a' + 10);
        else return std::nullopt;
        uint64_t& half = i < 16 ? hash.high : hash.low;
        half = (half << 4) | digit;
    }
    return hash;
}

FVContentHasher::FVContentHasher() : state_(XXH3_createState()) {
    if (!state_) throw std::bad_alloc();
    reset();
}

FVContentHasher::~FVContentHasher() { XXH3_freeState(static_cast<XXH3_state_t*>(state_)); }

void FVContentHasher::reset() { XXH3_128bits_reset(static_cast<XXH3_state_t*>(state_)); }

void FVContentHasher::update(const void* data, size_t length) {
    if (length) XXH3_128bits_update(static_cast<XXH3_state_t*>(state_), data, length);
}

void FVContentHasher::updateZeros(uint64_t length) {
    static const char zeros[65536] = {};
    while (length) {
        size_t n = length < sizeof zeros ? size_t(length) : sizeof zeros;
        update(zeros, n);
        length -= n;
    }
}

FVContentHash FVContentHasher::digest() const {
    XXH128_hash_t h = XXH3_128bits_digest(static_cast<XXH3_state_t*>(state_));
    return FVContentHash{h.high64, h.low64};
}

std::optional<FVContentHash> FVContentHasher::ofDescriptor(int fd, char* buffer, size_t bufferSize) {
    FVContentHasher hasher;
    off_t offset = 0;
    for (;;) {
        ssize_t n = FVFileData::pread(fd, buffer, bufferSize, offset);
        if (n < 0) {
            if (errno == EINTR) continue;
            return std::nullopt;
        }
        if (n == 0) break;
        hasher.update(buffer, size_t(n));
        offset += n;
    }
    return hasher.digest();
}

}  // namespace ferrovane
