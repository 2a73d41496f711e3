#pragma once
// The 128-bit digest of a file's bytes (XXH3-128): what a run records while it copies a file and
// what a restore or a verification compares the bytes it reads against.

#include "fs/FVByteSink.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ferrovane {

struct FVContentHash {
    uint64_t high = 0;
    uint64_t low = 0;

    bool operator==(const FVContentHash&) const = default;
    // 32 lowercase hexadecimal digits, high half first.
    std::string hex() const;
    static std::optional<FVContentHash> fromHex(std::string_view text);
};

// Fed the bytes of a file in order, holes as zeros, and asked once for the digest.
class FVContentHasher final : public FVByteSink {
public:
    FVContentHasher();
    ~FVContentHasher() override;
    FVContentHasher(const FVContentHasher&) = delete;
    FVContentHasher& operator=(const FVContentHasher&) = delete;

    void update(const void* data, size_t length) override;
    // A hole of a sparse file reads as zeros.
    void updateZeros(uint64_t length) override;
    FVContentHash digest() const;
    void reset();

    // The digest of the file at an open descriptor, read from offset 0 to its end with the
    // given buffer; nothing, with errno set, when a read fails.
    static std::optional<FVContentHash> ofDescriptor(int fd, char* buffer, size_t bufferSize);

private:
    void* state_;
};

}  // namespace ferrovane
