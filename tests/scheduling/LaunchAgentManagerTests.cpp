// Scheduled runs: the systemd units checked by systemd's own offline tools, hostile destination
// paths through a written unit and the systemctl calls through a recording runner (the
// options sheet's schedule reaching the timer is the window's test).

#include "engine/config/FVConfigurationFile.h"
#include "scheduling/FVLaunchAgentManager.h"
#include "fs/FVMountTable.h"
#include "support/ProcessRunner.h"
#include "support/RecordingRunner.h"
#include "support/SystemdUnit.h"
#include "support/TempDir.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>


using namespace ferrovane;
using namespace ferrovane::test;

namespace {

std::vector<std::string> systemctl(std::vector<std::string> args) {
    std::vector<std::string> argv{"systemctl"};
    if (getuid() != 0) argv.push_back("--user");
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

const std::string kUUID = "0F1E2D3C-4B5A-4978-8695-A4B3C2D1E0F9";
const std::string kLabel = "com.quillmarsh.ferrovane." + kUUID;

// Every byte value a path may hold that could break out of a word or a line, plus text that
// looks like systemd syntax.
const std::string kHostile = std::string("/mnt/my \"backup\" 'disk'\\50% $HOME ${USER} %n; x\n") +
                             "ExecStartPre=/bin/false\t\x01\xff\xc3\xa9/\xe2\x82\xac end ";

std::string executableAt(const std::string& path) {
    writeFile(path, "#!/bin/sh\n");
    chmod(path.c_str(), 0755);
    return path;
}

ProcessResult analyze(const std::vector<std::string>& args, const TempDir& runtime) {
    std::vector<std::string> argv{"/usr/bin/systemd-analyze"};
    argv.insert(argv.end(), args.begin(), args.end());
    return runProcess(argv, {{"XDG_RUNTIME_DIR", runtime.path()}, {"SYSTEMD_PAGER", ""}}, 60);
}

// What systemd's own parser makes of a unit in units, from a test run of a user service manager
// (which refuses to run as root): its section of the dump, or everything said when it has none.
ProcessResult systemdReading(const std::string& units, const TempDir& runtime, const std::string& unit) {
    std::vector<std::string> argv{"/lib/systemd/systemd", "--test", "--user", "--no-pager", "--unit=" + unit};
    if (getuid() == 0) argv.insert(argv.begin(), {"/usr/sbin/runuser", "-u", "nobody", "--"});
    chmod(units.substr(0, units.rfind('/')).c_str(), 0755);
    chmod(runtime.path().c_str(), 0777);
    ProcessResult r = runProcess(argv, {{"XDG_RUNTIME_DIR", runtime.path()}, {"HOME", runtime.path()},
                                        {"SYSTEMD_UNIT_PATH", units + ":"}});
    const size_t start = r.out.find("-> Unit " + unit + ":\n");
    if (start != std::string::npos) r.out = r.out.substr(start, r.out.find("-> Unit ", start + 1) - start);
    return r;
}

}  // namespace

TEST(LaunchAgentManager, CalendarExpressionsAreWhatSystemdUnderstands) {
    TempDir runtime;
    struct Case {
        FVJobSchedule schedule;
        const char* normalized;
    };
    const Case cases[] = {
        {{14, 5, -1}, "*-*-* 14:05:00"},     {{0, 0, 0}, "Sun *-*-* 00:00:00"},
        {{23, 59, 7}, "Sun *-*-* 23:59:00"}, {{9, 30, 1}, "Mon *-*-* 09:30:00"},
        {{9, 30, 6}, "Sat *-*-* 09:30:00"},  {{std::nullopt, 15, 3}, "Wed *-*-* *:15:00"},
    };
    for (const Case& c : cases) {
        auto expression = FVLaunchAgentManager::onCalendarExpression(c.schedule, nullptr);
        ASSERT_TRUE(expression);
        EXPECT_EQ(*expression, c.normalized);
        ProcessResult checked = analyze({"calendar", *expression}, runtime);
        EXPECT_EQ(checked.exitStatus, 0) << *expression << ": " << checked.err;
        EXPECT_NE(checked.out.find(std::string("Normalized form: ") + c.normalized), std::string::npos)
            << checked.out;
    }
    for (FVJobSchedule bad : {FVJobSchedule{24, 0, -1}, FVJobSchedule{-1, 0, -1}, FVJobSchedule{1, 60, -1},
                              FVJobSchedule{1, 0, 8}, FVJobSchedule{1, 0, -2}}) {
        std::string error;
        EXPECT_FALSE(FVLaunchAgentManager::onCalendarExpression(bad, &error));
        EXPECT_FALSE(error.empty());
    }
}

TEST(LaunchAgentManager, WrittenUnitsVerifyAndCarryHostilePathsExactly) {
    TempDir dir, runtime;
    // The program path itself may not hold quotes, backslashes or control characters (systemd
    // refuses them), but everything else must survive: systemd-analyze only accepts the unit
    // when the decoded path names this very file.
    std::string program = executableAt(dir / "fv prog $HOME %n;50%\xff\xc3\xa9");
    RecordingRunner* runner = new RecordingRunner;
    FVLaunchAgentManager manager(std::shared_ptr<FVCommandRunner>(runner), dir / "units",
                                 program);
    std::string error;
    const std::string destination = dir.path() + kHostile;
    ASSERT_TRUE(manager.writeJob(kUUID, destination, {14, 0, 3}, &error)) << error;

    std::string service = readFile(dir / ("units/" + kLabel + ".service"));
    std::string timer = readFile(dir / ("units/" + kLabel + ".timer"));
    EXPECT_EQ(commandWords(service, "ExecStart"),
              (std::vector<std::string>{program, "--trigger=schedule", "--job=" + kUUID, destination}));
    // Nothing from the path reached a line of its own.
    EXPECT_EQ(std::count(service.begin(), service.end(), '\n'), 9);
    EXPECT_EQ(service.find("\nExecStartPre"), std::string::npos);
    // A drive that is not there is the run's to record: nothing keeps the backup from starting.
    EXPECT_EQ(service.find("ExecCondition"), std::string::npos);
    EXPECT_NE(timer.find("OnCalendar=Wed *-*-* 14:00:00\nPersistent=true\n"), std::string::npos);

    // The monthly verification: its own units beside the backup's.
    ASSERT_TRUE(manager.writeVerifyJob(kUUID, destination, &error)) << error;
    const std::string verifyLabel = kLabel + "-verify";
    const std::string verifyService = readFile(dir / ("units/" + verifyLabel + ".service"));
    EXPECT_EQ(commandWords(verifyService, "ExecStart"), (std::vector<std::string>{program, "verify", destination}));
    // Its start-up check, run as systemd runs it: a drive that is not there skips the verification.
    std::vector<std::string> condition = commandWords(verifyService, "ExecCondition");
    ASSERT_EQ(condition.size(), 3u);
    EXPECT_EQ(condition.back(), destination);
    EXPECT_EQ(runProcess(condition, {}).exitStatus, 1);
    makeDirs(destination);
    EXPECT_EQ(runProcess(condition, {}).exitStatus, 0);
    EXPECT_NE(readFile(dir / ("units/" + verifyLabel + ".timer")).find("OnCalendar=monthly\nPersistent=true\n"),
              std::string::npos);

    // The check for overdue backups comes with the first job and starts this very program too.
    const std::string check = "com.quillmarsh.ferrovane-check-overdue";
    EXPECT_EQ(commandWords(readFile(dir / ("units/" + check + ".service")), "ExecStart"),
              (std::vector<std::string>{program, "check-overdue"}));

    std::vector<std::string> verify{"verify"};
    if (getuid() != 0) verify.push_back("--user");
    for (const std::string& label : {kLabel, verifyLabel, check}) {
        verify.push_back(dir / ("units/" + label + ".service"));
        verify.push_back(dir / ("units/" + label + ".timer"));
    }
    ProcessResult checked = analyze(verify, runtime);
    EXPECT_EQ(checked.exitStatus, 0) << checked.err;
    EXPECT_EQ(checked.err, "");

    // A program path that systemd cannot take is refused before anything is written.
    FVLaunchAgentManager quoted(std::make_shared<RecordingRunner>(), dir / "other",
                                executableAt(dir / "fv\"prog"));
    EXPECT_FALSE(quoted.writeJob(kUUID, "/dest", {14, 0, -1}, &error));
    EXPECT_FALSE(exists(dir / "other"));
    EXPECT_FALSE(manager.writeJob(kUUID, "relative/dest", {14, 0, -1}, &error));
    EXPECT_FALSE(manager.writeJob("../../evil", "/dest", {14, 0, -1}, &error));
}

// The systemctl calls of a write, a failing load and an uncreatable job folder are checked
// through "ferrovane config schedule" in the command-line tests.
TEST(LaunchAgentManager, ListCleanAndRemoveTouchOnlyThisProgramsJobs) {
    TempDir dir;
    auto runner = std::make_shared<RecordingRunner>();
    std::string units = dir / "missing/parents/units";
    const std::string other = "11111111-2222-4333-8444-555555555555";
    FVLaunchAgentManager manager(runner, units, "/usr/bin/ferrovane");
    ASSERT_TRUE(manager.writeJob(kUUID, "/backups/a", {15, 30, 2}));
    ASSERT_TRUE(manager.writeJob(other, "/backups/b", {1, 0, -1}));
    ASSERT_TRUE(manager.writeVerifyJob(kUUID, "/backups/a"));
    ASSERT_TRUE(manager.writeVerifyJob(other, "/backups/b"));
    ASSERT_TRUE(manager.writeConnectJob(other, dir.path()));
    writeFile(units + "/other-program.timer", "");
    writeFile(units + "/com.quillmarsh.ferrovane.notes.txt", "");
    EXPECT_EQ(manager.jobIdentifiers(), (std::vector<std::string>{kUUID, other}));
    EXPECT_EQ(readFile(units + "/" + kLabel + ".service")
                  .rfind("[Unit]\nDescription=Ferrovane scheduled backup to /backups/a\nRequiresMountsFor=\"/backups/a\"\n", 0),
              0u);

    // The check for overdue backups came with the jobs; once enabled it is left alone, and it
    // stays while any job does.
    const std::string check = units + "/com.quillmarsh.ferrovane-check-overdue";
    const auto enableCheck = systemctl({"enable", "--now", "com.quillmarsh.ferrovane-check-overdue.timer"});
    auto enablesCheck = [&] { return std::count(runner->calls.begin(), runner->calls.end(), enableCheck); };
    EXPECT_GT(enablesCheck(), 0);
    makeDirs(units + "/timers.target.wants");
    writeFile(units + "/timers.target.wants/com.quillmarsh.ferrovane-check-overdue.timer", "");
    runner->calls.clear();
    ASSERT_TRUE(manager.writeJob(other, "/backups/b", {2, 0, -1}));
    EXPECT_EQ(enablesCheck(), 0);

    runner->calls.clear();
    manager.cleanJobsWithoutIDs({kUUID});
    EXPECT_EQ(manager.jobIdentifiers(), (std::vector<std::string>{kUUID}));
    EXPECT_TRUE(exists(units + "/other-program.timer"));
    EXPECT_TRUE(exists(units + "/com.quillmarsh.ferrovane.notes.txt"));
    EXPECT_EQ(runner->calls.back(), systemctl({"daemon-reload"}));

    EXPECT_FALSE(exists(units + "/com.quillmarsh.ferrovane." + other + "-verify.timer"));
    EXPECT_FALSE(exists(units + "/com.quillmarsh.ferrovane." + other + "-connect.path"));
    manager.removeJob(kUUID);
    EXPECT_FALSE(exists(units + "/" + kLabel + ".service"));
    EXPECT_FALSE(exists(units + "/" + kLabel + ".timer"));
    EXPECT_EQ(manager.jobIdentifiers(), (std::vector<std::string>{kUUID}));
    EXPECT_TRUE(exists(check + ".timer"));
    manager.removeJob(kUUID, FVJobKind::Verify);
    EXPECT_EQ(manager.jobIdentifiers(), (std::vector<std::string>{}));
    EXPECT_FALSE(exists(check + ".service"));
    EXPECT_FALSE(exists(check + ".timer"));
    runner->calls.clear();
    manager.removeJob(kUUID);  // nothing there: nothing run
    EXPECT_TRUE(runner->calls.empty());
}

// The job for a connected disk, read back by systemd itself: the path it waits for, the mount its
// service is bound to and the mounts both calendar and disk runs wait for are exactly the
// destination's, blanks, quotes and specifiers included.
TEST(LaunchAgentManager, ConnectJobWaitsForTheConfigurationAndRunsOncePerMount) {
    for (const std::string& mountPoint : {std::string("/"), std::string("/media/me/My Disk-2"),
                                          std::string("/mnt/.hidden/a\\b_c:d%e\xc3\xa9//")}) {
        ProcessResult escaped = runProcess({"/usr/bin/systemd-escape", "--path", "--suffix=mount", mountPoint});
        EXPECT_EQ(FVLaunchAgentManager::mountUnitName(mountPoint) + "\n", escaped.out) << mountPoint;
    }

    TempDir dir, runtime;
    const std::string units = dir / "units";
    auto runner = std::make_shared<RecordingRunner>();
    const std::string program = executableAt(dir / "ferrovane");
    FVLaunchAgentManager manager(runner, units, program);
    const std::string destination = dir.path() + "/my \"backup\" 'disk'\\50% $HOME\t;\xc3\xa9 ";
    std::string error;
    EXPECT_FALSE(manager.writeConnectJob(kUUID, destination, &error));  // not there: no mount to bind to
    EXPECT_NE(error.find("is not mounted"), std::string::npos) << error;
    makeDirs(destination);
    ASSERT_TRUE(manager.writeConnectJob(kUUID, destination, &error)) << error;
    ASSERT_TRUE(manager.writeJob(kUUID, destination, {14, 0, -1}, &error)) << error;
    const std::string label = kLabel + "-connect";
    EXPECT_EQ(runner->calls.at(3), systemctl({"enable", "--now", label + ".path"}));
    EXPECT_EQ(runner->calls.at(4), systemctl({"enable", label + ".service"}));
    EXPECT_EQ(manager.jobIdentifiers(), std::vector<std::string>{kUUID});
    EXPECT_TRUE(manager.isJobPresent(kUUID, FVJobKind::Connect));
    EXPECT_FALSE(manager.isJobEnabled(kUUID, FVJobKind::Connect));

    const std::string service = readFile(units + "/" + label + ".service");
    EXPECT_EQ(commandWords(service, "ExecStart"),
              (std::vector<std::string>{program, "--trigger=connect", "--job=" + kUUID, destination}));
    // One run per connection: the service stays active after its run, whatever its exit status.
    EXPECT_EQ(unitValue(service, "ExecStart").rfind("-:", 0), 0u);
    EXPECT_EQ(unitValue(service, "RemainAfterExit"), "yes");
    const std::string mount = FVLaunchAgentManager::mountUnitName(FVMountTable::mountPointOfPath(dir.path()));
    EXPECT_EQ(unitValue(service, "BindsTo"), mount);
    // The mount starts it too: a disk mounted on a folder that exists shows no file appearing.
    EXPECT_EQ(unitValue(service, "WantedBy"), mount);
    // Offline nothing knows the mounts; a unit file stands in for the one the service manager has.
    if (mount != "-.mount")
        writeFile(units + "/" + mount, "[Mount]\nWhat=none\nWhere=" + FVMountTable::mountPointOfPath(dir.path()) + "\n");

    std::vector<std::string> verify{"verify"};
    if (getuid() != 0) verify.push_back("--user");
    for (const char* file : {"-connect.service", "-connect.path", ".service", ".timer"}) verify.push_back(units + "/" + kLabel + file);
    ProcessResult checked = analyze(verify, runtime);
    EXPECT_EQ(checked.exitStatus, 0) << checked.err;
    EXPECT_EQ(checked.err, "");

    if (!exists("/lib/systemd/systemd")) GTEST_SKIP() << "no systemd to read the units back";
    auto dump = [&](const std::string& unit) { return systemdReading(units, runtime, unit).out; };
    const std::string path = dump(label + ".path");
    EXPECT_NE(path.find("\tPathExists: " + FVConfigurationFile::formattedPath(destination) + "\n"), std::string::npos) << path;
    EXPECT_NE(path.find("\tUnit: " + label + ".service\n"), std::string::npos) << path;
    EXPECT_NE(dump(label + ".service").find("\tBindsTo: " + mount + " (origin-file)\n"), std::string::npos);

    // A path no unit line can carry is refused before anything is written.
    makeDirs(dir / "two\nlines");
    EXPECT_FALSE(manager.writeConnectJob(kUUID, dir / "two\nlines", &error));
    EXPECT_NE(error.find("cannot watch"), std::string::npos) << error;
}

// The mounts a scheduled run waits for, as systemd's own parser reads them from the written unit:
// the destination itself, or, where no unit line can carry its path, its deepest folder that one can.
TEST(LaunchAgentManager, RequiresMountsForNamesHostileDestinationsAsSystemdReadsThem) {
    if (!exists("/lib/systemd/systemd")) GTEST_SKIP() << "no systemd to read the units back";
    TempDir dir, runtime;
    const std::string units = dir / "units";
    makeDirs(units);
    const std::string program = executableAt(dir / "ferrovane");
    const std::string base = dir.path();
    const std::pair<std::string, std::string> cases[] = {
        {"/my disk", "/my disk"},          {"/q\"uote'", "/q\"uote'"},  {"/back\\slash", "/back\\slash"},
        {"/50%n %%", "/50%n %%"},          {"/d$HOME;x", "/d$HOME;x"},   {"/tab\tx \xc3\xa9", "/tab\tx \xc3\xa9"},
        {"/ok/bad\xff/deeper", "/ok"},     {"/two\nlines/x", ""},
    };
    int n = 0;
    for (const auto& [destination, waited] : cases) {
        const std::string uuid = fmt::format("0F1E2D3C-4B5A-4978-8695-A4B3C2D1E0{:02}", n++);
        std::string error;
        auto unit = FVLaunchAgentManager::systemdServiceUnit(uuid, program, base + destination, FVJobKind::Backup, "", &error);
        ASSERT_TRUE(unit) << error;
        EXPECT_EQ(commandWords(*unit, "ExecStart").back(), base + destination);
        const std::string name = FVLaunchAgentManager::jobLabel(uuid) + ".service";
        writeFile(units + "/" + name, *unit);
        chmod((units + "/" + name).c_str(), 0644);
        const ProcessResult dumped = systemdReading(units, runtime, name);
        EXPECT_EQ(dumped.err.find(name), std::string::npos) << dumped.err;
        EXPECT_NE(dumped.out.find("\tRequiresMountsFor: " + base + waited + " (origin-file)\n"), std::string::npos)
            << destination << "\n" << *unit;
    }
}
