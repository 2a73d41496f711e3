#include "cli/FVRestoreCommand.h"

#include "cli/FVExitStatus.h"
#include "cli/FVJsonText.h"
#include "cli/FVNamedPath.h"
#include "cli/FVOutput.h"
#include "cli/FVRestoreProgress.h"
#include "cli/FVRestoreSignals.h"
#include "cli/FVRunSignals.h"
#include "cli/FVSharedLock.h"

#include "engine/config/FVDestinationLock.h"
#include "engine/restore/FVRestorePlan.h"
#include "engine/restore/FVRestoreRun.h"
#include "engine/restore/FVRestoreTarget.h"
#include "engine/run/FVLog.h"
#include "engine/run/FVNumber.h"
#include "fs/FVText.h"
#include "engine/record/FVVersionCatalog.h"
#include "search/FVSearchText.h"

#include <fmt/format.h>

#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace ferrovane::FVRestoreCommand {

namespace {

std::string shown(std::string_view text) { return FVSearchText::printable(text); }

std::string localTime(int64_t seconds) {
    std::time_t at = static_cast<std::time_t>(seconds);
    struct tm parts {};
    localtime_r(&at, &parts);
    char buffer[64];
    return std::string(buffer, std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M:%S", &parts));
}

using FVNamedPath::absolute;
using FVNamedPath::resolved;

std::optional<FVVersionCatalog> openCatalog(const char* command, const std::string& destination) {
    std::string problem;
    auto catalog = FVVersionCatalog::open(resolved(absolute(destination)), &problem);
    if (!catalog)
        FVOutput::error("cannot use the destination {}: {}", shown(destination),
                   shown(problem));
    return catalog;
}

std::optional<std::string> mirrorPathOrComplain(const FVVersionCatalog& catalog, const std::string& named) {
    std::string path = absolute(named);
    auto mirror = catalog.mirrorPath(path);
    if (!mirror) mirror = catalog.mirrorPath(resolved(path));
    if (!mirror)
        FVOutput::error("{} is neither inside the destination nor below one of its sources (ferrovane config {} show "
                        "lists them)",
                        shown(named), shown(catalog.destination()));
    return mirror;
}

}  // namespace

int versionsMain(const std::string& destination, const std::string& path, bool json) {
    auto catalog = openCatalog("versions", destination);
    if (!catalog) return FVExitStatus::kUsage;
    // Listing changes nothing, so it goes on; but which source a mirror path belongs to is a guess.
    if (std::optional<std::string> problem = catalog->layout().validateAsSeen())
        FVOutput::warning("{}", shown(*problem));
    auto mirror = mirrorPathOrComplain(*catalog, path);
    if (!mirror) return FVExitStatus::kUsage;
    std::vector<FVItemVersion> versions = catalog->versions(*mirror);
    auto original = catalog->originalPath(*mirror);
    if (json) {
        FVOutput::print(stdout, "{{{}, {}, \"versions\": [", FVJsonText::formatVersionField(),
                        FVJsonText::pathFields("path", original.value_or(*mirror)));
        for (size_t k = 0; k < versions.size(); ++k) {
            const FVItemVersion& v = versions[k];
            FVOutput::print(stdout, "{}\n  {{\"version\": {}, \"kind\": \"{}\", \"type\": \"{}\", \"size\": {}, "
                       "\"modified\": {}, {}}}",
                       k ? "," : "", FVJsonText::quoted(v.label()), versionKindName(v.kind), fileTypeName(v.type), v.size,
                       FVJsonText::time(static_cast<std::time_t>(v.modificationTime)), FVJsonText::pathFields("location", v.path));
        }
        FVOutput::print(stdout, "{}]}}\n", versions.empty() ? "" : "\n");
    } else {
        FVOutput::print(stdout, "{}\n", shown(original.value_or(*mirror)));
        for (const FVItemVersion& v : versions)
            FVOutput::print(stdout, "  {:<26} {:<8} {:>14}  {}  {}\n", v.label(), versionKindName(v.kind),
                       v.type == FVFileType::Directory ? std::string("folder") : FVNumber::counted(v.size, "byte"),
                       localTime(v.modificationTime), shown(v.path));
    }
    if (versions.empty()) {
        FVOutput::error("the destination holds no version of {}.", shown(path));
        return FVExitStatus::kIncomplete;
    }
    return FVExitStatus::kOk;
}

namespace {

// The plans of what the user asked for; nothing (after saying why) when it cannot be done.
std::optional<std::vector<FVRestorePlan>> planRestore(const RestoreArguments& a, const FVVersionCatalog& catalog,
                                                      int* status) {
    *status = FVExitStatus::kUsage;
    const std::string& destination = catalog.destination();
    std::string toFolder = a.to.empty() ? "" : resolved(absolute(a.to));
    if (!toFolder.empty() && FVText::isPathWithin(toFolder, destination)) {
        FVOutput::error("{} is inside the destination; a restore never writes there.",
                   shown(a.to));
        return std::nullopt;
    }
    std::vector<FVRestoreTarget> items;
    if (a.all) {
        if (catalog.sources().empty()) {
            FVOutput::error("the destination has no source to restore.");
            *status = FVExitStatus::kIncomplete;
            return std::nullopt;
        }
        for (const std::string& source : catalog.sources()) {
            std::string original = FVText::standardizedPath(source);
            // A source inside another comes back with the outer one, never twice.
            bool nested = std::any_of(catalog.sources().begin(), catalog.sources().end(), [&](const std::string& other) {
                std::string outer = FVText::standardizedPath(other);
                return outer != original && FVText::isPathWithin(original, outer);
            });
            if (nested) continue;
            std::string target = toFolder.empty() ? original
                                 : original == "/" ? toFolder
                                                   : (toFolder == "/" ? "" : toFolder) + original;
            std::string anchor = toFolder.empty() ? FVText::deletingLastPathComponent(original) : toFolder;
            items.push_back(FVRestoreTarget::confined(catalog.layout().mirrorPath(original), anchor, target));
        }
    } else {
        auto mirror = mirrorPathOrComplain(catalog, a.what);
        if (!mirror) return std::nullopt;
        std::vector<FVItemVersion> versions = catalog.versions(*mirror);
        const FVItemVersion* chosen = nullptr;
        for (const FVItemVersion& v : versions)
            if (a.version.empty() || v.label() == a.version) {
                chosen = &v;
                break;
            }
        if (!chosen) {
            FVOutput::error("the destination holds no {} of {}.",
                       a.version.empty() ? "version" : "version " + shown(a.version), shown(a.what));
            *status = FVExitStatus::kIncomplete;
            return std::nullopt;
        }
        std::string problem;
        auto item = FVRestoreTarget::forVersion(catalog, *mirror, chosen->path, toFolder, &problem);
        if (!item) {
            FVOutput::error("{}: {}; name a folder with --to.", shown(a.what), problem);
            return std::nullopt;
        }
        items.push_back(std::move(*item));
    }
    std::vector<FVRestorePlan> plans;
    for (const FVRestoreTarget& item : items) {
        if (FVText::isPathWithin(item.to, destination)) {
            FVOutput::error("{} is inside the destination; a restore never writes there.",
                       shown(item.to));
            return std::nullopt;
        }
        struct stat st {};
        if (int error = FVRestorePlan::examine(destination, item.from, &st)) {
            FVOutput::error("the destination holds no copy of {} ({}).", shown(item.to),
                            std::strerror(error));
            *status = FVExitStatus::kIncomplete;
            return std::nullopt;
        }
        plans.emplace_back(destination, item.from, item.to, item.root, item.parentMirrors);
    }
    return plans;
}

// Takes the destination's lock and opens its catalog. Shared: restores may run side by side,
// never beside a backup or a configuration change, so the versions cannot move while they are
// planned and copied. Nothing, with the exit status in *status, when the destination cannot be
// used.
std::optional<FVVersionCatalog> lockedCatalog(const std::string& destination, FVDestinationLock& lock, int* status) {
    if (!FVSharedLock::acquire("restore", resolved(absolute(destination)), lock, status)) return std::nullopt;
    *status = FVExitStatus::kUsage;
    auto catalog = openCatalog("restore", destination);
    if (!catalog) return std::nullopt;
    // Colliding mirrors hold one source's files under another's name: nothing is restored then.
    if (std::optional<std::string> problem = catalog->layout().validateAsSeen()) {
        FVOutput::error("cannot use the destination {}: {}", shown(destination),
                        shown(*problem));
        return std::nullopt;
    }
    return catalog;
}

}  // namespace

int restoreMain(const RestoreArguments& arguments) {
    // Before the copy's threads start, so that none of them takes a signal.
    FVRestoreSignals::listen();
    FVDestinationLock lock;
    int status = FVExitStatus::kUsage;
    auto catalog = lockedCatalog(arguments.destination, lock, &status);
    if (!catalog) return status;
    auto plans = planRestore(arguments, *catalog, &status);
    if (!plans) return status;

    uint64_t files = 0, bytes = 0, conflicts = 0, identical = 0, problems = 0;
    for (const FVRestorePlan& plan : *plans) {
        files += plan.fileCount();
        bytes += plan.byteCount();
        identical += plan.identicalCount();
        conflicts += plan.conflicts().size();
        problems += plan.problems().size();
        for (const FVRestorePlan::Conflict& conflict : plan.conflicts())
            FVOutput::print(stdout, "Conflict: {} ({})\n", shown(conflict.target), conflict.reason);
    }
    if (arguments.dryRun) {
        for (const FVRestorePlan& plan : *plans) {
            FVOutput::print(stdout, "Would restore {} to {}\n", shown(plan.from()), shown(plan.to()));
            for (const auto& [from, to] : plan.pairs()) FVOutput::print(stdout, "  {}\n", shown(to->path()));
            for (const std::string& problem : plan.problems()) FVOutput::error("{}", shown(problem));
        }
        FVOutput::print(stdout, "Dry run: {} ({}) would be restored, {} already identical, {}, {}.\n",
                        FVNumber::counted(files, "file"), FVNumber::formattedDiskSizeString(static_cast<double>(bytes)),
                        identical, FVNumber::counted(conflicts, "conflict"), FVNumber::counted(problems, "error"));
        return (conflicts && !arguments.replace) || problems ? FVExitStatus::kIncomplete : FVExitStatus::kOk;
    }
    if (conflicts && !arguments.replace) {
        FVOutput::error("nothing was restored: {} existing items differ from the backup. Restore --to another "
                        "folder, or add --replace to move them to the trash first.",
                   conflicts);
        return FVExitStatus::kIncomplete;
    }

    FVRestoreRun run(*plans, arguments.replace);
    FVRestoreSignals::copyStarted([&run] { run.cancel(); });
    FVRestoreRun::Summary summary;
    {
        FVRestoreProgress progress;
        summary = run.run(
            catalog->destination(), [&](uint64_t done, uint64_t total) { progress.update(done, total); },
            [](const std::string& line, bool isError) {
                if (isError) FVOutput::error("{}", shown(FVOutput::withoutErrorTag(line)));
                else FVOutput::print(stdout, "{}\n", shown(line));
            });
    }
    FVRestoreSignals::copyFinished();
    if (std::string warning = FVLog::currentLog().unwrittenWarning(); !warning.empty())
        FVOutput::warning("{}", shown(warning));
    FVOutput::print(stdout, "Restore {}: {} ({}), {} already identical, {} moved aside, {}.\n",
                    summary.cancelled ? "stopped" : "finished", FVNumber::counted(summary.files, "file"),
                    FVNumber::formattedDiskSizeString(static_cast<double>(summary.bytes)), identical,
                    FVNumber::counted(summary.replaced, "conflict"), FVNumber::counted(summary.errors, "error"));
    if (summary.cancelled && FVRestoreSignals::cancellingSignal())
        return FVExitStatus::interrupted(FVRestoreSignals::cancellingSignal());
    return summary.cancelled || summary.errors ? FVExitStatus::kIncomplete : FVExitStatus::kOk;
}

}  // namespace ferrovane::FVRestoreCommand
