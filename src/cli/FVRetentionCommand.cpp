#include "cli/FVRetentionCommand.h"

#include "engine/archive/FVArchivedRuns.h"
#include "engine/archive/FVThinningPlan.h"
#include "engine/config/FVConfigurationFile.h"
#include "engine/config/FVOptions.h"
#include "engine/config/FVRetentionPolicy.h"
#include "engine/run/FVNumber.h"
#include "fs/FVDestinationProbe.h"
#include "search/FVSearchText.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <ctime>

namespace ferrovane::FVRetentionCommand {

namespace {

const char* const kKeys[] = {FVOptionKey::retentionKeepAllDays, FVOptionKey::retentionDailyWeeks,
                             FVOptionKey::retentionWeeklyMonths, FVOptionKey::retentionMonthlyYears};

std::optional<int64_t> wholeNumber(const std::string& text) {
    if (text.empty() || text.size() > 12) return std::nullopt;
    size_t start = text[0] == '-' ? 1 : 0;
    if (start == text.size() ||
        !std::all_of(text.begin() + static_cast<ptrdiff_t>(start), text.end(), [](unsigned char c) { return std::isdigit(c); }))
        return std::nullopt;
    return std::stoll(text);
}

}  // namespace

std::optional<Request> parse(const std::vector<std::string>& words, std::string* problem) {
    Request request;
    if (words.empty()) return request;
    if (words.size() == 1 && (words[0] == "on" || words[0] == "off")) {
        request.enabled = words[0] == "on";
        return request;
    }
    if (words.size() != 4) {
        *problem = "retention takes DAYS WEEKS MONTHS YEARS (e.g. 7 4 6 5), on or off";
        return std::nullopt;
    }
    std::vector<int64_t> numbers;
    for (size_t i = 0; i < 4; ++i) {
        const FVOptionRule* rule = FVOptionTable::find(kKeys[i]);
        std::optional<int64_t> number = wholeNumber(words[i]);
        if (!number || FVOptionTable::problem(*rule, PlistValue(*number))) {
            *problem = fmt::format("{} must be {}, not {}", i == 0 ? "DAYS" : i == 1 ? "WEEKS" : i == 2 ? "MONTHS" : "YEARS",
                                   rule->expected, FVSearchText::printable(words[i]));
            return std::nullopt;
        }
        numbers.push_back(*number);
    }
    request.enabled = true;
    request.numbers = std::move(numbers);
    return request;
}

std::string apply(const Request& request, PlistDict& options) {
    if (request.enabled) options.set(FVOptionKey::retentionEnabled, *request.enabled);
    if (request.numbers)
        for (size_t i = 0; i < 4; ++i) options.set(kKeys[i], (*request.numbers)[i]);
    const FVOptions typed = FVOptionTable::read(options).options;
    if (!typed.retentionEnabled) return "Retention: off (runs are kept until the age purge or the free-space rule takes them).";
    return "Retention: on, keeping " + FVRetentionPolicy::of(typed).description() + ".";
}

int show(const std::string& destination, const PlistDict& stored, const Request& request, bool preview) {
    PlistDict options = stored;
    fmt::print("{}\n", apply(request, options));
    const FVOptions typed = FVOptionTable::read(options).options;
    const FVMirrorLayout layout = FVMirrorLayout::archivesOf(destination);
    const std::vector<FVArchivedRun> runs = FVArchivedRuns(layout).list();
    const size_t points = static_cast<size_t>(
        std::count_if(runs.begin(), runs.end(), [](const FVArchivedRun& run) { return run.record && run.record->complete(); }));
    fmt::print("The destination holds {}, {} of them complete points in time.\n", FVNumber::counted(runs.size(), "run"),
               points);
    if (!preview) return 0;
    if (!typed.retentionEnabled) {
        fmt::print("Nothing would be removed: retention is off.\n");
        return 0;
    }
    FVDestinationProbe probe(destination, FVMirrorLayout::kProbeFolder);
    const FVDestinationProfile profile = probe.probeWithoutWriting(FVConfigurationFile::fileName);
    const FVThinningPlan plan(layout, FVRetentionPolicy::of(typed), profile.timeGranularityNs);
    uint64_t records = 0, items = 0, bytes = 0;
    for (const FVThinningRemoval& removal : plan.removals(runs, std::time(nullptr))) {
        fmt::print("Would purge: {}\n", FVSearchText::printable(removal.path));
        records += removal.record;
        items += removal.items;
        bytes += removal.bytes;
    }
    if (records + items == 0) fmt::print("Nothing would be removed.\n");
    else
        fmt::print("Would remove {} run record{} and {} archived item{} ({}); nothing was changed.\n", records,
                   records == 1 ? "" : "s", items, items == 1 ? "" : "s",
                   FVNumber::formattedDiskSizeString(static_cast<double>(bytes)));
    return 0;
}

}  // namespace ferrovane::FVRetentionCommand
