// Scheduled runs: the systemd units checked by systemd's own offline tools, hostile destination
// paths through a written unit, the systemctl/launchctl calls through a recording runner, and
// the options model that drives them.

#include "engine/FVConfigurationFile.h"
#include "scheduling/FVLaunchAgentManager.h"
#include "scheduling/FVOptionsPanelController.h"
#include "support/ProcessRunner.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

class RecordingRunner final : public FVCommandRunner {
public:
    FVCommandResult run(const std::vector<std::string>& argv) override {
        calls.push_back(argv);
        FVCommandResult result;
        result.started = true;
        result.exitStatus = failing && argv.size() > 1 && argv.back().find(failing) != std::string::npos ? 1 : 0;
        if (result.exitStatus) result.error = argv[0] + " exited with status 1";
        return result;
    }
    std::vector<std::vector<std::string>> calls;
    const char* failing = nullptr;  // calls whose last argument contains this fail
};

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

// The words of a command line (ExecStart=, ExecCondition=) as systemd reads an unquoted line:
// split at blanks, then "%%" -> "%" and "\xNN" -> byte.
std::vector<std::string> commandWords(const std::string& unit, const std::string& key) {
    std::istringstream lines(unit);
    std::string line;
    std::string value;
    while (std::getline(lines, line))
        if (line.rfind(key + "=", 0) == 0) value = line.substr(key.size() + 1);
    if (!value.empty() && value[0] == ':') value.erase(0, 1);
    std::vector<std::string> words;
    std::istringstream split(value);
    std::string word;
    while (split >> word) {
        std::string decoded;
        for (size_t i = 0; i < word.size(); ++i) {
            if (word[i] == '%' && i + 1 < word.size() && word[i + 1] == '%') decoded += '%', ++i;
            else if (word[i] == '\\' && word[i + 1] == 'x') decoded += static_cast<char>(std::stoi(word.substr(i + 2, 2), nullptr, 16)), i += 3;
            else decoded += word[i];
        }
        words.push_back(decoded);
    }
    return words;
}

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
    FVLaunchAgentManager manager(std::shared_ptr<FVCommandRunner>(runner), FVJobFormat::Systemd, dir / "units",
                                 program);
    std::string error;
    const std::string destination = dir.path() + kHostile;
    ASSERT_TRUE(manager.writeJob(kUUID, destination, {14, 0, 3}, &error)) << error;

    std::string service = readFile(dir / ("units/" + kLabel + ".service"));
    std::string timer = readFile(dir / ("units/" + kLabel + ".timer"));
    EXPECT_EQ(commandWords(service, "ExecStart"), (std::vector<std::string>{program, destination}));
    // Nothing from the path reached a line of its own.
    EXPECT_EQ(std::count(service.begin(), service.end(), '\n'), 9);
    EXPECT_EQ(service.find("\nExecStartPre"), std::string::npos);
    // The start-up check, run as systemd runs it: a drive that is not there skips the run.
    std::vector<std::string> condition = commandWords(service, "ExecCondition");
    ASSERT_EQ(condition.size(), 3u);
    EXPECT_EQ(condition.back(), destination);
    EXPECT_EQ(runProcess(condition, {}).exitStatus, 1);
    makeDirs(destination);
    EXPECT_EQ(runProcess(condition, {}).exitStatus, 0);
    EXPECT_NE(timer.find("OnCalendar=Wed *-*-* 14:00:00\nPersistent=true\n"), std::string::npos);

    // The monthly verification: its own units beside the backup's.
    ASSERT_TRUE(manager.writeVerifyJob(kUUID, destination, &error)) << error;
    const std::string verifyLabel = kLabel + "-verify";
    EXPECT_EQ(commandWords(readFile(dir / ("units/" + verifyLabel + ".service")), "ExecStart"),
              (std::vector<std::string>{program, "verify", destination}));
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
    FVLaunchAgentManager quoted(std::make_shared<RecordingRunner>(), FVJobFormat::Systemd, dir / "other",
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
    FVLaunchAgentManager manager(runner, FVJobFormat::Systemd, units, "/usr/bin/ferrovane");
    ASSERT_TRUE(manager.writeJob(kUUID, "/backups/a", {15, 30, 2}));
    ASSERT_TRUE(manager.writeJob(other, "/backups/b", {1, 0, -1}));
    ASSERT_TRUE(manager.writeVerifyJob(kUUID, "/backups/a"));
    ASSERT_TRUE(manager.writeVerifyJob(other, "/backups/b"));
    writeFile(units + "/other-program.timer", "");
    writeFile(units + "/com.quillmarsh.ferrovane.notes.txt", "");
    EXPECT_EQ(manager.jobIdentifiers(), (std::vector<std::string>{kUUID, other}));
    EXPECT_EQ(readFile(units + "/" + kLabel + ".service")
                  .rfind("[Unit]\nDescription=Ferrovane scheduled backup to /backups/a\nRequiresMountsFor=/backups/a\n", 0),
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

TEST(LaunchAgentManager, LaunchdJobsHaveTheThreeKeysAndUseLaunchctl) {
    PlistDict daily = FVLaunchAgentManager::launchdJob(kLabel, "/Applications/Ferrovane", "/Volumes/B", {14, 0, -1});
    EXPECT_EQ(daily.size(), 3u);
    EXPECT_EQ(daily.stringValue("Label"), kLabel);
    const PlistArray& arguments = **daily.find("ProgramArguments")->array();
    EXPECT_EQ(arguments, (PlistArray{"/Applications/Ferrovane", "/Volumes/B"}));
    const PlistDict& interval = **daily.find("StartCalendarInterval")->dict();
    EXPECT_EQ(interval.size(), 2u);
    EXPECT_EQ(interval.integerValue("Hour"), 14);
    EXPECT_FALSE(interval.contains("Weekday"));
    PlistDict weekly = FVLaunchAgentManager::launchdJob(kLabel, "/x", "/y", {std::nullopt, 5, 3});
    const PlistDict& weeklyInterval = **weekly.find("StartCalendarInterval")->dict();
    EXPECT_EQ(weeklyInterval.size(), 2u);
    EXPECT_EQ(weeklyInterval.integerValue("Weekday"), 3);

    TempDir dir;
    auto runner = std::make_shared<RecordingRunner>();
    FVLaunchAgentManager manager(runner, FVJobFormat::Launchd, dir / "LaunchAgents", "/x");
    ASSERT_TRUE(manager.writeJob(kUUID, "/y", {std::nullopt, 5, 3}));
    std::string path = dir / ("LaunchAgents/" + kLabel + ".plist");
    auto parsed = parsePlist(readFile(path));
    ASSERT_TRUE(parsed.value);
    EXPECT_EQ(**parsed.value->dict(), weekly);
    EXPECT_EQ(runner->calls, (std::vector<std::vector<std::string>>{{"/bin/launchctl", "unload", path},
                                                                    {"/bin/launchctl", "load", path}}));
    EXPECT_EQ(manager.jobIdentifiers(), std::vector<std::string>{kUUID});
}

// Defaults and their order are checked with the configuration file; daily schedules, the UUID
// kept across changes and "off" through "ferrovane config schedule".
TEST(OptionsPanelController, LiveOptionsAndAWeekdaySelectionReachTheTimer) {
    TempDir dir;
    auto runner = std::make_shared<RecordingRunner>();
    FVLaunchAgentManager manager(runner, FVJobFormat::Systemd, dir.path(), "/usr/bin/ferrovane");
    FVOptionsPanelController options(manager);
    auto stored = std::make_shared<PlistDict>();
    options.setAllOptions(stored);
    EXPECT_EQ(options.allOptions(), stored);  // the live dictionary
    EXPECT_EQ(stored->size(), FVConfigurationFile::defaultOptions().size());

    auto& live = *options.allOptions();
    live.set("automationEnabled", true);
    live.set("automationIntervalSelection", int64_t{1});
    live.set("automationWeekdaySelection", int64_t{5});
    EXPECT_TRUE(options.updateAutomations("/backups/a"));
    std::string uuid = options.uuid();
    EXPECT_TRUE(FVLaunchAgentManager::isValidJobIdentifier(uuid));
    EXPECT_TRUE(std::none_of(uuid.begin(), uuid.end(), [](char c) { return std::islower(c); }));
    std::string timer = readFile(dir / ("com.quillmarsh.ferrovane." + uuid + ".timer"));
    EXPECT_NE(timer.find("OnCalendar=Fri *-*-* 14:00:00"), std::string::npos);
}
