#include "engine/run/FVRunTally.h"

namespace ferrovane {

void FVRunTally::add(FVItemChange change, uint64_t bytes) {
    switch (change) {
    case FVItemChange::Copied:
        copied_.fetch_add(1, std::memory_order_relaxed);
        bytesCopied_.fetch_add(bytes, std::memory_order_relaxed);
        return;
    case FVItemChange::Archived: archived_.fetch_add(1, std::memory_order_relaxed); return;
    case FVItemChange::Deleted: deleted_.fetch_add(1, std::memory_order_relaxed); return;
    }
}

FVRunTotals FVRunTally::totals() const {
    return {checked_.load(std::memory_order_relaxed), copied_.load(std::memory_order_relaxed),
            bytesCopied_.load(std::memory_order_relaxed), archived_.load(std::memory_order_relaxed),
            deleted_.load(std::memory_order_relaxed), toCopy_.load(std::memory_order_relaxed),
            bytesToCopy_.load(std::memory_order_relaxed), bytesWritten_.load(std::memory_order_relaxed)};
}

}  // namespace ferrovane
