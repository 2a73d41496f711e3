#include "scheduling/FVLaunchAgentManager.h"

#include "platform/FVHomeDirectory.h"

#include "engine/FVAdditions.h"
#include "fs/FVAtomicFile.h"
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
constexpr const char* kLaunchctl = "/bin/launchctl";

std::string ownExecutable() {
    char buffer[4096];
    ssize_t length = readlink("/proc/self/exe", buffer, sizeof buffer);
    if (length <= 0 || static_cast<size_t>(length) >= sizeof buffer) return "";
    return std::string(buffer, static_cast<size_t>(length));
}

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
        if (!partial.empty() && partial != "/" && mkdir(partial.c_str(), 0755) != 0 && errno != EEXIST) return false;
        i = end;
    }
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
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

// A path that needs no escaping at all may also name the mounts the run waits for; that list is
// split at blanks and unquoted, so any other path is left to the start-up check alone.
bool isPlainPath(std::string_view path) { return execWord(path).find('\\') == std::string::npos; }

// Free text for Description=: printable, and "%" doubled because specifiers are expanded.
std::string descriptionText(std::string_view text) {
    std::string out;
    for (char c : FVSearchText::printable(text)) out += c == '%' ? std::string("%%") : std::string(1, c);
    return out;
}

constexpr std::string_view kVerifySuffix = "-verify";

const char* const kWeekdayNames[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};

}  // namespace

FVJobFormat FVLaunchAgentManager::platformFormat() {
#ifdef __APPLE__
    return FVJobFormat::Launchd;
#else
    return FVJobFormat::Systemd;
#endif
}

FVLaunchAgentManager::FVLaunchAgentManager(std::shared_ptr<FVCommandRunner> runner, FVJobFormat format,
                                           std::string jobDirectory, std::string executablePath)
    : runner_(std::move(runner)),
      format_(format),
      jobDirectory_(std::move(jobDirectory)),
      executablePath_(executablePath.empty() ? ownExecutable() : std::move(executablePath)) {}

std::string FVLaunchAgentManager::jobDirectory() const {
    std::string directory = jobDirectory_;
    if (directory.empty()) {
        if (const char* override = std::getenv("FERROVANE_JOB_DIRECTORY"); override && *override)
            directory = override;
        else if (format_ == FVJobFormat::Systemd)
            directory = getuid() == 0 ? "/etc/systemd/system/" : homeDirectory() + "/.config/systemd/user/";
        else
            directory = getuid() == 0 ? "/Library/LaunchDaemons/" : homeDirectory() + "/Library/LaunchAgents/";
    }
    if (directory.back() != '/') directory += '/';
    return directory;
}

std::string FVLaunchAgentManager::jobLabel(const std::string& uuid, FVJobKind kind) {
    return labelPrefix + uuid + std::string(kind == FVJobKind::Verify ? kVerifySuffix : "");
}

std::string FVLaunchAgentManager::systemdExecWord(std::string_view word) { return execWord(word); }

bool FVLaunchAgentManager::isValidJobIdentifier(const std::string& uuid) {
    return !uuid.empty() && std::all_of(uuid.begin(), uuid.end(),
                                        [](unsigned char c) { return std::isalnum(c) || c == '-'; });
}

std::vector<std::string> FVLaunchAgentManager::jobFilePaths(const std::string& uuid, FVJobKind kind) const {
    std::string base = jobDirectory() + jobLabel(uuid, kind);
    if (format_ == FVJobFormat::Launchd) return {base + ".plist"};
    return {base + ".service", base + ".timer"};
}

