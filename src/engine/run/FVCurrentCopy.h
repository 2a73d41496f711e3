#pragma once
// The copy of the source item in hand, as the run sees it: a cancellation or a failed
// destination stops it, and the session reads how many bytes it has copied so far.

#include <cstdint>

namespace ferrovane {

class FVCurrentCopy {
public:
    virtual ~FVCurrentCopy() = default;
    virtual void cancel() = 0;
    virtual uint64_t totalBytesCopied() const = 0;
};

}  // namespace ferrovane
