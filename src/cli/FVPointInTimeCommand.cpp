#include "cli/FVPointInTimeCommand.h"

#include "cli/FVExitStatus.h"
#include "cli/FVJsonText.h"
#include "cli/FVNamedPath.h"
#include "cli/FVOutput.h"
#include "cli/FVRestoreProgress.h"
#include "cli/FVRestoreSignals.h"
#include "cli/FVRunSignals.h"
#include "cli/FVSharedLock.h"

#include "engine/record/FVRunRecords.h"
#include "engine/record/FVVersionCatalog.h"
#include "engine/restore/FVPointInTimePlan.h"
#include "engine/restore/FVPointInTimeRestore.h"
#include "engine/run/FVLog.h"
#include "engine/run/FVNumber.h"
#include "fs/FVConfinedDirectory.h"
#include "fs/FVText.h"
#include "search/FVSearchText.h"

#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <optional>
#include <vector>

namespace ferrovane::FVPointInTimeCommand {

namespace {

std::string shown(std::string_view text) { return FVSearchText::printable(text); }

// The complete run a command reads: the one --at names, or the newest. Nothing, after saying why,
// when there is none.
std::optional<FVRunRecord> chosenRun(const char* command, const std::string& destination, const std::string& at) {
    FVRunRecords records(destination);
    std::string problem;
    if (!at.empty()) {
        auto run = records.resolve(at, &problem);
        if (!run) FVOutput::error("{}", shown(problem));
        return run;
    }
    std::vector<FVRunRecord> runs = records.list();
    for (auto run = runs.rbegin(); run != runs.rend(); ++run)
        if (run->complete()) return *run;
    FVOutput::error("{} keeps no record of a complete run (made by an older version, or not run since); versions "
                    "and restore without --at still work.",
                    shown(destination));
    return std::nullopt;
}

// The run's record and the mirror path of what the user named, as that run's layout places it.
struct Opened {
    FVPointInTime pointInTime;
    std::string mirrorPath;
};

std::optional<Opened> openNamed(const char* command, const std::string& destination, const FVRunRecord& run,
                                const std::string& named) {
    std::string problem;
    auto pointInTime = FVPointInTime::open(destination, run, &problem);
    if (!pointInTime) {
        FVOutput::error("cannot read the record of the run {}: {}", shown(run.stamp),
                        shown(problem));
        return std::nullopt;
    }
    const FVVersionCatalog catalog(pointInTime->layout());
    const std::string path = FVNamedPath::absolute(named);
    auto mirror = catalog.mirrorPath(path);
    if (!mirror) mirror = catalog.mirrorPath(FVNamedPath::resolved(path));
    if (!mirror) {
        FVOutput::error("{} is neither inside the destination nor below one of its sources.",
                        shown(named));
        return std::nullopt;
    }
    return Opened{std::move(*pointInTime), std::move(*mirror)};
}

const char* typeWord(FVManifestEntryType type) {
    switch (type) {
    case FVManifestEntryType::File: return "file";
    case FVManifestEntryType::Folder: return "folder";
    case FVManifestEntryType::Link: return "link";
    case FVManifestEntryType::Other: break;
    }
    return "other";
}

std::string modeText(const FVManifestEntry& e) {
    std::string text = e.type == FVManifestEntryType::Folder ? "d" : e.type == FVManifestEntryType::Link ? "l" : "-";
    const char* letters = "rwxrwxrwx";
    for (int bit = 0; bit < 9; ++bit) text += (e.mode & (0400u >> bit)) ? letters[bit] : '-';
    if (e.mode & S_ISUID) text[3] = text[3] == 'x' ? 's' : 'S';
    if (e.mode & S_ISGID) text[6] = text[6] == 'x' ? 's' : 'S';
    if (e.mode & S_ISVTX) text[9] = text[9] == 'x' ? 't' : 'T';
    return text;
}

std::string ownerName(uint32_t owner) {
    struct passwd entry {}, *found = nullptr;
    char buffer[1024];
    return getpwuid_r(owner, &entry, buffer, sizeof buffer, &found) == 0 && found ? found->pw_name
                                                                                  : std::to_string(owner);
}

std::string groupName(uint32_t group) {
    struct group entry {}, *found = nullptr;
    char buffer[1024];
    return getgrgid_r(group, &entry, buffer, sizeof buffer, &found) == 0 && found ? found->gr_name
                                                                                  : std::to_string(group);
}

std::time_t seconds(int64_t ns) { return static_cast<std::time_t>(ns / 1000000000 - (ns % 1000000000 < 0 ? 1 : 0)); }

std::string timeText(int64_t ns) {
    const std::time_t at = seconds(ns);
    struct tm parts {};
    localtime_r(&at, &parts);
    char buffer[64];
    return std::string(buffer, std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &parts));
}

class Lister {
public:
    explicit Lister(bool json) : json_(json) {}
    void print(const FVManifestEntry& e) {
        const std::string name = FVText::lastPathComponent(e.path);
        if (json_) {
            FVOutput::print(stdout,
                            "{}\n  {{{}, \"type\": \"{}\", \"mode\": \"{:04o}\", \"owner\": {}, \"group\": {}, "
                            "\"size\": {}, \"modified\": {}, \"modifiedNs\": {}{}{}}}",
                            count_ ? "," : "", FVJsonText::pathFields("name", name), typeWord(e.type), e.mode, e.owner,
                            e.group, e.size, FVJsonText::time(seconds(e.modificationTimeNs)), e.modificationTimeNs,
                            e.type == FVManifestEntryType::Link ? ", " + FVJsonText::pathFields("linkTarget", e.linkTarget)
                                                                 : "",
                            e.hash ? ", \"digest\": \"" + e.hash->hex() + "\"" : "");
        } else {
            FVOutput::print(stdout, "{:<6} {} {:<17} {:>13} {}  {}{}\n", typeWord(e.type), modeText(e),
                            ownerName(e.owner) + ":" + groupName(e.group),
                            e.type == FVManifestEntryType::Folder ? std::string("-") : std::to_string(e.size),
                            timeText(e.modificationTimeNs), shown(name),
                            e.type == FVManifestEntryType::Link ? " -> " + shown(e.linkTarget) : "");
        }
        ++count_;
    }

private:
    bool json_;
    uint64_t count_ = 0;
};

bool isChildOf(const std::string& entry, const std::string& folder) {
    return entry.size() > folder.size() + 1 && entry.compare(0, folder.size(), folder) == 0 &&
           entry[folder.size()] == '/' && entry.find('/', folder.size() + 1) == std::string::npos;
}

}  // namespace

