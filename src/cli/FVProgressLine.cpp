#include "cli/FVProgressLine.h"

#include "engine/FVAdditions.h"

#include <fmt/format.h>

namespace ferrovane {

namespace {

constexpr auto kInterval = std::chrono::milliseconds(100);

std::string timeLeft(double seconds) {
    if (seconds < 60) return fmt::format("{:.0f} s left", seconds);
    if (seconds < 3600) return fmt::format("{:.0f} min left", seconds / 60);
    return fmt::format("{:.1f} h left", seconds / 3600);
}

}  // namespace

FVProgressLine::FVProgressLine(std::FILE* out, bool terminal) : out_(out), terminal_(terminal) {}

void FVProgressLine::write(const std::string& text) {
    if (std::fputs(text.c_str(), out_) < 0 || std::fflush(out_) != 0) broken_ = true;
}

void FVProgressLine::update(const std::string& task, float percent, uint64_t items, uint64_t bytes) {
    std::lock_guard lock(mutex_);
    if (broken_) return;
    if (!terminal_) {
        if (task.empty() || task == lastTask_) return;
        lastTask_ = task;
        write(task + "\n");
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (linePending_ && now - lastShown_ < kInterval) return;
    lastShown_ = now;
    const double elapsed = std::chrono::duration<double>(now - start_).count();
    std::string line = fmt::format("{}  {:5.1f}%  {} items  {}", task, percent, items,
                                   FVNumber::formattedDiskSizeString(static_cast<double>(bytes)));
    if (elapsed > 1) line += fmt::format("  {}/s", FVNumber::formattedDiskSizeString(bytes / elapsed));
    if (elapsed > 1 && percent > 1 && percent < 100) line += "  " + timeLeft(elapsed * (100 - percent) / percent);
    // Back to the start of the line, then clear what a longer line before left behind.
    write("\r" + line + "\033[K");
    linePending_ = true;
}

void FVProgressLine::finish() {
    std::lock_guard lock(mutex_);
    if (!linePending_ || broken_) return;
    write("\n");
    linePending_ = false;
}

}  // namespace ferrovane
