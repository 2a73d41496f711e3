#pragma once
// A background thread that runs posted tasks one after another, in order. The sync job does its
// analysis and cleanup passes on one, so that a task may post the next without nesting threads.

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace ferrovane {

class FVSerialQueue {
public:
    FVSerialQueue();
    ~FVSerialQueue();  // runs what is queued, then joins
    FVSerialQueue(const FVSerialQueue&) = delete;
    FVSerialQueue& operator=(const FVSerialQueue&) = delete;

    void async(std::function<void()> task);
    bool isCurrentThread() const { return std::this_thread::get_id() == thread_.get_id(); }

private:
    void loop();

    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> tasks_;
    bool stopping_ = false;
    std::thread thread_;
};

}  // namespace ferrovane
