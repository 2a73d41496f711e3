#pragma once
// Scheduled runs: per destination UUID, a job that starts "ferrovane --trigger=schedule
// --job=<UUID> <destination>" at a calendar time, optionally one that starts "ferrovane verify
// <destination>" monthly, and optionally one that starts "ferrovane --trigger=connect
// --job=<UUID> <destination>" when the destination's disk is connected. A job is a systemd
// service plus a timer (or, for the disk, a path unit), loaded with systemctl. Jobs of other
// programs are never touched: everything here is restricted to the label prefix.

#include "platform/FVCommandRunner.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ferrovane {

// What a job runs: a calendar backup, a verification of the destination (its label ends in
// "-verify"), or a backup when the destination's disk is connected (its label ends in "-connect").
enum class FVJobKind { Backup, Verify, Connect };

struct FVJobSchedule {
    std::optional<int64_t> hour;
    std::optional<int64_t> minute;
    // 0 and 7 Sunday, 1 Monday ... 6 Saturday; -1 every day.
    std::optional<int64_t> weekday;
    // On the first of each month at midnight; hour, minute and weekday are not used then.
    bool monthly = false;
};

class FVLaunchAgentManager {
public:
    static constexpr const char* labelPrefix = "com.quillmarsh.ferrovane.";

    // jobDirectory and executablePath replace the defaults when not empty: the directory by real
    // user id (or $FERROVANE_JOB_DIRECTORY), and this process's own executable (from the window:
    // the command line beside it).
    explicit FVLaunchAgentManager(std::shared_ptr<FVCommandRunner> runner, std::string jobDirectory = {},
                                  std::string executablePath = {});

    // Decided afresh on every call, as the user id may change between calls.
    std::string jobDirectory() const;
    static std::string jobLabel(const std::string& uuid, FVJobKind kind = FVJobKind::Backup);
    // A UUID may name files and units only when it is letters, digits and dashes.
    static bool isValidJobIdentifier(const std::string& uuid);
    // One word of an ExecStart= line, every byte that could split or end it escaped.
    static std::string systemdExecWord(std::string_view word);
    // Whether systemd can start the program at this path: absolute, and without the quotes,
    // backslashes and control characters it refuses in the program path itself.
    static bool systemdCanStart(const std::string& executable);
    // systemctl with args, for the user's own service manager unless run as root.
    static std::vector<std::string> systemctl(std::vector<std::string> args);
    // The unit that systemctl enables: the timer, or the path unit of a connect job.
    static std::string triggeringUnit(const std::string& uuid, FVJobKind kind);

    // Writes the job and (re)loads it. True when the files were written and loading succeeded;
    // otherwise false with the reason in error (also sent to the system log).
    bool writeJob(const std::string& uuid, const std::string& destination, const FVJobSchedule& schedule,
                  std::string* error = nullptr);
    // The monthly verification of the destination, written and loaded like the backup's job.
    bool writeVerifyJob(const std::string& uuid, const std::string& destination, std::string* error = nullptr);
    // The backup when the disk is connected: a path unit that waits for the destination's
    // configuration file and the service it starts. systemd only.
    bool writeConnectJob(const std::string& uuid, const std::string& destination, std::string* error = nullptr);
    // The commands that load a written job, for the user to run by hand when loading failed.
    std::vector<std::vector<std::string>> loadCommands(const std::string& uuid, FVJobKind kind) const;
    // Whether the job's files are there, and whether they are enabled as far as the files tell
    // (the link in the target's .wants folder).
    bool isJobPresent(const std::string& uuid, FVJobKind kind) const;
    bool isJobEnabled(const std::string& uuid, FVJobKind kind) const;
    // False when jobs are user units of an account that does not linger: systemd then stops
    // the user's service manager, timers included, at the last logout.
    static bool jobsRunWhileLoggedOut();
    // Unloads and deletes the job when it exists; failures are not reported.
    void removeJob(const std::string& uuid, FVJobKind kind = FVJobKind::Backup);
    // The UUIDs of this program's jobs of any kind in the job directory, sorted.
    std::vector<std::string> jobIdentifiers() const;
    // Removes every job (of any kind) of this program whose UUID is not listed.
    void cleanJobsWithoutIDs(const std::vector<std::string>& uuids);

    // The job descriptions themselves. The systemd forms return nothing (with the reason) when
    // the schedule or the executable cannot be expressed safely.
    // mountPoint: where the destination's file system is mounted; the connect job's service lasts
    // as long as that mount.
    static std::optional<std::string> systemdServiceUnit(const std::string& uuid, const std::string& executable,
                                                         const std::string& destination, FVJobKind kind,
                                                         const std::string& mountPoint, std::string* error);
    static std::optional<std::string> systemdPathUnit(const std::string& uuid, const std::string& destination,
                                                      std::string* error);
    // The name systemd gives the mount unit of a mount point ("systemd-escape --path --suffix=mount").
    static std::string mountUnitName(const std::string& mountPoint);
    static std::optional<std::string> systemdTimerUnit(const std::string& label, const FVJobSchedule& schedule,
                                                       std::string* error);
    static std::optional<std::string> onCalendarExpression(const FVJobSchedule& schedule, std::string* error);

    // The files a job of this kind is written to.
    std::vector<std::string> jobFilePaths(const std::string& uuid, FVJobKind kind) const;

private:
    void unloadJob(const std::string& uuid, FVJobKind kind);
    bool writeJob(const std::string& uuid, FVJobKind kind, const std::string& destination,
                  const FVJobSchedule& schedule, std::string* error);
    bool writeJobFiles(const std::string& uuid, FVJobKind kind, const std::string& destination,
                       const FVJobSchedule& schedule, std::string* error);
    bool loadJob(const std::string& uuid, FVJobKind kind, std::string* error);

    std::shared_ptr<FVCommandRunner> runner_;
    std::string jobDirectory_;
    std::string executablePath_;
};

}  // namespace ferrovane
