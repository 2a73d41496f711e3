#include "cli/FVRunsCommand.h"

#include "cli/FVArchiveRuns.h"
#include "cli/FVExitStatus.h"
#include "cli/FVOutput.h"
#include "cli/FVJsonText.h"
#include "cli/FVOverdueJson.h"
#include "cli/FVSourceResults.h"
#include "engine/config/FVConfigurationFile.h"
#include "engine/record/FVRunRecords.h"
#include "engine/run/FVNumber.h"
#include "fs/FVText.h"
#include "scheduling/FVOverdueState.h"
#include "search/FVSearchText.h"

#include <fmt/format.h>

#include <dirent.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <optional>

namespace ferrovane::FVRunsCommand {

namespace {

std::string shown(std::string_view text) { return FVSearchText::printable(text); }

std::string size(uint64_t bytes) { return FVNumber::formattedDiskSizeString(static_cast<double>(bytes)); }

// The items whose results a run writes back: those it backs up, and any it once did.
std::vector<FVSourceItemPtr> resultItems(const FVConfiguration& configuration) {
    std::vector<FVSourceItemPtr> items;
    for (const FVSourceItemPtr& item : configuration.sources)
        if (item->enabled() == static_cast<int64_t>(FVSourceMode::Backup) || item->value(FVSourceKey::lastBackupDate))
            items.push_back(item);
    return items;
}

// What a record says of its run: complete, stopped, failed, or why it cannot be read.
std::string outcomeOf(const FVRunRecord& run) {
    return run.summary ? manifestOutcomeName(run.summary->outcome) : "unreadable";
}

void printText(const std::string& destination, const std::optional<FVOverdueNotice>& overdue,
               const std::vector<FVRunRecord>& records, const FVArchiveRuns& archives,
               const std::vector<FVSourceItemPtr>& items) {
    if (overdue) fmt::print("Overdue: {}\n\n", shown(overdue->text()));
    fmt::print("Recorded runs in {}, newest first (only complete runs are points in time):\n", shown(destination));
    if (records.empty()) fmt::print("  (none)\n");
    else
        fmt::print("  {:<26}  {:<10}  {:>8}  {:>10}  {:>7}  {:>8}  {:>7}  {:>6}\n", "stamp", "outcome", "files", "bytes",
                   "copied", "archived", "removed", "errors");
    for (auto run = records.rbegin(); run != records.rend(); ++run) {
        if (!run->summary) {
            fmt::print("  {:<26}  {:<10}  {}\n", shown(run->stamp), outcomeOf(*run), shown(run->problem));
            continue;
        }
        const FVManifestSummary& summary = *run->summary;
        fmt::print("  {:<26}  {:<10}  {:>8}  {:>10}  {:>7}  {:>8}  {:>7}  {:>6}\n", shown(run->stamp), outcomeOf(*run),
                   summary.files, size(summary.bytes), summary.copied, summary.archived, summary.removed,
                   summary.errors);
    }
    fmt::print("\nArchived runs in {}, newest first:\n", shown(destination));
    if (archives.runs().empty()) fmt::print("  (none)\n");
    else fmt::print("  {:<26}  {:>8}  {:>10}  {:>8}  {:>10}\n", "stamp", "changed", "bytes", "removed", "bytes");
    for (const FVArchiveRun& run : archives.runs())
        fmt::print("  {:<26}  {:>8}  {:>10}  {:>8}  {:>10}\n", shown(run.stamp), run.changed.items,
                   size(run.changed.bytes), run.removed.items, size(run.removed.bytes));
    fmt::print("\nLast results:\n");
    if (items.empty()) fmt::print("  (no source backed up)\n");
    for (const FVSourceItemPtr& item : items)
        fmt::print("  {}\n      {}\n", shown(item->sourcePath()), FVSourceResults::line(*item));
}

void printJson(const std::string& destination, const std::optional<FVOverdueNotice>& overdue,
               const std::vector<FVRunRecord>& records, const FVArchiveRuns& archives,
               const std::vector<FVSourceItemPtr>& items) {
    fmt::print("{{{}, {},\n \"overdue\": {},\n \"records\": [", FVJsonText::formatVersionField(),
               FVJsonText::pathFields("destination", destination),
               FVOverdueJson::notice(overdue));
    const char* separator = "";
    for (auto run = records.rbegin(); run != records.rend(); ++run) {
        fmt::print("{}\n  {{\"stamp\": {}, \"time\": {}, \"outcome\": \"{}\", \"complete\": {}", separator,
                   FVJsonText::quoted(run->stamp), FVJsonText::time(run->time), outcomeOf(*run), run->complete());
        if (const std::optional<FVManifestSummary>& summary = run->summary)
            fmt::print(", \"entries\": {}, \"files\": {}, \"bytes\": {}, \"copied\": {}, \"archived\": {}, "
                       "\"removed\": {}, \"errors\": {}}}",
                       summary->entries, summary->files, summary->bytes, summary->copied, summary->archived,
                       summary->removed, summary->errors);
        else
            fmt::print(", \"problem\": {}}}", FVJsonText::quoted(run->problem));
        separator = ",";
    }
    fmt::print("],\n \"runs\": [");
    separator = "";
    for (const FVArchiveRun& run : archives.runs()) {
        fmt::print("{}\n  {{\"stamp\": {}, \"time\": {}, \"changed\": {{\"items\": {}, \"bytes\": {}}}, "
                   "\"removed\": {{\"items\": {}, \"bytes\": {}}}}}",
                   separator, FVJsonText::quoted(run.stamp), FVJsonText::time(run.time), run.changed.items, run.changed.bytes,
                   run.removed.items, run.removed.bytes);
        separator = ",";
    }
    fmt::print("],\n \"sources\": [");
    separator = "";
    for (const FVSourceItemPtr& item : items) {
        fmt::print("{}\n  {{{}, {}}}", separator, FVJsonText::pathFields("path", item->sourcePath()),
                   FVSourceResults::jsonFields(*item));
        separator = ",";
    }
    fmt::print("],\n \"complete\": {}}}\n", archives.problems().empty() ? "true" : "false");
}

int cannotRead(const std::string& what, const std::string& why) {
    FVOutput::error("cannot read {}: {}", shown(what), shown(why));
    return FVExitStatus::kIncomplete;
}

}  // namespace

int main(const std::string& destinationArgument, bool json) {
    std::string destination = FVText::standardizedPath(destinationArgument);
    DIR* folder = opendir(destination.c_str());
    if (!folder) return cannotRead("the destination " + destination, std::strerror(errno));
    closedir(folder);
    std::string settingsPath = FVConfigurationFile::formattedPath(destination);
    if (access(settingsPath.c_str(), R_OK) != 0)
        return cannotRead("the configuration " + settingsPath,
                          errno == ENOENT ? "there is none: this is not a backup destination" : std::strerror(errno));
    FVConfigurationReadResult loaded = FVConfigurationFile::read(settingsPath);
    if (loaded.status != FVConfigurationReadStatus::Ok)
        return cannotRead("the configuration " + settingsPath, loaded.problem);

    FVArchiveRuns archives = FVArchiveRuns::read(destination);
    const std::vector<FVRunRecord> records = FVRunRecords(destination).list();
    std::vector<FVSourceItemPtr> items = resultItems(loaded.configuration);
    const std::optional<FVOverdueNotice> overdue =
        FVOverdueState::ofDestination(destination, loaded.configuration, FVJobStatusStore(), std::time(nullptr)).notice;
    if (json) printJson(destination, overdue, records, archives, items);
    else printText(destination, overdue, records, archives, items);
    for (const std::string& problem : archives.problems())
        FVOutput::error("cannot read {}; the runs hold more than is listed.", shown(problem));
    return archives.problems().empty() ? FVExitStatus::kOk : FVExitStatus::kIncomplete;
}

}  // namespace ferrovane::FVRunsCommand
