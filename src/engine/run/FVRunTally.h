#pragma once
// What a run did to the mirror, counted where it happened: a copy once it is published under its
// name, an archived item once it is in __changed or __removed, a deleted one once it is gone. A
// dry run counts what it would do. Written by the run's threads, read from any thread.

#include <atomic>
#include <cstdint>

namespace ferrovane {

struct FVRunTotals {
    uint64_t checked = 0;
    uint64_t copied = 0;
    uint64_t bytesCopied = 0;
    uint64_t archived = 0;
    uint64_t deleted = 0;
    // What the analysis has found to copy so far (files, links and special files, and their
    // bytes): the total that the copies count towards.
    uint64_t toCopy = 0;
    uint64_t bytesToCopy = 0;
    // File data written so far, also of files not published yet: what moves within a large file.
    uint64_t bytesWritten = 0;
};

enum class FVItemChange { Copied, Archived, Deleted };

class FVRunTally {
public:
    void add(FVItemChange change, uint64_t bytes = 0);
    void addChecked(uint64_t items) { checked_.fetch_add(items, std::memory_order_relaxed); }
    void addToCopy(uint64_t bytes) {
        toCopy_.fetch_add(1, std::memory_order_relaxed);
        bytesToCopy_.fetch_add(bytes, std::memory_order_relaxed);
    }
    void addWritten(uint64_t bytes) { bytesWritten_.fetch_add(bytes, std::memory_order_relaxed); }
    FVRunTotals totals() const;

private:
    std::atomic<uint64_t> checked_{0};
    std::atomic<uint64_t> copied_{0};
    std::atomic<uint64_t> bytesCopied_{0};
    std::atomic<uint64_t> archived_{0};
    std::atomic<uint64_t> deleted_{0};
    std::atomic<uint64_t> toCopy_{0};
    std::atomic<uint64_t> bytesToCopy_{0};
    std::atomic<uint64_t> bytesWritten_{0};
};

}  // namespace ferrovane