std::vector<std::string> FVLaunchAgentManager::systemctl(std::vector<std::string> args) const {
    std::vector<std::string> argv{"systemctl"};
    if (getuid() != 0) argv.push_back("--user");
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

void FVLaunchAgentManager::unloadJob(const std::string& uuid, FVJobKind kind) {
    if (format_ == FVJobFormat::Launchd) runner_->run({kLaunchctl, "unload", jobFilePaths(uuid, kind).front()});
    else runner_->run(systemctl({"disable", "--now", jobLabel(uuid, kind) + ".timer"}));
}

bool FVLaunchAgentManager::loadJob(const std::string& uuid, FVJobKind kind, std::string* error) {
    FVCommandResult result;
    if (format_ == FVJobFormat::Launchd) {
        result = runner_->run({kLaunchctl, "load", jobFilePaths(uuid, kind).front()});
    } else {
        result = runner_->run(systemctl({"daemon-reload"}));
        if (result.succeeded())
            result = runner_->run(systemctl({"enable", "--now", jobLabel(uuid, kind) + ".timer"}));
    }
    if (!result.succeeded() && error) *error = "loading the job failed: " + result.error;
    return result.succeeded();
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
    // An absent hour or minute means every hour or minute, as an absent launchd key does.
    std::string hour = schedule.hour ? fmt::format("{:02}", *schedule.hour) : "*";
    std::string minute = schedule.minute ? fmt::format("{:02}", *schedule.minute) : "*";
    return day + "*-*-* " + hour + ":" + minute + ":00";
}

std::optional<std::string> FVLaunchAgentManager::systemdServiceUnit(const std::string& label,
                                                                    const std::string& executable,
                                                                    const std::string& destination,
                                                                    FVJobKind kind, std::string* error) {
    auto fail = [&](std::string message) -> std::optional<std::string> {
        if (error) *error = std::move(message);
        return std::nullopt;
    };
    if (!isPlainLabel(label)) return fail("the job label \"" + label + "\" is not plain text");
    // systemd refuses quotes, backslashes and control characters in the program path itself.
    bool executableOk = !executable.empty() && executable.front() == '/' &&
                        std::none_of(executable.begin(), executable.end(), [](unsigned char c) {
                            return c < 0x20 || c == 0x7f || c == '"' || c == '\'' || c == '\\';
                        });
    if (!executableOk) return fail("systemd cannot start the program at \"" + executable + "\"");
    if (destination.empty() || destination.front() != '/')
        return fail("the destination \"" + destination + "\" is not an absolute path");
    const bool verify = kind == FVJobKind::Verify;
    std::string unit = "[Unit]\n"
                       "Description=Ferrovane scheduled " + std::string(verify ? "verify of " : "backup to ") +
                       descriptionText(destination) + "\n";
    // Waits for a mount the system knows (an fstab entry), so that it is mounted first.
    if (isPlainPath(destination)) unit += "RequiresMountsFor=" + execWord(destination) + "\n";
    // A backup gives way to whatever the user is doing on the machine.
    unit += "\n"
            "[Service]\n"
            "Type=oneshot\n"
            "Nice=19\n"
            "IOSchedulingClass=idle\n"
            // An absent destination (a drive not plugged in) skips the run rather than failing it.
            "ExecCondition=:/usr/bin/test -d " + execWord(destination) + "\n"
            "ExecStart=:" + execWord(executable) + (verify ? " verify " : " ") + execWord(destination) + "\n";
    return unit;
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

PlistDict FVLaunchAgentManager::launchdJob(const std::string& label, const std::string& executable,
                                           const std::string& destination, const FVJobSchedule& schedule,
                                           FVJobKind kind) {
    auto interval = std::make_shared<PlistDict>();
    if (schedule.monthly) {
        interval->set("Day", int64_t{1});
        interval->set("Hour", int64_t{0});
        interval->set("Minute", int64_t{0});
    } else {
        if (schedule.hour) interval->set("Hour", *schedule.hour);
        if (schedule.minute) interval->set("Minute", *schedule.minute);
        if (schedule.weekday && *schedule.weekday != -1) interval->set("Weekday", *schedule.weekday);
    }
    auto arguments = std::make_shared<PlistArray>(kind == FVJobKind::Verify
                                                      ? PlistArray{executable, std::string("verify"), destination}
                                                      : PlistArray{executable, destination});
    PlistDict job;
    job.set("Label", label);
    job.set("ProgramArguments", arguments);
    job.set("StartCalendarInterval", interval);
    return job;
}

bool FVLaunchAgentManager::writeJobFiles(const std::string& uuid, FVJobKind kind, const std::string& destination,
                                         const FVJobSchedule& schedule, std::string* error) {
    std::string label = jobLabel(uuid, kind);
    std::vector<std::string> contents;
    if (format_ == FVJobFormat::Launchd) {
        auto job = std::make_shared<PlistDict>(launchdJob(label, executablePath_, destination, schedule, kind));
        contents.push_back(serializePlistXML(PlistValue(job)));
    } else {
        auto service = systemdServiceUnit(label, executablePath_, destination, kind, error);
        if (!service) return false;
        auto timer = systemdTimerUnit(label, schedule, error);
        if (!timer) return false;
        contents = {*service, *timer};
    }

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
            std::string message = format_ == FVJobFormat::Launchd ? "Plist write failed!" : "Unit write failed!";
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
    if (format_ == FVJobFormat::Systemd) FVOverdueCheckUnit(runner_, jobDirectory(), executablePath_).install();
    return true;
}

bool FVLaunchAgentManager::jobsRunWhileLoggedOut() {
    if (platformFormat() != FVJobFormat::Systemd || getuid() == 0) return true;
    // logind keeps one file per lingering account here ("loginctl enable-linger" creates it).
    const passwd* account = getpwuid(getuid());
    return account && FVFileManager::pathExists(std::string("/var/lib/systemd/linger/") + account->pw_name);
}

void FVLaunchAgentManager::removeJob(const std::string& uuid, FVJobKind kind) {
    if (!isValidJobIdentifier(uuid)) return;
    std::vector<std::string> paths = jobFilePaths(uuid, kind);
    if (std::none_of(paths.begin(), paths.end(), FVFileManager::pathExists)) return;
    unloadJob(uuid, kind);
    for (const std::string& path : paths) unlink(path.c_str());
    // Without a reload the service manager keeps the deleted units loaded.
    if (format_ == FVJobFormat::Systemd) runner_->run(systemctl({"daemon-reload"}));
    if (format_ == FVJobFormat::Systemd && jobIdentifiers().empty())
        FVOverdueCheckUnit(runner_, jobDirectory(), executablePath_).remove();
}

std::vector<std::string> FVLaunchAgentManager::jobIdentifiers() const {
    std::vector<std::string> identifiers;
    DIR* dir = opendir(jobDirectory().c_str());
    if (!dir) return identifiers;
    const std::vector<std::string> extensions =
        format_ == FVJobFormat::Launchd ? std::vector<std::string>{".plist"}
                                        : std::vector<std::string>{".service", ".timer"};
    while (dirent* entry = readdir(dir)) {
        std::string_view name = entry->d_name;
        if (!hasPrefix(name, labelPrefix)) continue;
        for (const std::string& extension : extensions) {
            if (!hasSuffix(name, extension)) continue;
            std::string_view id = name.substr(std::strlen(labelPrefix));
            id.remove_suffix(extension.size());
            if (hasSuffix(id, kVerifySuffix)) id.remove_suffix(kVerifySuffix.size());
            if (isValidJobIdentifier(std::string(id))) identifiers.emplace_back(id);
        }
    }
    closedir(dir);
    std::sort(identifiers.begin(), identifiers.end());
    identifiers.erase(std::unique(identifiers.begin(), identifiers.end()), identifiers.end());
    return identifiers;
}

void FVLaunchAgentManager::cleanJobsWithoutIDs(const std::vector<std::string>& uuids) {
    for (const std::string& id : jobIdentifiers()) {
        if (std::find(uuids.begin(), uuids.end(), id) != uuids.end()) continue;
        for (FVJobKind kind : {FVJobKind::Backup, FVJobKind::Verify}) removeJob(id, kind);
    }
}

}  // namespace ferrovane
