#include "cli/FVConfigCommand.h"

#include "cli/FVExcludeCommand.h"
#include "cli/FVExitStatus.h"
#include "cli/FVOutput.h"
#include "cli/FVJsonText.h"
#include "cli/FVRetentionCommand.h"
#include "cli/FVSourceResults.h"

#include "backupset/BackupSetController.h"
#include "engine/config/FVConfigurationFile.h"
#include "engine/config/FVDestinationLock.h"
#include "engine/config/FVHookApprovals.h"
#include "engine/config/FVMirrorLayout.h"
#include "engine/config/FVOptions.h"
#include "engine/config/FVPlacementChange.h"
#include "engine/run/FVStrings.h"
#include "fs/FVTestHook.h"
#include "fs/FVText.h"
#include "scheduling/FVLaunchAgentManager.h"
#include "scheduling/FVOptionsPanelController.h"
#include "scheduling/FVScheduleSummary.h"
#include "search/FVSearchText.h"

#include <fmt/format.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace ferrovane::FVConfigCommand {

namespace {

// Waiting longer than this for a run to finish would look like a hang; the user tries again.
constexpr auto kLockWait = std::chrono::seconds(10);

struct ModeName {
    const char* argument;
    FVSourceMode mode;
    const char* stringKey;
};
const ModeName kModes[] = {
    {"disabled", FVSourceMode::Disabled, "modedisabled"},
    {"backup", FVSourceMode::Backup, "modebackup"},
    {"exclude", FVSourceMode::ExcludePath, "modeexclude"},
    {"exclude-name", FVSourceMode::ExcludeName, "modeexcludeany"},
};

const char* const kWeekdays[] = {"sunday", "monday", "tuesday", "wednesday", "thursday", "friday", "saturday"};

std::string printable(std::string_view text) { return FVSearchText::printable(text); }

// Input that is well-formed but not acceptable: the message says why, without the whole usage.
int refuse(const std::string& message) {
    FVOutput::error("{}", message);
    return FVExitStatus::kUsage;
}

int fail(const std::string& message) {
    FVOutput::error("{}", message);
    return FVExitStatus::kIncomplete;
}

std::string lowercase(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(), [](unsigned char c) { return std::tolower(c); });
    return text;
}

std::optional<int64_t> parseInteger(const std::string& text) {
    if (text.empty() || text.size() > 12) return std::nullopt;
    size_t start = text[0] == '-' ? 1 : 0;
    if (start == text.size() || !std::all_of(text.begin() + static_cast<ptrdiff_t>(start), text.end(),
                                             [](unsigned char c) { return std::isdigit(c); }))
        return std::nullopt;
    return std::stoll(text);
}

std::optional<bool> parseBoolean(const std::string& text) {
    std::string t = lowercase(text);
    if (t == "1" || t == "yes" || t == "true" || t == "on") return true;
    if (t == "0" || t == "no" || t == "false" || t == "off") return false;
    return std::nullopt;
}

// "H:MM" or "HH:MM" within 00:00-23:59.
std::optional<std::pair<int64_t, int64_t>> parseTime(const std::string& text) {
    size_t colon = text.find(':');
    if (colon == std::string::npos || colon == 0 || colon > 2 || text.size() - colon != 3) return std::nullopt;
    auto hour = parseInteger(text.substr(0, colon));
    auto minute = parseInteger(text.substr(colon + 1));
    if (!hour || !minute || *hour < 0 || *hour > 23 || *minute < 0 || *minute > 59 || text[0] == '-' ||
        text[colon + 1] == '-')
        return std::nullopt;
    return std::make_pair(*hour, *minute);
}

// A weekday name (or its first three letters) or the job launcher's number, 0 and 7 Sunday.
std::optional<int64_t> parseWeekday(const std::string& text) {
    std::string t = lowercase(text);
    for (int64_t day = 0; day < 7; ++day)
        if (t == kWeekdays[day] || (t.size() == 3 && std::string(kWeekdays[day]).substr(0, 3) == t)) return day;
    auto number = parseInteger(t);
    if (number && *number >= 0 && *number <= 7) return number;
    return std::nullopt;
}

std::string modeText(int64_t mode) {
    for (const ModeName& m : kModes)
        if (static_cast<int64_t>(m.mode) == mode) return FVStrings::localized(m.stringKey);
    return fmt::format("mode {}", mode);
}

// The name --mode takes for a mode.
std::string modeArgument(int64_t mode) {
    for (const ModeName& m : kModes)
        if (static_cast<int64_t>(m.mode) == mode) return m.argument;
    return fmt::format("mode {}", mode);
}

std::string absolutePath(const std::string& path) {
    // Only a trailing slash and repeated slashes go; the path is otherwise kept as given.
    std::string out;
    for (char c : path)
        if (!(c == '/' && !out.empty() && out.back() == '/')) out += c;
    while (out.size() > 1 && out.back() == '/') out.pop_back();
    return out;
}

// The options as a run reads them; a value that cannot be used reads as its default here.
FVOptions typedOptions(const PlistDict& options) {
    PlistDict withDefaults = options;
    FVConfigurationFile::applyDefaultOptions(withDefaults);
    return FVOptionTable::read(withDefaults).options;
}