int listMain(const std::string& destinationArgument, const std::string& path, const std::string& at, bool json) {
    const std::string destination = FVNamedPath::resolved(FVNamedPath::absolute(destinationArgument));
    auto run = chosenRun("ls", destination, at);
    if (!run) return FVExitStatus::kIncomplete;
    auto opened = openNamed("ls", destination, *run, path);
    if (!opened) return FVExitStatus::kUsage;
    const FVPointInTime& pit = opened->pointInTime;
    const std::string& mirror = opened->mirrorPath;

    // The first pass finds the item and whether the record lists its folder's entries by name:
    // then they are printed as they stream, else gathered and sorted.
    std::optional<FVManifestEntry> item;
    std::string previous, problem;
    bool sorted = true;
    uint64_t children = 0;
    bool whole = pit.forEachAtOrBelow(mirror, [&](const FVManifestEntry& e) {
        if (e.path == mirror) item = e;
        if (!isChildOf(e.path, mirror)) return;
        if (children++ && e.path < previous) sorted = false;
        previous = e.path;
    }, &problem);
    if (!whole) {
        FVOutput::error("the record of the run {} is damaged: {}", shown(run->stamp),
                        shown(problem));
        return FVExitStatus::kIncomplete;
    }
    if (!item && !(mirror.empty() && children)) {
        FVOutput::error("the run {} recorded no {}.", shown(run->stamp), shown(path));
        return FVExitStatus::kIncomplete;
    }
    // The destination's root, the mirror of no source when each has a folder, is shown as named.
    const std::string original =
        opened->pointInTime.layout().originalPath(mirror).value_or(mirror.empty() ? destination : mirror);
    if (json)
        FVOutput::print(stdout, "{{{}, \"at\": {}, {}, \"entries\": [", FVJsonText::formatVersionField(),
                        FVJsonText::quoted(run->stamp),
                        FVJsonText::pathFields("path", original));
    else
        FVOutput::print(stdout, "{} as of the run {}\n", shown(original), shown(run->stamp));
    Lister lister(json);
    if (item && item->type != FVManifestEntryType::Folder) {
        lister.print(*item);
    } else if (sorted) {
        whole = pit.forEachAtOrBelow(mirror, [&](const FVManifestEntry& e) {
            if (isChildOf(e.path, mirror)) lister.print(e);
        }, &problem);
    } else if (auto entries = pit.entriesIn(mirror, &problem)) {
        for (const FVManifestEntry& e : *entries) lister.print(e);
    } else {
        whole = false;
    }
    if (json) FVOutput::print(stdout, "\n]}}\n");
    if (!whole) {
        FVOutput::error("the record of the run {} is damaged: {}", shown(run->stamp),
                        shown(problem));
        return FVExitStatus::kIncomplete;
    }
    return FVExitStatus::kOk;
}

