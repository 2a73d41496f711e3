#pragma once
// Where a data copy shows the bytes it moves, in file order, holes as runs of zeros: the run's
// content digest is taken this way, without a second read of the file.

#include <cstddef>
#include <cstdint>

namespace ferrovane {

class FVByteSink {
public:
    virtual ~FVByteSink() = default;
    virtual void update(const void* data, size_t length) = 0;
    virtual void updateZeros(uint64_t length) = 0;
};

}  // namespace ferrovane
