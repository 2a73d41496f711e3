#include "engine/FVSerialQueue.h"

namespace ferrovane {

FVSerialQueue::FVSerialQueue() : thread_([this] { loop(); }) {}

FVSerialQueue::~FVSerialQueue() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
        wake_.notify_one();
    }
    if (isCurrentThread()) thread_.detach();  // destroyed from its own task: nothing to wait for
    else thread_.join();
}

void FVSerialQueue::async(std::function<void()> task) {
    // Signalled under the lock: the task may end in this queue's destruction, which must not
    // overtake a caller still inside notify_one.
    std::lock_guard lock(mutex_);
    tasks_.push_back(std::move(task));
    wake_.notify_one();
}

void FVSerialQueue::loop() {
    std::unique_lock lock(mutex_);
    for (;;) {
        wake_.wait(lock, [&] { return stopping_ || !tasks_.empty(); });
        if (tasks_.empty()) return;
        auto task = std::move(tasks_.front());
        tasks_.pop_front();
        lock.unlock();
        task();
        lock.lock();
    }
}

}  // namespace ferrovane