namespace {

// What a dry run can tell without reading the files: that no copy of a file's recorded size exists.
bool anyPlaceHolds(const FVPointInTimePlan& plan, const FVConfinedDirectory& destination, const FVManifestEntry& e) {
    struct stat st {};
    for (const auto& places : {plan.bytes().likeliestPlaces(e), plan.bytes().otherPlaces(e)})
        for (const std::string& place : places)
            if (destination.statItem(place, &st) == 0 && S_ISREG(st.st_mode) &&
                (!e.hash || static_cast<uint64_t>(st.st_size) == e.size))
                return true;
    return false;
}

int dryRun(const FVPointInTimePlan& plan, bool replace) {
    const FVMirrorLayout& layout = plan.pointInTime().layout();
    FVOutput::print(stdout, "Would restore {} as of the run {} to {}\n",
                    shown(layout.originalPath(plan.mirrorPath()).value_or(plan.mirrorPath())),
                    shown(plan.pointInTime().run().stamp), shown(plan.to()));
    const FVConfinedDirectory destination(plan.destination());
    uint64_t gone = 0, goneBytes = 0;
    std::string problem;
    bool whole = plan.pointInTime().forEachAtOrBelow(plan.mirrorPath(), [&](const FVManifestEntry& e) {
        auto target = plan.targetOf(e.path);
        if (!target) return;
        std::string reason;
        switch (plan.stateOf(e, *target, &reason)) {
        case FVPointInTimePlan::State::Identical: return;
        case FVPointInTimePlan::State::SameBytes:
            FVOutput::print(stdout, "  {} (mode and owner only)\n", shown(*target));
            return;
        default: break;
        }
        if (e.type == FVManifestEntryType::File && !anyPlaceHolds(plan, destination, e)) {
            ++gone;
            goneBytes += e.size;
            FVOutput::print(stdout, "  not restored: bytes gone: {}\n", shown(*target));
            return;
        }
        FVOutput::print(stdout, "  {}\n", shown(*target));
    }, &problem);
    for (const std::string& p : plan.problems()) FVOutput::error("{}", shown(p));
    if (!whole) FVOutput::error("The record of the run is damaged: {}", shown(problem));
    FVOutput::print(stdout,
                    "Dry run: {} ({}) would be restored, {} already identical, {}, {}, {} whose bytes are gone.\n",
                    FVNumber::counted(plan.fileCount() - gone, "file"),
                    FVNumber::formattedDiskSizeString(static_cast<double>(plan.byteCount() - goneBytes)),
                    plan.identicalCount(), FVNumber::counted(plan.conflicts().size(), "conflict"),
                    FVNumber::counted(plan.problems().size() + (whole ? 0 : 1), "error"), FVNumber::counted(gone, "file"));
    return (!plan.conflicts().empty() && !replace) || !plan.problems().empty() || !whole || gone ? FVExitStatus::kIncomplete
                                                                                                 : FVExitStatus::kOk;
}

}  // namespace