std::string scheduleText(const PlistDict& options) {
    return FVScheduleSummary::of(typedOptions(options), std::nullopt, std::time(nullptr)).when;
}

std::string valueText(const FVOptionRule& rule, const PlistValue* value) {
    if (!value) return "not set";
    if (FVOptionTable::problem(rule, *value)) return "invalid";
    if (rule.type == FVOptionType::Boolean) return value->boolValue() ? "yes" : "no";
    return std::to_string(value->integerValue());
}

std::string defaultText(const FVOptionRule& rule) {
    int64_t value = rule.initialValue();
    if (rule.type == FVOptionType::Boolean) return value ? "yes" : "no";
    return std::to_string(value);
}

// The path with every link resolved, or the path itself when it cannot be resolved.
std::string resolved(const std::string& path) {
    char* real = realpath(path.c_str(), nullptr);
    if (!real) return path;
    std::string out = real;
    free(real);
    return out;
}

// Added anyway: a source may be a disk that is not mounted yet.
void warnAboutSource(const std::string& source, const std::string& destination) {
    struct stat st {};
    if (lstat(source.c_str(), &st) != 0 && (errno == ENOENT || errno == ENOTDIR))
        FVOutput::warning("{} does not exist (yet); it will be skipped until it does.", printable(source));
    if (FVText::isPathWithin(destination, source) || FVText::isPathWithin(resolved(destination), resolved(source)))
        FVOutput::warning("{} contains the destination; the destination will be left out of the backup.",
                          printable(source));
}

struct Configuration {
    std::string destination;
    std::string readFrom;  // empty when the destination has no configuration yet
    FVConfiguration content;
    std::vector<std::string> skippedItems;
};

// Reads the destination's file (the legacy one for show, which changes nothing).
bool load(Configuration& config, bool includeLegacy, std::string& problem) {
    struct stat st {};
    for (const std::string& path : {FVConfigurationFile::formattedPath(config.destination),
                                    FVConfigurationFile::legacyPath(config.destination)}) {
        if (lstat(path.c_str(), &st) != 0) {
            // Only a missing file means "no configuration yet"; one that cannot be looked at is not.
            if (errno != ENOENT) {
                problem = "cannot read " + printable(path) + ": " + std::strerror(errno);
                return false;
            }
            if (!includeLegacy) break;
            continue;
        }
        FVConfigurationReadResult result = FVConfigurationFile::read(path);
        if (result.status != FVConfigurationReadStatus::Ok) {
            problem = result.problem;
            return false;
        }
        config.readFrom = path;
        config.content = std::move(result.configuration);
        config.skippedItems = std::move(result.skippedItems);
        return true;
    }
    // No configuration yet: the first change creates it with what every new destination gets.
    config.content.settings = FVConfigurationFile::newDestinationOptions();
    return true;
}

bool jobPresent(FVLaunchAgentManager& jobs, const std::string& uuid) {
    std::vector<std::string> ids = jobs.jobIdentifiers();
    return std::find(ids.begin(), ids.end(), uuid) != ids.end();
}

struct JobKindName {
    FVJobKind kind;
    const char* name;
};
const JobKindName kJobKinds[] = {
    {FVJobKind::Backup, "calendar"}, {FVJobKind::Connect, "connect"}, {FVJobKind::Verify, "verify"}};

std::string jobStateText(FVLaunchAgentManager& jobs, const std::string& uuid, FVJobKind kind) {
    if (!jobs.isJobPresent(uuid, kind)) return "none";
    return jobs.isJobEnabled(uuid, kind) ? "present, enabled" : "present, not enabled";
}

