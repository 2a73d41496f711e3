#include "engine/run/FVRunSummary.h"

#include "engine/run/FVNumber.h"

#include <fmt/format.h>

namespace ferrovane {

namespace {

std::string counted(uint64_t number, const char* one, const char* many) {
    return FVRunSummary::count(number) + " " + (number == 1 ? one : many);
}

}  // namespace

std::string FVRunSummary::count(uint64_t number) {
    std::string digits = std::to_string(number);
    for (size_t at = digits.size(); at > 3; at -= 3) digits.insert(at - 3, ",");
    return digits;
}

std::string FVRunSummary::duration(double seconds) {
    if (seconds < 0) seconds = 0;
    if (seconds < 10) return fmt::format("{:.1f} s", seconds);
    const auto whole = static_cast<long long>(seconds + 0.5);
    if (whole < 60) return fmt::format("{} s", whole);
    if (whole < 3600) return fmt::format("{} min {} s", whole / 60, whole % 60);
    return fmt::format("{} h {} min", whole / 3600, whole % 3600 / 60);
}

std::string FVRunSummary::line() const {
    return fmt::format("{} {}, {} {} ({}), {} {}, {} {}, {} in {}.", stopped ? "Stopped: checked" : "Checked",
                       counted(totals.checked, "item", "items"), dryRun ? "would copy" : "copied", count(totals.copied),
                       FVNumber::formattedDiskSizeString(static_cast<double>(totals.bytesCopied)),
                       dryRun ? "archive" : "archived", count(totals.archived), dryRun ? "delete" : "deleted",
                       count(totals.deleted), counted(errors, "error", "errors"), duration(seconds));
}

}  // namespace ferrovane