int restoreMain(const FVRestoreCommand::RestoreArguments& a) {
    // Before the copy's threads start, so that none of them takes a signal.
    FVRestoreSignals::listen();
    const std::string destination = FVNamedPath::resolved(FVNamedPath::absolute(a.destination));
    FVDestinationLock lock;
    int status = FVExitStatus::kUsage;
    if (!FVSharedLock::acquire("restore", destination, lock, &status)) return status;
    auto run = chosenRun("restore", destination, a.at);
    if (!run) return FVExitStatus::kIncomplete;
    auto opened = openNamed("restore", destination, *run, a.what);
    if (!opened) return FVExitStatus::kUsage;
    const std::string toFolder = a.to.empty() ? "" : FVNamedPath::resolved(FVNamedPath::absolute(a.to));
    if (!toFolder.empty() && FVText::isPathWithin(toFolder, destination)) {
        FVOutput::error("{} is inside the destination; a restore never writes there.",
                        shown(a.to));
        return FVExitStatus::kUsage;
    }
    std::string problem;
    auto plan = FVPointInTimePlan::make(destination, *run, opened->mirrorPath, toFolder, &problem);
    if (!plan) {
        FVOutput::error("{}: {}{}.", shown(a.what), shown(problem),
                        toFolder.empty() ? "; name a folder with --to" : "");
        return FVExitStatus::kIncomplete;
    }
    if (FVText::isPathWithin(plan->to(), destination)) {
        FVOutput::error("{} is inside the destination; a restore never writes there.",
                        shown(plan->to()));
        return FVExitStatus::kUsage;
    }
    for (const FVPointInTimePlan::Conflict& conflict : plan->conflicts())
        FVOutput::print(stdout, "Conflict: {} ({})\n", shown(conflict.target), conflict.reason);
    if (a.dryRun) return dryRun(*plan, a.replace);
    if (!plan->conflicts().empty() && !a.replace) {
        FVOutput::error("nothing was restored: {} existing items differ from the backup. Restore --to another "
                        "folder, or add --replace to move them to the trash first.",
                        plan->conflicts().size());
        return FVExitStatus::kIncomplete;
    }

    FVPointInTimeRestore restore(*plan, a.replace);
    FVRestoreSignals::copyStarted([&restore] { restore.cancel(); });
    FVPointInTimeRestore::Summary summary;
    {
        FVRestoreProgress progress;
        summary = restore.run([&](uint64_t done, uint64_t total) { progress.update(done, total); },
                              [](const std::string& line, bool isError) {
                                  if (isError) FVOutput::error("{}", shown(FVOutput::withoutErrorTag(line)));
                                  else FVOutput::print(stdout, "{}\n", shown(line));
                              });
    }
    FVRestoreSignals::copyFinished();
    if (std::string warning = FVLog::currentLog().unwrittenWarning(); !warning.empty())
        FVOutput::warning("{}", shown(warning));
    FVOutput::print(stdout,
                    "Restore {}: {} ({}), {} already identical, {} moved aside, {}, {} whose bytes are gone.\n",
                    summary.cancelled ? "stopped" : "finished", FVNumber::counted(summary.files, "file"),
                    FVNumber::formattedDiskSizeString(static_cast<double>(summary.bytes)), plan->identicalCount(),
                    FVNumber::counted(summary.replaced, "conflict"),
                    FVNumber::counted(summary.errors - summary.gone, "error"), FVNumber::counted(summary.gone, "file"));
    if (summary.cancelled && FVRestoreSignals::cancellingSignal())
        return FVExitStatus::interrupted(FVRestoreSignals::cancellingSignal());
    return summary.cancelled || summary.errors ? FVExitStatus::kIncomplete : FVExitStatus::kOk;
}

}  // namespace ferrovane::FVPointInTimeCommand