// "config DEST schedule": when runs start by themselves, the next one, how the last one ended, and
// the jobs as far as their files tell.
int showSchedule(const Configuration& config, FVLaunchAgentManager& jobs, bool json) {
    const FVOptions options = typedOptions(*config.content.settings);
    std::optional<FVJobStatus> status;
    if (!options.UUID.empty()) status = FVJobStatusStore().read(options.UUID);
    const FVScheduleSummary summary = FVScheduleSummary::of(options, status, std::time(nullptr));
    if (json) {
        fmt::print("{{{}, {}, \"scheduled\": {}, \"when\": {}, \"nextRun\": {}, \"lastScheduledRun\": {},\n \"lastScheduledAttempt\": ",
                   FVJsonText::formatVersionField(), FVJsonText::pathFields("destination", config.destination),
                   summary.scheduled ? "true" : "false", FVJsonText::quoted(summary.when),
                   summary.nextRun ? FVJsonText::time(*summary.nextRun) : "null",
                   FVJsonText::quoted(summary.lastScheduledRun));
        if (status && status->lastScheduledAttempt) {
            const FVJobAttempt& last = *status->lastScheduledAttempt;
            fmt::print("{{\"time\": {}, \"trigger\": \"{}\", \"outcome\": \"{}\", \"message\": {}}}",
                       FVJsonText::time(last.time), jobTriggerName(last.trigger), jobOutcomeName(last.outcome),
                       FVJsonText::quoted(last.message));
        } else {
            fmt::print("null");
        }
        fmt::print(",\n \"jobs\": [");
        const char* separator = "";
        for (const JobKindName& job : kJobKinds) {
            if (options.UUID.empty()) break;
            fmt::print("{}\n  {{\"kind\": \"{}\", \"label\": {}, \"present\": {}, \"enabled\": {}}}", separator, job.name,
                       FVJsonText::quoted(FVLaunchAgentManager::jobLabel(options.UUID, job.kind)),
                       jobs.isJobPresent(options.UUID, job.kind) ? "true" : "false",
                       jobs.isJobEnabled(options.UUID, job.kind) ? "true" : "false");
            separator = ",";
        }
        fmt::print("]}}\n");
        return FVExitStatus::kOk;
    }
    fmt::print("Destination: {}\n", printable(config.destination));
    fmt::print("Schedule: {}\n", summary.when);
    if (summary.nextRun) fmt::print("Next run: {}\n", FVScheduleSummary::localTimeText(*summary.nextRun));
    fmt::print("Last scheduled run: {}\n", printable(summary.lastScheduledRun));
    if (options.UUID.empty()) {
        fmt::print("Jobs: none (the destination has no identity yet)\n");
        return FVExitStatus::kOk;
    }
    for (const JobKindName& job : kJobKinds)
        fmt::print("Job ({}): {}{} ({})\n", job.name, printable(jobs.jobDirectory()),
                   printable(FVLaunchAgentManager::jobLabel(options.UUID, job.kind)),
                   jobStateText(jobs, options.UUID, job.kind));
    return FVExitStatus::kOk;
}

// One line per hook that is set, saying whether it may run here.
std::vector<std::string> hookLines(const PlistDict& options, const std::string& destination) {
    std::vector<std::string> lines;
    const FVHookApprovals approvals;
    const FVOptions typed = FVOptionTable::read(options).options;
    for (FVHookKind kind : {FVHookKind::Before, FVHookKind::After}) {
        const char* name = hookKindName(kind);
        const std::string& command = kind == FVHookKind::Before ? typed.beforeHook : typed.afterHook;
        if (command.empty()) continue;
        lines.push_back(fmt::format("{}-hook: {} ({})", name, printable(command),
                                    approvals.isApproved(typed.UUID, kind, command)
                                        ? "approved"
                                        : fmt::format("not approved, does not run; to approve: ferrovane config {} hook {} --approve",
                                                      printable(destination), name)));
    }
    return lines;
}

int show(const Configuration& config, FVLaunchAgentManager& jobs) {
    fmt::print("Destination: {}\n", printable(config.destination));
    fmt::print("Configuration: {}\n", config.readFrom.empty() ? "none yet (defaults shown)" : printable(config.readFrom));
    fmt::print("\nSources:\n");
    if (config.content.sources.empty()) fmt::print("  (none)\n");
    size_t row = 0;
    for (const FVSourceItemPtr& item : config.content.sources) {
        fmt::print("  {:>2}  {:<26}  {}\n", ++row, modeText(item->enabled()), printable(item->sourcePath()));
        if (item->enabled() == static_cast<int64_t>(FVSourceMode::Backup) || item->value(FVSourceKey::lastBackupDate))
            fmt::print("      {}\n", FVSourceResults::line(*item));
    }

    for (const std::string& skipped : config.skippedItems) fmt::print("  {}\n", printable(skipped));

    const PlistDict& options = *config.content.settings;
    fmt::print("\nLeft out below every source (exclude patterns):\n");
    const std::vector<std::string> patterns = FVExcludeCommand::storedPatterns(options);
    if (patterns.empty()) fmt::print("  (none)\n");
    for (const std::string& pattern : patterns) fmt::print("  {}\n", printable(pattern));
    fmt::print("\nOptions:{:<20}  {:<8}  {}\n", "", "value", "default");
    for (const FVOptionRule& rule : FVOptionTable::rules())
        if (rule.settable)
            fmt::print("  {:<26}  {:<8}  {}\n", rule.key, valueText(rule, options.find(rule.key)), defaultText(rule));
    for (const auto& [key, value] : options.entries())
        if (!FVOptionTable::find(key) && key != FVOptionKey::excludePatterns)
            fmt::print("  {:<26}  ({}, kept as stored)\n", printable(key), value.typeName());
    for (const std::string& problem : FVOptionTable::read(options).problems)
        fmt::print("{}\n", printable(problem));

    const FVOptions typed = FVOptionTable::read(options).options;
    if (typed.isSuperuserBackup)
        fmt::print("\nSet up by root: the window opens this destination only when run as root.\n");
    fmt::print("\nSchedule: {}\n", scheduleText(options));
    if (!typed.UUID.empty()) {
        fmt::print("Job: {}{} ({})\n", printable(jobs.jobDirectory()), printable(FVLaunchAgentManager::jobLabel(typed.UUID)),
                   jobPresent(jobs, typed.UUID) ? "present" : "none");
    }
    const std::vector<std::string> hooks = hookLines(options, config.destination);
    fmt::print("\nHooks:{}\n", hooks.empty() ? " none" : "");
    for (const std::string& line : hooks) fmt::print("  {}\n", line);
    return FVExitStatus::kOk;
}

