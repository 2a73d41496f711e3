#include "cli/FVProgressLine.h"

#include "cli/FVJsonText.h"
#include "cli/FVLocaleText.h"
#include "engine/run/FVNumber.h"
#include "engine/run/FVRunSummary.h"

#include <fmt/format.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace ferrovane {

namespace {

constexpr auto kInterval = std::chrono::milliseconds(100);
constexpr auto kLinesInterval = std::chrono::seconds(10);

// Seconds left at the rate so far; nothing before there is a rate to go by.
std::optional<double> secondsLeft(const FVProgressStep& step, double elapsed) {
    if (elapsed <= 1 || step.percent <= 1 || step.percent >= 100) return std::nullopt;
    return elapsed * (100 - step.percent) / step.percent;
}

std::string timeLeft(double seconds) {
    if (seconds < 60) return fmt::format("{:.0f} s left", seconds);
    if (seconds < 3600) return fmt::format("{:.0f} min left", seconds / 60);
    return fmt::format("{:.1f} h left", seconds / 3600);
}

std::string optionalNumber(const std::optional<uint64_t>& number) {
    return number ? std::to_string(*number) : "null";
}

}  // namespace

FVProgressLine::Style FVProgressLine::styleFor(int fd) {
    const char* term = std::getenv("TERM");
    const bool redraws = term && *term && std::strcmp(term, "dumb") != 0;
    return isatty(fd) && redraws ? Style::Redraw : Style::Lines;
}

FVProgressLine::FVProgressLine(std::FILE* out, Style style) : out_(out), style_(style) {}

std::string FVProgressLine::text(const FVProgressStep& step, double elapsed) {
    std::string line = fmt::format("{}  {:5.1f}%  ", FVLocaleText::shown(step.task), step.percent);
    if (step.checked) line += fmt::format("checked {}, ", FVRunSummary::count(*step.checked));
    line += step.filesTotal ? fmt::format("{} of {} files", FVRunSummary::count(step.files), FVRunSummary::count(*step.filesTotal))
                            : fmt::format("{} {}", step.filesVerb, FVRunSummary::count(step.files));
    if (step.bytes > 0 || !step.filesTotal)
        line += "  " + FVNumber::formattedDiskSizeString(static_cast<double>(step.bytes));
    if (elapsed > 1 && step.bytes > 0)
        line += fmt::format("  {}/s", FVNumber::formattedDiskSizeString(static_cast<double>(step.bytes) / elapsed));
    else if (elapsed > 1 && step.filesTotal)
        line += fmt::format("  {:.0f} files/s", static_cast<double>(step.files) / elapsed);
    if (std::optional<double> left = secondsLeft(step, elapsed)) line += "  " + timeLeft(*left);
    return line;
}

std::string FVProgressLine::json(const FVProgressStep& step, double elapsed) {
    std::optional<double> left = secondsLeft(step, elapsed);
    return fmt::format("{{{}, \"type\": \"progress\", \"task\": {}, \"percent\": {:.1f}, \"checked\": {}, \"files\": {}, "
                       "\"bytes\": {}, \"bytesPerSecond\": {:.0f}, "
                       "\"secondsLeft\": {}, \"path\": {}}}",
                       FVJsonText::formatVersionField(), FVJsonText::quoted(step.task), step.percent,
                       optionalNumber(step.checked), step.files, step.bytes,
                       elapsed > 0 ? static_cast<double>(step.bytes) / elapsed : 0.0,
                       left ? fmt::format("{:.0f}", *left) : "null",
                       step.path.empty() ? "null" : FVJsonText::quoted(step.path));
}

void FVProgressLine::write(const std::string& text) {
    if (std::fputs(text.c_str(), out_) < 0 || std::fflush(out_) != 0) broken_ = true;
}

void FVProgressLine::update(const FVProgressStep& step) {
    std::lock_guard lock(mutex_);
    if (broken_ || style_ == Style::None) return;
    const auto now = std::chrono::steady_clock::now();
    const bool newTask = step.task != lastTask_;
    lastTask_ = step.task;
    const double elapsed = std::chrono::duration<double>(now - start_).count();
    if (style_ == Style::Lines) {
        if (newTask) {
            lastShown_ = now;
            if (!step.task.empty()) write(FVLocaleText::shown(step.task) + "\n");
        } else if (now - lastShown_ >= kLinesInterval) {
            lastShown_ = now;
            write(text(step, elapsed) + "\n");
        }
        return;
    }
    if (shown_ && !newTask && now - lastShown_ < kInterval) return;
    shown_ = true;
    lastShown_ = now;
    if (style_ == Style::Json) return write(json(step, elapsed) + "\n");
    // Back to the start of the line, then clear what a longer line before left behind.
    write("\r" + text(step, elapsed) + "\033[K");
    linePending_ = true;
}

void FVProgressLine::interject(const std::string& line) {
    std::lock_guard lock(mutex_);
    if (broken_) return;
    write((linePending_ ? "\r\033[K" : "") + line + "\n");
    linePending_ = false;
    shown_ = false;
}

void FVProgressLine::finish() {
    std::lock_guard lock(mutex_);
    if (!linePending_ || broken_) return;
    write("\n");
    linePending_ = false;
}

}  // namespace ferrovane
