#pragma once
// A bounded pool of threads that read files whole and compare their bytes with a recorded digest.
// Jobs wait in a short queue (submit blocks while it is full), so memory does not grow with the
// number of files; each thread reads through one buffer of its own.

#include "manifest/FVContentHash.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace ferrovane {

class FVVerificationReaders {
public:
    struct Job {
        std::string path;       // the file to read
        std::string reported;   // the name a finding shows
        FVContentHash expected;
        bool isSource = false;  // a source file compared with its mirror copy's digest
    };
    // Called on a reader thread after each job: the digest read, or nothing with errno's value.
    using Done = std::function<void(const Job&, const std::optional<FVContentHash>& digest, int error)>;

    FVVerificationReaders(unsigned threads, Done done, const std::atomic<bool>& cancel);
    ~FVVerificationReaders();
    FVVerificationReaders(const FVVerificationReaders&) = delete;
    FVVerificationReaders& operator=(const FVVerificationReaders&) = delete;

    void submit(Job job);
    // Returns once every job submitted so far is done (or dropped after a cancel).
    void drain();
    uint64_t bytesRead() const { return bytesRead_.load(std::memory_order_relaxed); }
    uint64_t filesRead() const { return filesRead_.load(std::memory_order_relaxed); }

private:
    void work();
    std::optional<FVContentHash> digestOf(const std::string& path, std::vector<char>& buffer, int& error);

    Done done_;
    const std::atomic<bool>& cancel_;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Job> queue_;
    size_t busy_ = 0;
    bool stopping_ = false;
    std::atomic<uint64_t> bytesRead_{0};
    std::atomic<uint64_t> filesRead_{0};
    std::vector<std::thread> threads_;
};

}  // namespace ferrovane
