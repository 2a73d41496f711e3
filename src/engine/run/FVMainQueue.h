#pragma once
// Work that must run on the front end's main thread (writing the configuration, touching the
// window) is posted through this interface: the window posts to Qt's event loop, the
// command-line mode runs a FVRunLoop on its main thread.

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

namespace ferrovane {

class FVMainQueue {
public:
    virtual ~FVMainQueue() = default;
    virtual void post(std::function<void()> work) = 0;
};

// A main queue for programs without an event loop.
class FVRunLoop final : public FVMainQueue {
public:
    void post(std::function<void()> work) override;
    // Runs posted work on the calling thread until stop() is called; returns stop()'s value.
    int run();
    // Ends run() after the work already posted; callable from any thread.
    void stop(int result);

private:
    std::mutex mutex_;
    std::condition_variable wake_;
    std::deque<std::function<void()>> work_;
    bool stopped_ = false;
    int result_ = 0;
};

}  // namespace ferrovane