// The same as show, for scripts: option values as JSON values (null when not set or unusable).
int showJson(const Configuration& config, FVLaunchAgentManager& jobs) {
    fmt::print("{{{}, {}, \"configuration\": {},\n \"sources\": [", FVJsonText::formatVersionField(),
               FVJsonText::pathFields("destination", config.destination),
               config.readFrom.empty() ? "null" : FVJsonText::quoted(config.readFrom));
    const char* separator = "";
    for (const FVSourceItemPtr& item : config.content.sources) {
        auto mode = std::find_if(std::begin(kModes), std::end(kModes),
                                 [&](const ModeName& m) { return static_cast<int64_t>(m.mode) == item->enabled(); });
        fmt::print("{}\n  {{{}, \"mode\": {}, {}}}", separator, FVJsonText::pathFields("path", item->sourcePath()),
                   mode == std::end(kModes) ? std::to_string(item->enabled()) : FVJsonText::quoted(mode->argument),
                   FVSourceResults::jsonFields(*item));
        separator = ",";
    }
    fmt::print("],\n \"excludePatterns\": [");
    separator = "";
    for (const std::string& pattern : FVExcludeCommand::storedPatterns(*config.content.settings)) {
        fmt::print("{}{}", separator, FVJsonText::quoted(pattern));
        separator = ", ";
    }
    fmt::print("],\n \"skipped\": [");
    separator = "";
    for (const std::string& skipped : config.skippedItems) {
        fmt::print("{}{}", separator, FVJsonText::quoted(skipped));
        separator = ", ";
    }
    const PlistDict& options = *config.content.settings;
    fmt::print("],\n \"options\": {{");
    separator = "";
    for (const FVOptionRule& rule : FVOptionTable::rules()) {
        if (!rule.settable) continue;
        const PlistValue* value = options.find(rule.key);
        std::string shown = valueText(rule, value);
        if (shown == "not set" || shown == "invalid") shown = "null";
        else if (rule.type == FVOptionType::Boolean) shown = shown == "yes" ? "true" : "false";
        fmt::print("{}\n  \"{}\": {{\"value\": {}, \"default\": {}}}", separator, rule.key, shown,
                   rule.type == FVOptionType::Boolean ? (rule.initialValue() ? "true" : "false")
                                                      : std::to_string(rule.initialValue()));
        separator = ",";
    }
    fmt::print("}},\n \"problems\": [");
    separator = "";
    for (const std::string& problem : FVOptionTable::read(options).problems) {
        fmt::print("{}{}", separator, FVJsonText::quoted(problem));
        separator = ", ";
    }
    fmt::print("],\n \"schedule\": {}, \"job\": ", FVJsonText::quoted(scheduleText(options)));
    if (const std::string uuid = FVOptionTable::read(options).options.UUID; !uuid.empty()) {
        fmt::print("{{\"label\": {}, \"present\": {}}}", FVJsonText::quoted(FVLaunchAgentManager::jobLabel(uuid)),
                   jobPresent(jobs, uuid) ? "true" : "false");
    } else {
        fmt::print("null");
    }
    fmt::print("}}\n");
    return FVExitStatus::kOk;
}

// A change to the configuration: every argument is checked before anything is read or written;
// apply runs on the loaded configuration and returns false (with a message) when the change
// cannot be made.
struct Change {
    std::function<bool(BackupSetController&, FVOptionsPanelController&, std::string&)> apply;
    // The scheduled jobs are brought in line with the options once they are written.
    bool schedule = false;
    // A hook is set, removed or approved: its approval is recorded once they are written.
    bool hook = false;
    FVHookKind hookKind = FVHookKind::Before;
    bool unknownSourceIsBadInput = false;
    // The change found everything as asked: nothing to write.
    std::shared_ptr<bool> unchanged = std::make_shared<bool>(false);
    // The command the change leaves in place, approved once the configuration is written.
    std::shared_ptr<std::string> hookCommand = std::make_shared<std::string>();
};

// The planners below fill in the change, or return the status the command ends with: arguments
// refused, or a request that only shows.

