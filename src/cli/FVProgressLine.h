#pragma once
// A run's progress on standard output. On a terminal: one line rewritten in place at most ten
// times a second, with the task, percentage, items, bytes, rate and time left. Anywhere else (a
// pipe, a file, the journal): one plain line whenever the task changes, and no control codes.
// Once a write fails (a reader that went away, a terminal that was closed) no more progress is
// written; the run goes on.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <string>

namespace ferrovane {

class FVProgressLine {
public:
    FVProgressLine(std::FILE* out, bool terminal);

    // Called from any thread.
    void update(const std::string& task, float percent, uint64_t items, uint64_t bytes);
    // Ends a line rewritten in place, so that what follows starts on a line of its own.
    void finish();

private:
    void write(const std::string& text);

    std::FILE* out_;
    const bool terminal_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::mutex mutex_;
    std::chrono::steady_clock::time_point lastShown_{};
    std::string lastTask_;
    bool linePending_ = false;
    bool broken_ = false;
};

}  // namespace ferrovane
