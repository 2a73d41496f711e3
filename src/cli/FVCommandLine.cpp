#include "cli/FVCommandLine.h"

#include "FVVersion.h"
#include "cli/FVCheckOverdueCommand.h"
#include "cli/FVCommandLineMode.h"
#include "cli/FVCompletionCommand.h"
#include "cli/FVConfigCommand.h"
#include "cli/FVDestinationArgument.h"
#include "cli/FVExitStatus.h"
#include "cli/FVOutput.h"
#include "cli/FVPointInTimeCommand.h"
#include "cli/FVRestoreCommand.h"
#include "cli/FVRunsCommand.h"
#include "cli/FVSearchCommand.h"
#include "cli/FVVerifyCommand.h"
#include "scheduling/FVLaunchAgentManager.h"
#include "search/FVSearchText.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>

namespace ferrovane::FVCommandLine {

namespace {

// The historic single-dash spelling; CLI11 takes single-dash names as one letter each.
constexpr const char* kHistoricNoNotifications = "-noUserNotifications";

const char* const kCommands =
    "Commands (each with its own --help):\n"
    "  ferrovane                            open the window\n"
    "  ferrovane --add PATH...              add paths as sources in the open window\n"
    "  ferrovane DESTINATION [--no-notifications | -noUserNotifications] [-n | --dry-run]\n"
    "                    [-q | -v] [--json] [--progress=auto|none|json]\n"
    "                                       back up every source configured in the destination;\n"
    "                                       the last line sums the run up\n"
    "  ferrovane --trigger=schedule|connect --job=UUID DESTINATION\n"
    "                                       the same, as the scheduled jobs start it\n"
    "  ferrovane runs DESTINATION [--json]  list the runs' archives and the last results\n"
    "  ferrovane search DESTINATION WORD... [--json]\n"
    "                                       find files by name, with their archived versions\n"
    "  ferrovane versions DESTINATION PATH [--json]\n"
    "                                       list every version of a backed-up path\n"
    "  ferrovane ls DESTINATION PATH [--at STAMP|DATE] [--json]\n"
    "                                       list a folder as a run recorded it\n"
    "  ferrovane restore DESTINATION (PATH | --all) [OPTIONS]\n"
    "                                       copy versions, folders or every source back;\n"
    "                                       with --at, a file or folder as a run recorded it\n"
    "  ferrovane verify DESTINATION [--at STAMP] [--sources] [--json]\n"
    "                                       read every file again and compare it with its record\n"
    "  ferrovane config DESTINATION (show | add | remove | set | schedule | confirm-empty | retention\n"
    "                   | exclude | exclude-from | hook) ...\n"
    "                                       edit the sources, exclusions, hooks, options and schedule\n"
    "  ferrovane check-overdue [--json] [--no-notifications]\n"
    "                                       tell which scheduled backups are overdue\n"
    "\n"
    "The destination keeps its sources and options in .ferrovane.conf in its root. One run at a\n"
    "time per destination. Exit status of a backup: 0 without errors, 2 bad usage (nothing is\n"
    "done), 75 another run or a restore is using the destination, 128 + N cancelled by signal N\n"
    "(Ctrl-C 130, SIGTERM 143, SIGHUP 129), 255 errors or an unusable configuration.\n"
    "See ferrovane(1).";

const char* const kRootDescription =
    "Ferrovane mirrors folders to a backup destination and keeps every replaced version.";

// Help in this program's words: no value types, lower-case descriptions, a blank line after the
// description.
void style(CLI::App& app) {
    app.description(app.get_description() + "\n");
    app.set_help_flag("-h,--help", "print this help and exit");
    auto formatter = std::make_shared<CLI::Formatter>();
    formatter->label("TEXT", "");
    formatter->label("REQUIRED", "(required)");
    app.formatter(formatter);
}

// The program's own options: a backup run, the window's --add, --help and --version.
struct RootCommand {
    CLI::App app{kRootDescription, "ferrovane"};
    std::string destination;
    bool noNotifications = false;
    bool dryRun = false;
    std::vector<std::string> add;
    std::string trigger;
    std::string job;
    bool quiet = false;
    bool verbose = false;
    bool json = false;
    std::string progress = "auto";