std::optional<int> planAdd(const Arguments& a, const std::string& destination, Change& change) {
    FVSourceMode mode = FVSourceMode::Backup;
    if (!a.mode.empty()) {
        auto found = std::find_if(std::begin(kModes), std::end(kModes),
                                  [&](const ModeName& m) { return a.mode == m.argument; });
        if (found == std::end(kModes)) return refuse("unknown mode: " + printable(a.mode));
        mode = found->mode;
    }
    // A name to leave out anywhere is a bare name; everything else is an absolute path.
    const bool bareName = mode == FVSourceMode::ExcludeName && !a.path.empty() && a.path.find('/') == std::string::npos;
    if (bareName && a.path.find_first_of("*?[\\") != std::string::npos)
        return refuse("a name with wildcards is a pattern: ferrovane config " + printable(destination) +
                      " exclude '" + printable(a.path) + "'");
    if (bareName && (a.path == "." || a.path == ".."))
        return refuse("not a name: " + printable(a.path));
    if (!bareName && (a.path.empty() || a.path[0] != '/'))
        return refuse(mode == FVSourceMode::ExcludeName
                          ? "exclude-name takes a name without a slash, or an absolute path whose name is left out: " +
                                printable(a.path)
                          : "the source must be an absolute path: " + printable(a.path));
    std::string source = bareName ? a.path : absolutePath(a.path);
    change.apply = [source, mode, destination, unchanged = change.unchanged](
                       BackupSetController& list, FVOptionsPanelController&, std::string& message) {
        for (const FVSourceItemPtr& item : list.arrangedObjects()) {
            if (item->sourcePath() != source) continue;
            // Asking again for what is there is done; another mode is a different request.
            if (item->enabled() != static_cast<int64_t>(mode)) {
                message = fmt::format("{} is already listed with --mode {}; to list it with --mode {}, remove "
                                      "it first",
                                      printable(source), modeArgument(item->enabled()),
                                      modeArgument(static_cast<int64_t>(mode)));
                return false;
            }
            message = fmt::format("{} is already listed ({}).", printable(source), modeText(item->enabled()));
            *unchanged = true;
            return true;
        }
        list.addBackupPath(source, mode, list.count());
        if (mode == FVSourceMode::Backup) warnAboutSource(source, destination);
        message = fmt::format("Added {} ({}).", printable(source), modeText(static_cast<int64_t>(mode)));
        return true;
    };
    return std::nullopt;
}

std::optional<int> planRemove(const Arguments& a, Change& change) {
    // A bare name is an exclude-name item's.
    if (a.path.empty() || (a.path[0] != '/' && a.path.find('/') != std::string::npos))
        return refuse("the source must be an absolute path: " + printable(a.path));
    change.unknownSourceIsBadInput = a.path[0] != '/';
    std::string given = a.path;
    std::string source = absolutePath(given);
    change.apply = [given, source](BackupSetController& list, FVOptionsPanelController&, std::string& message) {
        for (const FVSourceItemPtr& item : list.arrangedObjects()) {
            if (item->sourcePath() != given && item->sourcePath() != source) continue;
            list.removeItems({item});
            message = "Removed " + printable(item->sourcePath()) + ".";
            return true;
        }
        message = printable(source) + " is not in the list";
        return false;
    };
    return std::nullopt;
}

std::optional<int> planSet(const Arguments& a, Change& change) {
    const std::string& key = a.option;
    const FVOptionRule* rule = FVOptionTable::find(key);
    if (!rule || !rule->settable) {
        if (key == FVOptionKey::beforeHook || key == FVOptionKey::afterHook)
            return refuse("hooks are set with: hook before|after COMMAND");
        if (key.rfind("automation", 0) == 0) return refuse("the schedule is set with: schedule daily|weekly|off");
        if (key == FVOptionKey::backUpWhenConnected || key == FVOptionKey::connectedRunIntervalMinutes)
            return refuse("a backup when the disk is connected is set with: schedule when-connected on [MINUTES] | off");
        std::string names;
        for (const FVOptionRule& r : FVOptionTable::rules())
            if (r.settable) names += std::string(names.empty() ? "" : ", ") + r.key;
        return refuse("unknown option " + printable(key) + "; options are: " + names);
    }
    std::optional<PlistValue> value;
    if (rule->type == FVOptionType::Boolean) {
        if (auto flag = parseBoolean(a.value)) value = *flag;
    } else if (auto number = parseInteger(a.value)) {
        value = *number;
    }
    if (!value || FVOptionTable::problem(*rule, *value))
        return refuse(fmt::format("{} takes {}, not {}", rule->key, rule->expected, printable(a.value)));
    std::string shown = valueText(*rule, &*value);
    change.apply = [key, value, shown](BackupSetController&, FVOptionsPanelController& options, std::string& message) {
        options.allOptions()->set(key, *value);
        message = "Set " + key + " to " + shown + ".";
        return true;
    };
    return std::nullopt;
}

std::optional<int> planConfirmEmpty(const Arguments& a, Change& change) {
    if (a.path.empty() || a.path[0] != '/') return refuse("the source must be an absolute path: " + printable(a.path));
    change.unknownSourceIsBadInput = true;
    std::string given = a.path;
    std::string source = absolutePath(given);
    change.apply = [given, source](BackupSetController& list, FVOptionsPanelController&, std::string& message) {
        for (const FVSourceItemPtr& item : list.arrangedObjects()) {
            if (item->sourcePath() != given && item->sourcePath() != source) continue;
            item->setValue(FVSourceKey::emptySourceConfirmed, true);
            message = "Confirmed that " + printable(item->sourcePath()) +
                      " was emptied on purpose: the next run removes the contents of its mirror.";
            return true;
        }
        message = printable(source) + " is not in the list";
        return false;
    };
    return std::nullopt;
}

