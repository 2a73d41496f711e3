#pragma once
// "ferrovane config <destination> retention [DAYS WEEKS MONTHS YEARS | on | off] [--dry-run]":
// prints the retention policy, sets its four numbers (which switches it on) or switches it on or
// off; with --dry-run it lists what thinning by that policy would remove from the destination
// as it is now, and changes nothing.

#include "engine/config/FVPlist.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace ferrovane::FVRetentionCommand {

struct Request {
    std::optional<bool> enabled;  // on, off, or set by the numbers
    std::optional<std::vector<int64_t>> numbers;  // days, weeks, months, years

    bool changes() const { return enabled.has_value(); }
};

// The request the words make, or why they make none.
std::optional<Request> parse(const std::vector<std::string>& words, std::string* problem);

// The options with the request applied, and the line that says what they are now.
std::string apply(const Request& request, PlistDict& options);

// What the policy is (with the request applied to a copy of the options) and how many runs it
// keeps; with preview, every path thinning would remove. Returns the exit status.
int show(const std::string& destination, const PlistDict& options, const Request& request, bool preview);

}  // namespace ferrovane::FVRetentionCommand
