#pragma once
// A first-in first-out queue between two stages of a run, bounded so that a producer far ahead
// of its consumers (a walk of millions of small files) waits instead of filling memory. The
// producer ends its stage by closing the queue: consumers then take what is left and stop.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

namespace ferrovane {

template <typename T>
class FVBoundedQueue {
public:
    explicit FVBoundedQueue(size_t capacity) : capacity_(capacity) {}
    FVBoundedQueue(const FVBoundedQueue&) = delete;
    FVBoundedQueue& operator=(const FVBoundedQueue&) = delete;

    // Waits while the queue is full; false, and the item dropped, once it is closed.
    bool push(T item) {
        std::unique_lock lock(mutex_);
        notFull_.wait(lock, [this] { return items_.size() < capacity_ || closed_; });
        if (closed_) return false;
        items_.push_back(std::move(item));
        accepted_.fetch_add(1, std::memory_order_relaxed);
        notEmpty_.notify_one();
        return true;
    }

    // Waits for an item; nothing once the queue is closed and drained.
    std::optional<T> pop() {
        std::vector<T> run;
        if (!popRun(run, [](const std::vector<T>& taken, const T&) { return taken.empty(); })) return std::nullopt;
        return std::move(run.front());
    }

    // Waits for an item, then appends it and the items after it for which take(run, next) holds,
    // all under one lock (take sees each candidate in order, the first with run still empty,
    // and must accept that one). False once the queue is closed and drained.
    template <typename Take>
    bool popRun(std::vector<T>& run, Take take) {
        std::unique_lock lock(mutex_);
        notEmpty_.wait(lock, [this] { return !items_.empty() || closed_; });
        if (items_.empty()) return false;
        const bool wasFull = items_.size() >= capacity_;
        do {
            take(run, items_.front());
            run.push_back(std::move(items_.front()));
            items_.pop_front();
        } while (!items_.empty() && take(run, items_.front()));
        if (wasFull) notFull_.notify_all();
        return true;
    }

    // Wakes every waiting producer and consumer; later pushes are refused.
    void close() {
        std::lock_guard lock(mutex_);
        closed_ = true;
        notFull_.notify_all();
        notEmpty_.notify_all();
    }

    bool isClosed() const { return closed_.load(std::memory_order_relaxed); }
    // Items pushed so far, taken or not.
    uint64_t accepted() const { return accepted_.load(std::memory_order_relaxed); }

    size_t size() const {
        std::lock_guard lock(mutex_);
        return items_.size();
    }

private:
    const size_t capacity_;
    mutable std::mutex mutex_;
    std::condition_variable notFull_;
    std::condition_variable notEmpty_;
    std::deque<T> items_;
    std::atomic<bool> closed_{false};
    std::atomic<uint64_t> accepted_{0};
};

}  // namespace ferrovane