std::optional<int> planRetention(const Arguments& a, Configuration& config, Change& change) {
    std::string problem;
    std::optional<FVRetentionCommand::Request> request = FVRetentionCommand::parse(a.retention, &problem);
    if (!request) return refuse(problem);
    // Showing and previewing change nothing, so they take no lock.
    if (!request->changes() || a.dryRun) {
        if (!load(config, true, problem)) return fail(problem);
        return FVRetentionCommand::show(config.destination, *config.content.settings, *request, a.dryRun);
    }
    const std::string preview = "ferrovane config " + printable(config.destination) + " retention --dry-run";
    change.apply = [request, preview](BackupSetController&, FVOptionsPanelController& options, std::string& message) {
        message = FVRetentionCommand::apply(*request, *options.allOptions());
        if (*request->enabled)
            message += "\nThe next run removes the runs it lets go; to see which first: " + preview;
        return true;
    };
    return std::nullopt;
}

std::optional<int> planExclude(const Arguments& a, Change& change) {
    const bool fromFile = a.action == "exclude-from";
    std::string problem;
    // What is removed is taken as stored, also a pattern that cannot be used.
    std::optional<std::vector<std::string>> patterns =
        fromFile ? FVExcludeCommand::readFile(a.path, problem)
        : a.remove ? a.patterns : FVExcludeCommand::checkedPatterns(a.patterns, problem);
    if (patterns && patterns->empty()) problem = printable(a.path) + " holds no pattern";
    if (!patterns || patterns->empty()) {
        for (size_t start = 0; start < problem.size();) {
            size_t end = std::min(problem.find('\n', start), problem.size());
            FVOutput::error("{}", problem.substr(start, end - start));
            start = end + 1;
        }
        FVOutput::error("nothing was changed");
        return FVExitStatus::kUsage;
    }
    const bool remove = a.remove;
    const std::string from = fromFile ? a.path : "";
    change.apply = [patterns, remove, from](BackupSetController&, FVOptionsPanelController& options, std::string& message) {
        return FVExcludeCommand::apply(*options.allOptions(), *patterns, remove, from, message);
    };
    return std::nullopt;
}

std::optional<int> planHook(const Arguments& a, Change& change) {
    change.hook = true;
    change.hookKind = a.hookKind == "after" ? FVHookKind::After : FVHookKind::Before;
    const std::string name = hookKindName(change.hookKind);
    if (a.hookKind.empty()) return refuse("hook takes: before|after COMMAND | before|after --remove | before|after --approve");
    if (a.hookCommand && (a.hookRemove || a.hookApprove)) return refuse("give a command, --remove or --approve, not two of them");
    if (a.hookCommand && a.hookCommand->empty())
        return refuse("the command is empty; to remove the hook: hook " + name + " --remove");
    std::string FVOptions::*field = change.hookKind == FVHookKind::Before ? &FVOptions::beforeHook : &FVOptions::afterHook;
    const bool remove = a.hookRemove, approve = a.hookApprove;
    const std::string given = a.hookCommand.value_or("");
    change.apply = [=, hookCommand = change.hookCommand](BackupSetController&, FVOptionsPanelController& options,
                                                         std::string& message) {
        PlistDict& o = *options.allOptions();
        const std::string current = options.options().*field;
        if (remove) {
            o.remove(FVOptionTable::rule(field).key);
            message = current.empty() ? "No " + name + "-hook was set." : "Removed the " + name + "-hook.";
        } else if (approve) {
            if (current.empty()) {
                message = "no " + name + "-hook is set";
                return false;
            }
            *hookCommand = current;
            message = "Approved the " + name + "-hook: " + printable(current);
        } else {
            FVOptionTable::store(o, field, given);
            *hookCommand = given;
            message = "Set the " + name + "-hook: " + printable(given);
        }
        return true;
    };
    return std::nullopt;
}

std::optional<int> planWhenConnected(const std::vector<std::string>& args, Change& change) {
    std::optional<bool> on = args.size() >= 2 ? parseBoolean(args[1]) : std::nullopt;
    std::optional<int64_t> minutes;
    const FVOptionRule* interval = &FVOptionTable::rule(&FVOptions::connectedRunIntervalMinutes);
    if (on && *on && args.size() == 3) {
        minutes = parseInteger(args[2]);
        if (!minutes || FVOptionTable::problem(*interval, PlistValue(*minutes)))
            return refuse(fmt::format("the interval takes {}, not {}", interval->expected, printable(args[2])));
    }
    if (!on || (!*on && args.size() == 3))
        return refuse("schedule when-connected takes: on [MINUTES] | off");
    change.apply = [on, minutes](BackupSetController&, FVOptionsPanelController& options, std::string& message) {
        PlistDict& o = *options.allOptions();
        FVOptionTable::store(o, &FVOptions::backUpWhenConnected, *on);
        if (minutes) FVOptionTable::store(o, &FVOptions::connectedRunIntervalMinutes, *minutes);
        message = "Schedule: " + scheduleText(o) + ".";
        return true;
    };
    return std::nullopt;
}

