#pragma once
// The progress of a backup or a restore on an output stream, in one of three styles:
// - Redraw (a terminal that can move its cursor): one line rewritten in place at most ten times
//   a second, with the task, percentage, files, bytes, rate and time left;
// - Lines (a pipe, a file, the journal, TERM=dumb): no control codes; the task on a line of its
//   own whenever it changes, and the progress line every ten seconds of one task;
// - Json: one JSON object a line (NDJSON), at most ten a second and whenever the task changes;
// - None: no progress, only the lines interjected.
// Once a write fails (a reader that went away, a terminal that was closed) no more progress is
// written; the work goes on.

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <mutex>
#include <optional>
#include <string>

namespace ferrovane {

struct FVProgressStep {
    std::string task;
    float percent = 0;
    // Files copied, read or restored so far, and in all when that is known.
    uint64_t files = 0;
    const char* filesVerb = "copied";
    std::optional<uint64_t> filesTotal;
    // Items looked at so far (a backup's analysis), when the work checks items.
    std::optional<uint64_t> checked;
    uint64_t bytes = 0;
    // The item last handled.
    std::string path;
};

class FVProgressLine {
public:
    enum class Style { Redraw, Lines, Json, None };
    // Redraw on a terminal whose TERM can redraw (set, and not "dumb"), else Lines.
    static Style styleFor(int fd);

    FVProgressLine(std::FILE* out, Style style);

    // Called from any thread.
    void update(const FVProgressStep& step);
    // Ends a line rewritten in place, so that what follows starts on a line of its own.
    void finish();
    // A line of text above the progress, which the next update draws again.
    void interject(const std::string& line);

    // The line a terminal shows, and the JSON object of a step; elapsed in seconds.
    static std::string text(const FVProgressStep& step, double elapsed);
    static std::string json(const FVProgressStep& step, double elapsed);

private:
    void write(const std::string& text);

    std::FILE* out_;
    const Style style_;
    const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
    std::mutex mutex_;
    std::chrono::steady_clock::time_point lastShown_{};
    std::string lastTask_;
    bool shown_ = false;
    bool linePending_ = false;
    bool broken_ = false;
};

}  // namespace ferrovane
