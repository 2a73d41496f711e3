#include "scheduling/FVLaunchAgentManager.h"

#include "platform/FVHomeDirectory.h"
#include "platform/FVProgramFiles.h"

#include "engine/config/FVConfigurationFile.h"
#include "fs/FVAtomicFile.h"
#include "fs/FVDirectoryEntries.h"
#include "fs/FVFileStatus.h"
#include "fs/FVItemCreation.h"
#include "fs/FVMountTable.h"
#include "fs/FVRemovals.h"
#include "fs/FVText.h"
#include "platform/FVSystemLog.h"
#include "scheduling/FVOverdueCheckUnit.h"
#include "search/FVSearchText.h"

#include <dirent.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

namespace ferrovane {

namespace {

constexpr const char* kClassName = "FVLaunchAgentManager";

bool hasPrefix(std::string_view text, std::string_view prefix) { return text.substr(0, prefix.size()) == prefix; }
bool hasSuffix(std::string_view text, std::string_view suffix) {
    return text.size() >= suffix.size() && text.substr(text.size() - suffix.size()) == suffix;
}

// Creates the folder and any missing parents: ~/.config/systemd does not exist on every system.
bool makeDirectories(const std::string& path) {
    std::string partial;
    size_t i = 0;
    while (i < path.size()) {
        size_t end = path.find('/', i + 1);
        if (end == std::string::npos) end = path.size();
        partial = path.substr(0, end);
        if (!partial.empty() && partial != "/" && FVItemCreation::mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) return false;
        i = end;
    }
    struct stat st {};
    return FVFileStatus::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// A unit name part and a Description stay plain text without any quoting.
bool isPlainLabel(const std::string& label) {
    return !label.empty() && std::all_of(label.begin(), label.end(), [](unsigned char c) {
        return std::isalnum(c) || c == '.' || c == '-' || c == '_';
    });
}

// One word of a systemd command line without quotes: every byte outside a small safe set becomes
// \xNN, so that blanks, quotes, backslashes, semicolons and line breaks can neither split the word
// nor end the line. "%" is doubled because specifiers are expanded after unescaping; "$" needs
// nothing more because the command carries the ":" prefix (no variable substitution).
std::string execWord(std::string_view word) {
    const bool utf8 = FVText::validUTF8(word) == word;
    std::string out;
    for (char ch : word) {
        unsigned char c = static_cast<unsigned char>(ch);
        if (std::isalnum(c) || std::strchr("/._-+,@=:~", c)) out += ch;
        else if (c == '%') out += "%%";
        else if (c >= 0x80 && utf8) out += ch;
        else out += fmt::format("\\x{:02x}", c);
    }
    return out;
}

// A path as a value that systemd takes literally (PathExists=), or nothing when no line can
// carry it: systemd refuses text that is not UTF-8, and a line break would end the value.
std::optional<std::string> literalPath(std::string_view path) {
    if (FVText::validUTF8(path) != path) return std::nullopt;
    std::string out;
    for (char c : path) {
        if ((static_cast<unsigned char>(c) < 0x20 && c != '\t') || c == 0x7f) return std::nullopt;
        out += c == '%' ? std::string("%%") : std::string(1, c);
    }
    return out;
}

// A path in a list that systemd splits at blanks and unquotes (RequiresMountsFor=): in double
// quotes, with quotes and backslashes escaped. "\x20" would not do: that list is not C-unescaped.
// A path no line can carry (not UTF-8, a line break) is replaced by its deepest folder that one
// can: the mounts on the way there are still waited for.
std::optional<std::string> quotedPath(std::string_view path) {
    std::optional<std::string> literal = literalPath(path);
    while (!literal && path.size() > 1) {
        path = path.substr(0, std::max<size_t>(path.find_last_of('/'), 1));
        literal = literalPath(path);
    }
    if (!literal) return std::nullopt;
    std::string out = "\"";
    for (char c : *literal) {
        if (c == '"' || c == '\\') out += '\\';
        out += c;
    }
    return out + "\"";
}

// Free text for Description=: printable, and "%" doubled because specifiers are expanded.
std::string descriptionText(std::string_view text) {
    std::string out;
    for (char c : FVSearchText::printable(text)) out += c == '%' ? std::string("%%") : std::string(1, c);
    return out;
}

constexpr std::string_view kVerifySuffix = "-verify";
constexpr std::string_view kConnectSuffix = "-connect";

std::string_view suffixOf(FVJobKind kind) {
    switch (kind) {
    case FVJobKind::Verify: return kVerifySuffix;
    case FVJobKind::Connect: return kConnectSuffix;
    case FVJobKind::Backup: break;
    }
    return "";
}

std::vector<std::string> triggerArguments(const std::string& uuid, FVJobKind kind) {
    if (kind == FVJobKind::Verify) return {"verify"};
    return {kind == FVJobKind::Connect ? "--trigger=connect" : "--trigger=schedule", "--job=" + uuid};
}

const char* const kWeekdayNames[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};

}  // namespace

FVLaunchAgentManager::FVLaunchAgentManager(std::shared_ptr<FVCommandRunner> runner, std::string jobDirectory,
                                           std::string executablePath)
    : runner_(std::move(runner)),
      jobDirectory_(std::move(jobDirectory)),
      executablePath_(executablePath.empty() ? FVProgramFiles::commandLineFor(FVProgramFiles::running())
                                              : std::move(executablePath)) {}

std::string FVLaunchAgentManager::jobDirectory() const {
    std::string directory = jobDirectory_;
    if (directory.empty()) {
        if (const char* override = std::getenv("FERROVANE_JOB_DIRECTORY"); override && *override)
            directory = override;
        else
            directory = getuid() == 0 ? "/etc/systemd/system/" : homeDirectory() + "/.config/systemd/user/";
    }
    if (directory.back() != '/') directory += '/';
    return directory;
}

std::string FVLaunchAgentManager::jobLabel(const std::string& uuid, FVJobKind kind) {
    return labelPrefix + uuid + std::string(suffixOf(kind));
}

std::string FVLaunchAgentManager::systemdExecWord(std::string_view word) { return execWord(word); }

bool FVLaunchAgentManager::isValidJobIdentifier(const std::string& uuid) {
    return !uuid.empty() && std::all_of(uuid.begin(), uuid.end(),
                                        [](unsigned char c) { return std::isalnum(c) || c == '-'; });
}

std::vector<std::string> FVLaunchAgentManager::jobFilePaths(const std::string& uuid, FVJobKind kind) const {
    std::string base = jobDirectory() + jobLabel(uuid, kind);
    return {base + ".service", base + (kind == FVJobKind::Connect ? ".path" : ".timer")};
}

std::string FVLaunchAgentManager::triggeringUnit(const std::string& uuid, FVJobKind kind) {
    return jobLabel(uuid, kind) + (kind == FVJobKind::Connect ? ".path" : ".timer");
}

bool FVLaunchAgentManager::systemdCanStart(const std::string& executable) {
    return !executable.empty() && executable.front() == '/' &&
           std::none_of(executable.begin(), executable.end(), [](unsigned char c) {
               return c < 0x20 || c == 0x7f || c == '"' || c == '\'' || c == '\\';
           });
}

std::vector<std::string> FVLaunchAgentManager::systemctl(std::vector<std::string> args) {
    std::vector<std::string> argv{"systemctl"};
    if (getuid() != 0) argv.push_back("--user");
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

void FVLaunchAgentManager::unloadJob(const std::string& uuid, FVJobKind kind) {
    runner_->run(systemctl({"disable", "--now", triggeringUnit(uuid, kind)}));
    // The connect service is only unlinked from its mount, not stopped: stopping it would cancel a
    // backup in progress, and while it stays active the reloaded path unit does not start it again.
    if (kind == FVJobKind::Connect) runner_->run(systemctl({"disable", jobLabel(uuid, kind) + ".service"}));
}

std::vector<std::vector<std::string>> FVLaunchAgentManager::loadCommands(const std::string& uuid, FVJobKind kind) const {
    std::vector<std::vector<std::string>> commands{systemctl({"daemon-reload"}),
                                                   systemctl({"enable", "--now", triggeringUnit(uuid, kind)})};
    // Linked to the mount unit, which starts it when the disk is mounted; the path unit starts it now.
    if (kind == FVJobKind::Connect) commands.push_back(systemctl({"enable", jobLabel(uuid, kind) + ".service"}));
    return commands;
}

bool FVLaunchAgentManager::loadJob(const std::string& uuid, FVJobKind kind, std::string* error) {
    FVCommandResult result;
    for (const std::vector<std::string>& command : loadCommands(uuid, kind)) {
        result = runner_->run(command);
        if (!result.succeeded()) break;
    }
    if (!result.succeeded() && error) *error = "loading the job failed: " + result.error;
    return result.succeeded();
}

bool FVLaunchAgentManager::isJobPresent(const std::string& uuid, FVJobKind kind) const {
    std::vector<std::string> paths = jobFilePaths(uuid, kind);
    return std::all_of(paths.begin(), paths.end(), FVFileStatus::pathExists);
}

bool FVLaunchAgentManager::isJobEnabled(const std::string& uuid, FVJobKind kind) const {
    if (!isJobPresent(uuid, kind)) return false;
    const char* target = kind == FVJobKind::Connect ? "paths.target.wants/" : "timers.target.wants/";
    return FVFileStatus::pathExists(jobDirectory() + target + triggeringUnit(uuid, kind));
}

std::optional<std::string> FVLaunchAgentManager::onCalendarExpression(const FVJobSchedule& schedule,
                                                                      std::string* error) {
    auto fail = [&](std::string message) -> std::optional<std::string> {
        if (error) *error = std::move(message);
        return std::nullopt;
    };
    if (schedule.monthly) return std::string("monthly");
    if (schedule.hour && (*schedule.hour < 0 || *schedule.hour > 23))
        return fail(fmt::format("the hour {} is not between 0 and 23", *schedule.hour));
    if (schedule.minute && (*schedule.minute < 0 || *schedule.minute > 59))
        return fail(fmt::format("the minute {} is not between 0 and 59", *schedule.minute));
    std::string day;
    if (schedule.weekday && *schedule.weekday != -1) {
        if (*schedule.weekday < 0 || *schedule.weekday > 7)
            return fail(fmt::format("the weekday {} is not between 0 and 7", *schedule.weekday));
        day = std::string(kWeekdayNames[*schedule.weekday]) + " ";
    }
    // An absent hour or minute means every hour or minute.
    std::string hour = schedule.hour ? fmt::format("{:02}", *schedule.hour) : "*";
    std::string minute = schedule.minute ? fmt::format("{:02}", *schedule.minute) : "*";
    return day + "*-*-* " + hour + ":" + minute + ":00";
}

std::string FVLaunchAgentManager::mountUnitName(const std::string& mountPoint) {
    std::string path = FVText::standardizedPath(mountPoint);
    while (!path.empty() && path.front() == '/') path.erase(0, 1);
    if (path.empty()) return "-.mount";
    std::string name;
    for (size_t i = 0; i < path.size(); ++i) {
        unsigned char c = static_cast<unsigned char>(path[i]);
        if (c == '/') name += '-';
        else if (std::isalnum(c) || c == ':' || c == '_' || (c == '.' && i > 0)) name += static_cast<char>(c);
        else name += fmt::format("\\x{:02x}", c);
    }
    return name + ".mount";
}

std::optional<std::string> FVLaunchAgentManager::systemdServiceUnit(const std::string& uuid,
                                                                    const std::string& executable,
                                                                    const std::string& destination,
                                                                    FVJobKind kind, const std::string& mountPoint,
                                                                    std::string* error) {
    auto fail = [&](std::string message) -> std::optional<std::string> {
        if (error) *error = std::move(message);
        return std::nullopt;
    };
    if (!isValidJobIdentifier(uuid)) return fail("\"" + uuid + "\" is not a usable job identifier");
    if (!systemdCanStart(executable)) return fail("systemd cannot start the program at \"" + executable + "\"");
    if (destination.empty() || destination.front() != '/')
        return fail("the destination \"" + destination + "\" is not an absolute path");
    std::string command = execWord(executable);
    for (const std::string& argument : triggerArguments(uuid, kind)) command += " " + argument;
    command += " " + execWord(destination);

    std::string unit = "[Unit]\nDescription=Ferrovane ";
    switch (kind) {
    case FVJobKind::Backup: unit += "scheduled backup to "; break;
    case FVJobKind::Verify: unit += "scheduled verify of "; break;
    case FVJobKind::Connect: unit += "backup to "; break;
    }
    unit += descriptionText(destination) + (kind == FVJobKind::Connect ? " when its disk is connected\n" : "\n");
    if (kind == FVJobKind::Connect) {
        if (mountPoint.empty() || mountPoint.front() != '/')
            return fail("the disk that holds " + destination + " is not mounted");
        // The path unit starts this service whenever it is inactive while the configuration file
        // exists, so the service stays active after its run (RemainAfterExit) and a failed run
        // counts as done ("-"): one run per connection, not a loop. Bound to the disk's mount,
        // it stops when the disk goes, and the next connection starts it again. On a file system
        // that stays mounted that is one run per login or boot; the calendar does the rest.
        // inotify sees no mount: a disk mounted on a folder that already exists is noticed
        // through the mount unit, which starts the units that want it when it appears.
        const std::string mount = mountUnitName(mountPoint);
        if (mount.size() > 255) return fail("systemd cannot name the mount of " + mountPoint + ": its path is too long");
        unit += "BindsTo=" + mount + "\nAfter=" + mount + "\n";
    }
    // Waits for a mount the system knows (an fstab entry), so that it is mounted first. A disk
    // that is not there does not stop the run: the run records that it was not connected.
    if (std::optional<std::string> quoted = quotedPath(destination)) unit += "RequiresMountsFor=" + *quoted + "\n";
    // A backup gives way to whatever the user is doing on the machine.
    unit += "\n"
            "[Service]\n"
            "Type=oneshot\n";
    if (kind == FVJobKind::Connect) unit += "RemainAfterExit=yes\n";
    unit += "Nice=19\n"
            "IOSchedulingClass=idle\n";
    // A verification has nothing to record: an absent destination skips it.
    if (kind == FVJobKind::Verify) unit += "ExecCondition=:/usr/bin/test -d " + execWord(destination) + "\n";
    unit += std::string("ExecStart=") + (kind == FVJobKind::Connect ? "-:" : ":") + command + "\n";
    if (kind == FVJobKind::Connect) unit += "\n[Install]\nWantedBy=" + mountUnitName(mountPoint) + "\n";
    return unit;
}

std::optional<std::string> FVLaunchAgentManager::systemdPathUnit(const std::string& uuid, const std::string& destination,
                                                                 std::string* error) {
    if (!isValidJobIdentifier(uuid)) {
        if (error) *error = "\"" + uuid + "\" is not a usable job identifier";
        return std::nullopt;
    }
    std::optional<std::string> watched = literalPath(FVConfigurationFile::formattedPath(destination));
    if (!watched) {
        if (error) *error = "systemd cannot watch the destination \"" + FVSearchText::printable(destination) +
                            "\": its path holds line breaks or is not UTF-8 text";
        return std::nullopt;
    }
    const std::string label = jobLabel(uuid, FVJobKind::Connect);
    return "[Unit]\n"
           "Description=Ferrovane waits for the disk of " + descriptionText(destination) + "\n"
           "\n"
           "[Path]\n"
           "PathExists=" + *watched + "\n"
           "Unit=" + label + ".service\n"
           "\n"
           "[Install]\n"
           "WantedBy=paths.target\n";
}

std::optional<std::string> FVLaunchAgentManager::systemdTimerUnit(const std::string& label,
                                                                  const FVJobSchedule& schedule, std::string* error) {
    if (!isPlainLabel(label)) {
        if (error) *error = "the job label \"" + label + "\" is not plain text";
        return std::nullopt;
    }
    auto calendar = onCalendarExpression(schedule, error);
    if (!calendar) return std::nullopt;
    return "[Unit]\n"
           "Description=Ferrovane schedule " + label + "\n"
           "\n"
           "[Timer]\n"
           "OnCalendar=" + *calendar + "\n"
           "Persistent=true\n"
           "Unit=" + label + ".service\n"
           "\n"
           "[Install]\n"
           "WantedBy=timers.target\n";
}

bool FVLaunchAgentManager::writeJobFiles(const std::string& uuid, FVJobKind kind, const std::string& destination,
                                         const FVJobSchedule& schedule, std::string* error) {
    const std::string mountPoint = kind == FVJobKind::Connect ? FVMountTable::mountPointOfPath(destination) : "";
    auto service = systemdServiceUnit(uuid, executablePath_, destination, kind, mountPoint, error);
    if (!service) return false;
    auto trigger = kind == FVJobKind::Connect ? systemdPathUnit(uuid, destination, error)
                                              : systemdTimerUnit(jobLabel(uuid, kind), schedule, error);
    if (!trigger) return false;
    const std::vector<std::string> contents = {*service, *trigger};

    std::string directory = jobDirectory();
    if (!makeDirectories(directory)) {
        std::string message = "Creation of " + directory + " failed!";
        FVSystemLog::error(kClassName, message + " (" + std::strerror(errno) + ")");
        if (error) *error = message;
        return false;
    }
    std::vector<std::string> paths = jobFilePaths(uuid, kind);
    for (size_t i = 0; i < paths.size(); ++i) {
        std::string reason;
        if (!FVAtomicFile::write(paths[i], contents[i], &reason)) {
            std::string message = "Unit write failed!";
            FVSystemLog::error(kClassName, message + " " + reason);
            if (error) *error = message + " " + reason;
            return false;
        }
    }
    return true;
}

bool FVLaunchAgentManager::writeJob(const std::string& uuid, const std::string& destination,
                                    const FVJobSchedule& schedule, std::string* error) {
    return writeJob(uuid, FVJobKind::Backup, destination, schedule, error);
}

bool FVLaunchAgentManager::writeVerifyJob(const std::string& uuid, const std::string& destination, std::string* error) {
    FVJobSchedule monthly;
    monthly.monthly = true;
    return writeJob(uuid, FVJobKind::Verify, destination, monthly, error);
}

bool FVLaunchAgentManager::writeConnectJob(const std::string& uuid, const std::string& destination,
                                           std::string* error) {
    return writeJob(uuid, FVJobKind::Connect, destination, FVJobSchedule{}, error);
}

bool FVLaunchAgentManager::writeJob(const std::string& uuid, FVJobKind kind, const std::string& destination,
                                    const FVJobSchedule& schedule, std::string* error) {
    if (!isValidJobIdentifier(uuid)) {
        if (error) *error = "\"" + uuid + "\" is not a usable job identifier";
        return false;
    }
    if (!writeJobFiles(uuid, kind, destination, schedule, error)) return false;
    // Reloading is how a changed time takes effect; the job may not have been loaded before.
    unloadJob(uuid, kind);
    if (!loadJob(uuid, kind, error)) return false;
    // Scheduled backups come with the check that tells when they stop; its failure is logged.
    FVOverdueCheckUnit(runner_, jobDirectory(), executablePath_).install();
    return true;
}

bool FVLaunchAgentManager::jobsRunWhileLoggedOut() {
    if (getuid() == 0) return true;
    // logind keeps one file per lingering account here ("loginctl enable-linger" creates it).
    const passwd* account = getpwuid(getuid());
    return account && FVFileStatus::pathExists(std::string("/var/lib/systemd/linger/") + account->pw_name);
}

void FVLaunchAgentManager::removeJob(const std::string& uuid, FVJobKind kind) {
    if (!isValidJobIdentifier(uuid)) return;
    std::vector<std::string> paths = jobFilePaths(uuid, kind);
    if (std::none_of(paths.begin(), paths.end(), FVFileStatus::pathExists)) return;
    unloadJob(uuid, kind);
    for (const std::string& path : paths) FVRemovals::unlink(path.c_str());
    // Without a reload the service manager keeps the deleted units loaded.
    runner_->run(systemctl({"daemon-reload"}));
    if (jobIdentifiers().empty())
        FVOverdueCheckUnit(runner_, jobDirectory(), executablePath_).remove();
}

std::vector<std::string> FVLaunchAgentManager::jobIdentifiers() const {
    std::vector<std::string> identifiers;
    DIR* dir = FVDirectoryEntries::opendir(jobDirectory().c_str());
    if (!dir) return identifiers;
    const std::vector<std::string> extensions{".service", ".timer", ".path"};
    while (dirent* entry = FVDirectoryEntries::readdir(dir)) {
        std::string_view name = entry->d_name;
        if (!hasPrefix(name, labelPrefix)) continue;
        for (const std::string& extension : extensions) {
            if (!hasSuffix(name, extension)) continue;
            std::string_view id = name.substr(std::strlen(labelPrefix));
            id.remove_suffix(extension.size());
            for (std::string_view suffix : {kVerifySuffix, kConnectSuffix})
                if (hasSuffix(id, suffix)) id.remove_suffix(suffix.size());
            if (isValidJobIdentifier(std::string(id))) identifiers.emplace_back(id);
        }
    }
    FVDirectoryEntries::closedir(dir);
    std::sort(identifiers.begin(), identifiers.end());
    identifiers.erase(std::unique(identifiers.begin(), identifiers.end()), identifiers.end());
    return identifiers;
}

void FVLaunchAgentManager::cleanJobsWithoutIDs(const std::vector<std::string>& uuids) {
    for (const std::string& id : jobIdentifiers()) {
        if (std::find(uuids.begin(), uuids.end(), id) != uuids.end()) continue;
        for (FVJobKind kind : {FVJobKind::Backup, FVJobKind::Verify, FVJobKind::Connect}) removeJob(id, kind);
    }
}

}  // namespace ferrovane