std::optional<int> planSchedule(const Arguments& a, Change& change) {
    const std::vector<std::string>& args = a.schedule;
    change.schedule = true;
    if (!args.empty() && args[0] == "when-connected") return planWhenConnected(args, change);
    std::optional<int64_t> weekday;  // absent: daily
    std::string time;
    const bool off = args.size() == 1 && args[0] == "off";
    if (args.size() == 2 && args[0] == "daily") {
        time = args[1];
    } else if (args.size() == 3 && args[0] == "weekly") {
        weekday = parseWeekday(args[1]);
        if (!weekday) return refuse("unknown weekday: " + printable(args[1]));
        time = args[2];
    } else if (!off) {
        return refuse("schedule takes: daily HH:MM | weekly <weekday> HH:MM | when-connected on [MINUTES] | "
                      "when-connected off | off");
    }
    std::optional<std::pair<int64_t, int64_t>> at;
    if (!off && !(at = parseTime(time))) return refuse("the time must be HH:MM within 00:00-23:59, not " + printable(time));
    change.apply = [off, at, weekday](BackupSetController&, FVOptionsPanelController& options, std::string& message) {
        PlistDict& o = *options.allOptions();
        FVOptionTable::store(o, &FVOptions::automationEnabled, !off);
        // "off": no run starts by itself, the disk's neither.
        if (off) FVOptionTable::store(o, &FVOptions::backUpWhenConnected, false);
        if (!off) {
            FVOptionTable::store(o, &FVOptions::automationTimeHours, at->first);
            FVOptionTable::store(o, &FVOptions::automationTimeMinutes, at->second);
            FVOptionTable::store(o, &FVOptions::automationIntervalSelection, int64_t{weekday ? 1 : 0});
            if (weekday) FVOptionTable::store(o, &FVOptions::automationWeekdaySelection, *weekday);
        }
        message = "Schedule: " + scheduleText(o) + ".";
        return true;
    };
    return std::nullopt;
}

std::optional<int> plan(const Arguments& a, Configuration& config, Change& change) {
    const std::string& command = a.action;
    if (command == "add") return planAdd(a, config.destination, change);
    if (command == "remove") return planRemove(a, change);
    if (command == "set") return planSet(a, change);
    if (command == "confirm-empty") return planConfirmEmpty(a, change);
    if (command == "retention") return planRetention(a, config, change);
    if (command == "exclude" || command == "exclude-from") return planExclude(a, change);
    if (command == "hook") return planHook(a, change);
    return planSchedule(a, change);
}

// The requests that only read: show, the schedule and the hooks without a change.
std::optional<int> showOnly(const Arguments& a, Configuration& config, FVLaunchAgentManager& jobs) {
    const std::string& command = a.action;
    std::string problem;
    if (command == "show" || (command == "schedule" && a.schedule.empty())) {
        if (!load(config, true, problem)) return fail(problem);
        if (command == "schedule") return showSchedule(config, jobs, a.json);
        return a.json ? showJson(config, jobs) : show(config, jobs);
    }
    if (command == "hook" && !(a.hookCommand || a.hookRemove || a.hookApprove)) {
        if (!load(config, true, problem)) return fail(problem);
        std::vector<std::string> hooks = hookLines(*config.content.settings, config.destination);
        // "hook before" alone: that one.
        std::erase_if(hooks, [&](const std::string& line) { return line.rfind(a.hookKind, 0) != 0; });
        if (hooks.empty()) fmt::print("No hooks.\n");
        for (const std::string& line : hooks) fmt::print("{}\n", line);
        return FVExitStatus::kOk;
    }
    return std::nullopt;
}

// Read, change and write under the destination's lock, so that neither a run nor another change
// works on the file in between. A run holds the lock to its end. Nothing when it is held.
std::optional<int> lockForChange(FVDestinationLock& lock, const std::string& destination) {
    FVDestinationLock::Status locked = lock.acquire(destination);
    if (locked == FVDestinationLock::Status::Busy) {
        FVOutput::warning("the destination is in use; waiting up to {} seconds...",
                   std::chrono::seconds(kLockWait).count());
        FVTestHook::reach("waiting-for-lock", destination);
        locked = lock.acquire(destination, kLockWait);
    }
    if (locked == FVDestinationLock::Status::Busy) {
        FVOutput::error("{}", FVDestinationLock::busyMessage(printable(destination)));
        return FVDestinationLock::busyExitStatus;
    }
    if (locked != FVDestinationLock::Status::Acquired) return fail(lock.reason());
    return std::nullopt;
}

// A source list whose mirrors would collide is never written: each run would remove the other
// source's files. Checked under the lock: no run makes a mirror in between.
std::optional<int> checkPlacement(const Arguments& a, const std::string& destination, bool folderPerSourceBefore,
                                  BackupSetController& list, FVOptionsPanelController& options) {
    const FVMirrorLayout layout = FVMirrorLayout::fromItems(
        destination, FVOptionTable::read(*options.allOptions()).options.syncMode != 0, list.arrangedObjects());
    if (std::optional<std::string> problem = layout.validateAsSeen())
        return refuse(printable(*problem) + " Nothing was changed.");
    const FVPlacementChange placement(destination, folderPerSourceBefore, layout.folderPerSource(),
                                      list.arrangedObjects());
    const std::string repeat = "ferrovane config " + printable(destination) + " set " + a.option + " " +
                               printable(a.value);
    if (std::optional<std::string> refusal = placement.refusal(repeat)) {
        FVOutput::error("{}", *refusal);
        return FVExitStatus::kIncomplete;
    }
    return std::nullopt;
}

