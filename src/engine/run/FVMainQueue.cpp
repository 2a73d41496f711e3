#include "engine/run/FVMainQueue.h"

namespace ferrovane {

void FVRunLoop::post(std::function<void()> work) {
    // Signalled under the lock, so that the loop cannot end and be destroyed in between.
    std::lock_guard lock(mutex_);
    work_.push_back(std::move(work));
    wake_.notify_one();
}

int FVRunLoop::run() {
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [&] { return stopped_ || !work_.empty(); });
        while (!work_.empty()) {
            auto next = std::move(work_.front());
            work_.pop_front();
            lock.unlock();
            next();
            lock.lock();
        }
        if (stopped_) return result_;
    }
}

void FVRunLoop::stop(int result) {
    std::lock_guard lock(mutex_);
    stopped_ = true;
    result_ = result;
    wake_.notify_one();
}

}  // namespace ferrovane