    FVRunOutput output() const {
        FVRunOutput output;
        output.verbosity = quiet     ? FVRunOutput::Verbosity::Quiet
                           : verbose ? FVRunOutput::Verbosity::Verbose
                                     : FVRunOutput::Verbosity::Normal;
        output.progress = progress == "json"   ? FVRunOutput::Progress::Json
                          : progress == "none" ? FVRunOutput::Progress::None
                                               : FVRunOutput::Progress::Automatic;
        // The JSON progress ends with the JSON summary, as the last line of the stream.
        output.json = json || output.progress == FVRunOutput::Progress::Json;
        return output;
    }

    RootCommand() {
        style(app);
        app.footer(kCommands);
        app.set_version_flag("--version", fmt::format("Ferrovane {} ({})", FERROVANE_VERSION, FERROVANE_BUILD_NUMBER),
                             "print the version and the build number");
        app.add_option("DESTINATION", destination, "absolute path of the destination to back up");
        app.add_flag("--no-notifications", noNotifications, "no desktop notification (also -noUserNotifications)");
        app.add_flag("-n,--dry-run", dryRun,
                     "list what the backup would copy, archive, remove and purge; change nothing");
        auto* quietFlag = app.add_flag("-q,--quiet", quiet, "print nothing but errors; the exit status tells the rest");
        app.add_flag("-v,--verbose", verbose, "also print each item copied, archived or deleted")->excludes(quietFlag);
        app.add_flag("--json", json, "print the run's summary as one JSON object instead of the lines for people");
        app.add_option("--progress", progress,
                       "auto (a line on a terminal, the steps elsewhere), none, or json (one JSON object a line, "
                       "ending with the JSON summary)")
            ->type_name("STYLE")
            ->check(CLI::IsMember({"auto", "none", "json"}));
        app.add_option("--trigger", trigger,
                       "what started the run, for the record of run attempts: schedule or connect (a run "
                       "the disk started is skipped when a good run is recent enough)")
            ->type_name("WHAT")
            ->check(CLI::IsMember({"schedule", "connect", "manual"}));
        app.add_option("--job", job, "the UUID of the job that started the run")->type_name("UUID");
        app.add_option("--add", add, "paths to add as sources in the window")
            ->type_name("PATH")
            ->expected(0, CLI::detail::expected_max_vector_size);
    }
};

// "search: " for a command's own arguments (its parser is named "ferrovane search"); nothing for
// the program's.
std::string commandPrefix(const CLI::App& app) {
    const std::string name = app.get_name();
    const size_t space = name.rfind(' ');
    return space == std::string::npos ? std::string() : name.substr(space + 1) + ": ";
}

// Parses; prints the help on standard output (status 0) or the reason and the usage on
// standard error (status 2), and then returns that status.
std::optional<int> parse(CLI::App& app, std::vector<std::string> arguments) {
    std::reverse(arguments.begin(), arguments.end());
    try {
        app.parse(arguments);
        return std::nullopt;
    } catch (const CLI::CallForHelp&) {
        fmt::print("{}", app.help());
        return 0;
    } catch (const CLI::CallForVersion& version) {
        fmt::print("{}\n", version.what());
        return 0;
    } catch (const CLI::ParseError& error) {
        FVOutput::error("{}{}", commandPrefix(app), FVSearchText::printable(error.what()));
        FVOutput::print(stderr, "\n{}", app.help());
        return FVExitStatus::kUsage;
    }
}

int refuse(const CLI::App& app, const std::string& why) {
    FVOutput::error("{}{}", commandPrefix(app), why);
    FVOutput::print(stderr, "\n{}", app.help());
    return FVExitStatus::kUsage;
}

CLI::Option* destinationOption(CLI::App& app, std::string& destination) {
    style(app);
    return app.add_option("DESTINATION", destination, "the backup destination: the absolute path of its root folder")->required();
}

int search(std::vector<std::string> arguments) {
    CLI::App app("Lists the files in the destination whose names contain every word (any case), each\n"
                 "with its current copy, then its archived versions by run, newest first. Exit status 0\n"
                 "with matches, 1 without, 2 for bad usage or an unreadable destination.",
                 "ferrovane search");
    std::string destination;
    std::vector<std::string> words;
    bool json = false;
    destinationOption(app, destination);
    app.add_option("WORD", words, "words of the name, several at once")->required();
    app.add_flag("--json", json, "print JSON for scripts");
    if (auto status = parse(app, std::move(arguments))) return *status;
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
    if (auto refused = FVDestinationArgument::refusal(destination)) return *refused;
    return FVSearchCommand::main(destination, text, json);
}

int versions(std::vector<std::string> arguments) {
    CLI::App app("Lists every version of the path held in the destination, newest first. The path is\n"
                 "the original path of a backed-up item or a path inside the destination. Exit status\n"
                 "0, 1 when there is no version, 2 for bad usage or a path that is neither inside the\n"
                 "destination nor below one of its sources.",
                 "ferrovane versions");
    std::string destination, path;
    bool json = false;
    destinationOption(app, destination);
    app.add_option("PATH", path, "the original path, or a path inside the destination")->required();
    app.add_flag("--json", json, "print JSON for scripts");
    if (auto status = parse(app, std::move(arguments))) return *status;
    if (auto refused = FVDestinationArgument::refusal(destination)) return *refused;
    return FVRestoreCommand::versionsMain(destination, path, json);
}

int list(std::vector<std::string> arguments) {
    CLI::App app("Lists a folder (or shows one item) as a complete run recorded it: type, mode, owner\n"
                 "and group, size, modification time and name. The path is the original path of a\n"
                 "backed-up item or a path inside the destination. Reads only the destination's record of\n"
                 "its runs. Exit status 0, 1 when there is no such run or item, 2 for bad usage.",
                 "ferrovane ls");
    std::string destination, path, at;
    bool json = false;
    destinationOption(app, destination);
    app.add_option("PATH", path, "the original path, or a path inside the destination")->required();
    app.add_option("--at", at, "the run: its stamp, a date (2026-11-20: the end of that day) or a time "
                               "(2026-11-20 14:00); default: the newest complete run")
        ->type_name("STAMP|DATE");
    app.add_flag("--json", json, "print JSON for scripts");
    if (auto status = parse(app, std::move(arguments))) return *status;
    if (auto refused = FVDestinationArgument::refusal(destination)) return *refused;
    return FVPointInTimeCommand::listMain(destination, path, at, json);
}

int restore(std::vector<std::string> arguments) {
    CLI::App app("Copies a version (the newest by default) back to its original place, or into the\n"
                 "folder given with --to; --all restores every source, below the --to root at its full\n"
                 "original path. Existing different items stop the restore before anything is written,\n"
                 "unless --replace moves them to the trash first. With --at, the file or folder comes back\n"
                 "exactly as that run recorded it, each file checked against its recorded digest; a file\n"
                 "whose bytes the destination no longer holds is named. Exit status 0 done, 1 no such\n"
                 "version, conflicts, errors or files whose bytes are gone, 2 bad usage.",
                 "ferrovane restore");
    FVRestoreCommand::RestoreArguments a;
    auto notEmpty = [](const std::string& value) { return value.empty() ? std::string("must not be empty") : ""; };
    destinationOption(app, a.destination);
    app.add_option("PATH", a.what, "what to restore: its original path or its path inside the destination");
    app.add_flag("--all", a.all, "restore every source");
    app.add_option("--version", a.version, "the version's stamp, or current (default: the newest)")
                        ->type_name("STAMP")
                        ->check(notEmpty);
    app.add_option("--at", a.at, "restore as the run of this stamp, date or time recorded it")
        ->type_name("STAMP|DATE")
        ->check(notEmpty);
    app.add_option("--to", a.to, "the folder to restore into")->type_name("FOLDER")->check(notEmpty);
    app.add_flag("--replace", a.replace, "move existing different items to the trash first");
    app.add_flag("--dry-run", a.dryRun, "list what would be restored and the conflicts; write nothing");
    if (auto status = parse(app, std::move(arguments))) return *status;
    if (auto refused = FVDestinationArgument::refusal(a.destination)) return *refused;
    if (a.all == !a.what.empty()) return refuse(app, a.all ? "--all takes no PATH" : "PATH or --all is required");
    if (a.all && !a.version.empty()) return refuse(app, "--all restores the newest versions: it takes no --version");
    if (!a.at.empty() && (a.all || !a.version.empty()))
        return refuse(app, "--at restores one path as a run recorded it: it takes no --all or --version");
    return a.at.empty() ? FVRestoreCommand::restoreMain(a) : FVPointInTimeCommand::restoreMain(a);
}

int runs(std::vector<std::string> arguments) {
    CLI::App app("Lists the runs the destination remembers, newest first: each archive stamp with the\n"
                 "items and bytes its __changed and __removed folders hold, then the last results of\n"
                 "each source; first a line when its scheduled backups are overdue. Reads only. Exit\n"
                 "status 0, 1 when the destination cannot be read.",
                 "ferrovane runs");
    std::string destination;
    bool json = false;
    destinationOption(app, destination);
    app.add_flag("--json", json, "print JSON for scripts");
    if (auto status = parse(app, std::move(arguments))) return *status;
    if (auto refused = FVDestinationArgument::refusal(destination)) return *refused;
    return FVRunsCommand::main(destination, json);
}

int verify(std::vector<std::string> arguments) {
    CLI::App app("Reads every file of the mirror and of the archives again and compares it with the\n"
                 "digest its runs recorded: damaged, missing and unexpected items are listed one per\n"
                 "line. Reads only, beside searches and restores. Exit status 0 intact, 1 anything\n"
                 "differs, 2 bad usage, 75 a run holds the destination, 255 cannot verify (no record).",
                 "ferrovane verify");
    FVVerifyCommand::Arguments a;
    destinationOption(app, a.destination);
    app.add_option("--at", a.at, "also check that every version of this run (a stamp or a date) is still held")
        ->type_name("STAMP");
    app.add_flag("--sources", a.sources, "also compare each source file's bytes with its mirror copy's record");
    app.add_flag("--json", a.json, "print JSON for scripts");
    if (auto status = parse(app, std::move(arguments))) return *status;
    if (auto refused = FVDestinationArgument::refusal(a.destination)) return *refused;
    return FVVerifyCommand::main(a);
}

int config(std::vector<std::string> arguments) {
    CLI::App app("Edits the destination's sources, options and schedule as the window would; a\n"
                 "destination without a configuration gets the defaults on its first change. Exit\n"
                 "status 0, 1 when the change could not be made or saved, 2 for bad usage or input\n"
                 "(nothing is written), 75 when a run held the destination for 10 seconds.",
                 "ferrovane config");
    FVConfigCommand::Arguments a;
    destinationOption(app, a.destination);
    app.require_subcommand(1, 1);
    app.add_subcommand("show", "print the sources with their last results, the options and the schedule")
        ->add_flag("--json", a.json, "print JSON for scripts");
    auto* add = app.add_subcommand("add", "add an absolute path to the sources, or a name to leave out everywhere");
    add->add_option("PATH", a.path, "the source, an absolute path; with --mode exclude-name also a bare name")->required();
    add->add_option("--mode", a.mode, "backup (default), disabled, exclude or exclude-name")->type_name("MODE");
    auto* exclude = app.add_subcommand("exclude", "leave out what a pattern matches below every source "
                                                  "(*.tmp, node_modules, **/build, src/*/cache, cache/)");
    exclude->add_option("PATTERN", a.patterns, "the patterns, quoted so that the shell leaves them alone")->required();
    exclude->add_flag("--remove", a.remove, "take the patterns out of the list again");
    app.add_subcommand("exclude-from", "add the patterns of a file, one a line (# comments, blank lines skipped)")
        ->add_option("FILE", a.path, "the file, or - for standard input; it is read once, not linked")->required();
    app.add_subcommand("remove", "remove a source (its mirror and archives stay)")
        ->add_option("PATH", a.path, "the source as listed")->required();
    auto* set = app.add_subcommand("set", "set a run option; yes/no options take yes or no");
    set->add_option("OPTION", a.option, "the option's name, as config show lists it")->required();
    set->add_option("VALUE", a.value, "its new value")->required();
    auto* schedule = app.add_subcommand(
        "schedule", "without more: print the schedule; back up daily HH:MM, weekly WEEKDAY HH:MM, when-connected "
                    "on [MINUTES] | off, or off (no run starts by itself)");
    schedule->add_option("WHEN", a.schedule, "daily HH:MM | weekly WEEKDAY HH:MM | when-connected on [MINUTES] | "
                                             "when-connected off | off")
        ->expected(1, 3);
    schedule->add_flag("--json", a.json, "print the schedule as JSON for scripts");
    app.add_subcommand("confirm-empty", "confirm that a source was emptied on purpose")
        ->add_option("PATH", a.path, "the source as listed")->required();
    auto* retention = app.add_subcommand("retention", "print or set which runs are kept: DAYS WEEKS MONTHS YEARS, on or off");
    retention->add_option("SETTING", a.retention, "DAYS WEEKS MONTHS YEARS (e.g. 7 4 6 5), on or off")->expected(0, 4);
    retention->add_flag("--dry-run", a.dryRun, "list what the policy would remove now; change nothing");
    auto* hook = app.add_subcommand("hook", "without more: list the hooks; set, remove or approve the command run "
                                            "before or after every run");
    hook->add_option("WHEN", a.hookKind, "before or after")->check(CLI::IsMember({"before", "after"}));
    hook->add_option("COMMAND", a.hookCommand, "the command for /bin/sh -c, as one argument");
    auto* removeHook = hook->add_flag("--remove", a.hookRemove, "remove the hook");
    hook->add_flag("--approve", a.hookApprove, "let the hook found in the configuration run as this user")
        ->excludes(removeHook);
    if (auto status = parse(app, std::move(arguments))) return *status;
    if (auto refused = FVDestinationArgument::refusal(a.destination)) return *refused;
    a.action = app.get_subcommands().front()->get_name();
    return FVConfigCommand::main(a);
}

int checkOverdue(std::vector<std::string> arguments) {
    CLI::App app("Looks at the destination of every scheduled job of this user and tells, with a desktop\n"
                 "notification that stays until dismissed (at most one a day for each destination), those\n"
                 "whose last good backup is older than their overdueDays. The timer installed with the\n"
                 "jobs runs it after login and daily. Exit status 0, overdue or not.",
                 "ferrovane check-overdue");
    style(app);
    bool json = false, quiet = false;
    app.add_flag("--json", json, "print JSON for scripts");
    app.add_flag("--no-notifications", quiet, "only print; notify nobody");
    if (auto status = parse(app, std::move(arguments))) return *status;
    return FVCheckOverdueCommand::main(json, !quiet);
}

}  // namespace

std::optional<int> run(int argc, char** argv) {
    std::vector<std::string> arguments(argv + 1, argv + argc);
    static const std::map<std::string, std::function<int(std::vector<std::string>)>> commands = {
        {"search", search}, {"versions", versions}, {"restore", restore}, {"ls", list}, {"runs", runs}, {"verify", verify},
        {"config", config}, {"check-overdue", checkOverdue}, {"__complete", FVCompletionCommand::main}};
    if (!arguments.empty())
        if (auto command = commands.find(arguments.front()); command != commands.end())
            return command->second({arguments.begin() + 1, arguments.end()});

    for (std::string& argument : arguments) {
        if (argument == "--") break;
        if (argument == kHistoricNoNotifications) argument = "--no-notifications";
    }
    RootCommand root;
    if (auto status = parse(root.app, arguments)) return *status;
    bool window = root.app.count("--add") > 0;
    if (window && (!root.destination.empty() || root.noNotifications || root.dryRun || !root.trigger.empty() ||
                   root.quiet || root.verbose || root.json || root.progress != "auto"))
        return refuse(root.app, "--add opens the window: it takes no destination");
    if (window || arguments.empty()) return std::nullopt;
    if (root.destination.empty()) return refuse(root.app, "a destination is required");
    if (auto refused = FVDestinationArgument::refusal(root.destination)) return *refused;
    if (!root.job.empty() && !FVLaunchAgentManager::isValidJobIdentifier(root.job))
        return refuse(root.app, "--job takes a UUID: " + FVSearchText::printable(root.job));
    FVJobTrigger trigger = root.trigger == "schedule"  ? FVJobTrigger::Schedule
                           : root.trigger == "connect" ? FVJobTrigger::Connect
                                                       : FVJobTrigger::Manual;
    return FVCommandLineMode::main(root.destination, root.noNotifications, root.dryRun, trigger, root.job, root.output());
}

int usageError(const std::string& why) {
    RootCommand root;
    return refuse(root.app, why);
}

}  // namespace ferrovane::FVCommandLine