// What follows the written configuration: the hook's approval and the scheduled jobs.
int setUpAfterWrite(const Change& change, const std::string& destination, FVOptionsPanelController& options) {
    std::string error;
    // Kept outside the destination: only what this user set here runs as this user.
    if (change.hook) {
        FVHookApprovals approvals;
        if (!approvals.approve(options.uuid(), change.hookKind, *change.hookCommand, &error))
            return fail("the configuration is saved, but the approval could not be recorded in " +
                        printable(approvals.folder()) + ": " + error + "; the hook does not run until it is");
    }
    if (!change.schedule) return FVExitStatus::kOk;
    if (!options.updateAutomations(destination, &error)) {
        // systemctl's own lines ("System has not been booted with systemd...") on one line.
        std::replace(error.begin(), error.end(), '\n', ' ');
        FVOutput::error("the schedule is saved, but the scheduled job could not be set up: {}", printable(error));
        // The unit files are written before they are loaded: the user can load them by hand.
        std::vector<std::string> commands = options.manualSetupCommands();
        if (!commands.empty()) {
            fmt::print(stderr, "Unit files written:\n");
            for (const std::string& file : options.writtenJobFiles()) fmt::print(stderr, "  {}\n", printable(file));
            fmt::print(stderr, "To set it up by hand, run:\n");
            for (const std::string& command : commands) fmt::print(stderr, "  {}\n", command);
        }
        return FVExitStatus::kIncomplete;
    }
    if (options.options().automationEnabled && !FVLaunchAgentManager::jobsRunWhileLoggedOut())
        FVOutput::warning("scheduled backups run only while you are logged in, as your account does not linger. "
                          "To run them at any time: loginctl enable-linger");
    return FVExitStatus::kOk;
}

// Makes the change on the configuration as it is now and writes it.
int applyChange(const Arguments& a, Configuration& config, FVLaunchAgentManager& jobs, const Change& change) {
    if (access(config.destination.c_str(), W_OK) != 0)
        return fail("cannot write to the destination " + printable(config.destination) + ": " + std::strerror(errno));
    FVDestinationLock lock;
    if (std::optional<int> status = lockForChange(lock, config.destination)) return *status;
    // The window converts an older destination's file when it opens it; so does the first change.
    FVConfigurationFile::convertLegacyFile(config.destination);
    std::string problem;
    if (!load(config, false, problem)) return fail(problem + "; nothing was changed");
    for (const std::string& skipped : config.skippedItems) FVOutput::error("{}", printable(skipped));

    BackupSetController list;
    list.setDisableSizeEvaluation(true);
    list.addBackupItems(config.content.sources);
    FVOptionsPanelController options(jobs);
    options.setAllOptions(config.content.settings);

    const bool folderPerSourceBefore = FVOptionTable::read(*options.allOptions()).options.syncMode != 0;
    std::string message;
    if (!change.apply(list, options, message))
        return change.unknownSourceIsBadInput ? refuse(message + "; nothing was changed")
                                              : fail(message + "; nothing was changed");
    if (*change.unchanged) {
        fmt::print("{}\n", message);
        return FVExitStatus::kOk;
    }
    if (a.action == "add" || (a.action == "set" && a.option == FVOptionKey::syncMode))
        if (std::optional<int> status = checkPlacement(a, config.destination, folderPerSourceBefore, list, options))
            return *status;
    // The identity names the job, so it is saved before the job is written.
    if ((change.schedule || change.hook) && options.uuid().empty())
        FVOptionTable::store(*options.allOptions(), &FVOptions::UUID, FVOptionsPanelController::makeUUID());
    if (getuid() == 0) FVOptionTable::store(*options.allOptions(), &FVOptions::isSuperuserBackup, true);

    std::string settingsPath = FVConfigurationFile::formattedPath(config.destination);
    std::string error;
    if (!FVConfigurationFile::writeSettingsForSourceConfiguration(list.arrangedObjects(), *options.allOptions(),
                                                                  settingsPath, &error))
        return fail("could not write " + printable(settingsPath) + ": " + error);
    fmt::print("{}\n", message);
    return setUpAfterWrite(change, config.destination, options);
}

}  // namespace

int main(const Arguments& a) {
    Configuration config;
    config.destination = absolutePath(a.destination);
    struct stat st {};
    if (stat(config.destination.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))
        return fail("the destination " + printable(config.destination) + " is not an existing folder");

    FVLaunchAgentManager jobs(std::make_shared<FVProcessCommandRunner>());
    if (std::optional<int> status = showOnly(a, config, jobs)) return *status;
    Change change;
    if (std::optional<int> status = plan(a, config, change)) return *status;
    return applyChange(a, config, jobs, change);
}

}  // namespace ferrovane::FVConfigCommand
