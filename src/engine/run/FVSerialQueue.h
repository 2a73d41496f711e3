#pragma once
// A background thread that runs posted tasks one after another, in order. The destination search
// walks on one, so that a task may post the next without nesting threads.

#include "engine/run/FVMainQueue.h"

#include <functional>
#include <thread>

namespace ferrovane {

class FVSerialQueue {
public:
    FVSerialQueue();
    ~FVSerialQueue();  // runs what is queued, then joins
    FVSerialQueue(const FVSerialQueue&) = delete;
    FVSerialQueue& operator=(const FVSerialQueue&) = delete;

    void async(std::function<void()> task) { loop_.post(std::move(task)); }
    bool isCurrentThread() const { return std::this_thread::get_id() == thread_.get_id(); }

private:
    FVRunLoop loop_;
    std::thread thread_;
};

}  // namespace ferrovane
