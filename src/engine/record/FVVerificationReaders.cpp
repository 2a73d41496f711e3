#include "engine/record/FVVerificationReaders.h"

#include "fs/FVFileData.h"
#include "fs/FVOpenFiles.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace ferrovane {

namespace {

constexpr size_t kQueueLength = 256;
constexpr size_t kBufferSize = 1 << 20;

}  // namespace

FVVerificationReaders::FVVerificationReaders(unsigned threads, Done done, const std::atomic<bool>& cancel)
    : done_(std::move(done)), cancel_(cancel) {
    for (unsigned i = 0; i < std::max(1u, threads); ++i) threads_.emplace_back([this] { work(); });
}

FVVerificationReaders::~FVVerificationReaders() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    for (std::thread& thread : threads_) thread.join();
}

void FVVerificationReaders::submit(Job job) {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return queue_.size() < kQueueLength; });
    queue_.push_back(std::move(job));
    changed_.notify_all();
}

void FVVerificationReaders::drain() {
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [&] { return queue_.empty() && busy_ == 0; });
}

void FVVerificationReaders::work() {
    std::vector<char> buffer(kBufferSize);
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [&] { return stopping_ || !queue_.empty(); });
        if (queue_.empty()) return;
        Job job = std::move(queue_.front());
        queue_.pop_front();
        ++busy_;
        changed_.notify_all();
        lock.unlock();
        if (!cancel_.load(std::memory_order_relaxed)) {
            int error = 0;
            std::optional<FVContentHash> digest = digestOf(job.path, buffer, error);
            if (!cancel_.load(std::memory_order_relaxed)) done_(job, digest, error);
        }
        lock.lock();
        --busy_;
        changed_.notify_all();
    }
}

std::optional<FVContentHash> FVVerificationReaders::digestOf(const std::string& path, std::vector<char>& buffer,
                                                             int& error) {
    // Reading leaves the access time alone where the reader owns the file.
    int fd = FVOpenFiles::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC | O_NOATIME);
    if (fd < 0 && errno == EPERM) fd = FVOpenFiles::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) {
        error = errno;
        return std::nullopt;
    }
    FVFileData::adviseSequential(fd);
    FVContentHasher hasher;
    for (;;) {
        if (cancel_.load(std::memory_order_relaxed)) break;
        ssize_t n = FVFileData::read(fd, buffer.data(), buffer.size());
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            error = errno;
            FVOpenFiles::close(fd);
            return std::nullopt;
        }
        if (n == 0) break;
        hasher.update(buffer.data(), static_cast<size_t>(n));
        bytesRead_.fetch_add(static_cast<uint64_t>(n), std::memory_order_relaxed);
    }
    FVOpenFiles::close(fd);
    filesRead_.fetch_add(1, std::memory_order_relaxed);
    return hasher.digest();
}

}  // namespace ferrovane
