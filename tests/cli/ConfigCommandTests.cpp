// "ferrovane config" end to end on temporary destinations: the file it writes, refused input
// that leaves everything as it was, and the scheduled job with a stand-in systemctl.

#include "cli/DestinationFixture.h"
#include "scheduling/FVJobStatus.h"
#include "support/JsonQuery.h"
#include "support/SystemdUnit.h"
#include "support/TestHooks.h"

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <thread>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

// A destination, a job folder, and a PATH whose only systemctl records its arguments.
class ConfigCommand : public DestinationFixture {
protected:
    void SetUp() override {
        DestinationFixture::SetUp();
        makeDirs(bin);
        writeFile(bin + "/systemctl", "#!/bin/sh\necho \"$*\" >> '" + calls + "'\nexit ${FAKE_SYSTEMCTL_STATUS:-0}\n");
        chmod((bin + "/systemctl").c_str(), 0755);
    }

    ProcessResult config(std::vector<std::string> args, Environment env = {}) {
        std::vector<std::string> argv{program, "config", destination};
        argv.insert(argv.end(), args.begin(), args.end());
        env.insert({{"PATH", bin}, {"FERROVANE_JOB_DIRECTORY", jobs}, {"HOME", dir.path()}});
        return runProcess(argv, environment(env), 30);
    }

    std::string settingsPath() { return FVConfigurationFile::formattedPath(destination); }
    std::string settingsBytes() { return exists(settingsPath()) ? readFile(settingsPath()) : "(none)"; }

    std::string jobs = dir / "jobs", bin = dir / "bin", calls = dir / "systemctl.log";
    std::string program = FERROVANE_EXECUTABLE;
};

std::vector<std::pair<std::string, int64_t>> sources(const FVConfiguration& c) {
    std::vector<std::pair<std::string, int64_t>> out;
    for (const auto& item : c.sources) out.emplace_back(item->sourcePath(), item->enabled());
    return out;
}

}  // namespace

TEST_F(ConfigCommand, SourcesAndOptionsAreWrittenWithTheSharedWriter) {
    ProcessResult shown = config({"show"});
    EXPECT_EQ(shown.exitStatus, 0) << shown.err;
    EXPECT_NE(shown.out.find("none yet"), std::string::npos) << shown.out;
    EXPECT_FALSE(exists(settingsPath()));  // show writes nothing

    ProcessResult missing = config({"add", "/home/me/Documents/"});
    EXPECT_EQ(missing.exitStatus, 0);
    EXPECT_EQ(missing.err, "ferrovane: warning: /home/me/Documents does not exist (yet); it will be skipped "
                           "until it does.\n");
    ProcessResult containing = config({"add", dir.path()});
    EXPECT_EQ(containing.exitStatus, 0);
    EXPECT_NE(containing.err.find(dir.path() + " contains the destination"), std::string::npos) << containing.err;
    EXPECT_EQ(config({"remove", dir.path()}).exitStatus, 0);
    EXPECT_EQ(config({"add", "--mode", "exclude", "/home/me/Documents/cache"}).exitStatus, 0);
    EXPECT_EQ(config({"add", "/x/node_modules", "--mode=exclude-name"}).exitStatus, 0);
    EXPECT_EQ(config({"add", "/old", "--mode", "disabled"}).exitStatus, 0);
    const std::string listed = settingsBytes();
    ProcessResult duplicate = config({"add", "/home/me/Documents"});
    EXPECT_EQ(duplicate.exitStatus, 0) << duplicate.err;
    EXPECT_EQ(duplicate.out, "/home/me/Documents is already listed (Back up).\n");
    ProcessResult otherMode = config({"add", "/home/me/Documents", "--mode", "exclude"});
    EXPECT_EQ(otherMode.exitStatus, 1);
    EXPECT_NE(otherMode.err.find("already listed with --mode backup; to list it with --mode exclude, remove it first"),
              std::string::npos) << otherMode.err;
    EXPECT_EQ(settingsBytes(), listed);
    EXPECT_EQ(config({"remove", "/old"}).exitStatus, 0);
    EXPECT_EQ(config({"remove", "/old"}).exitStatus, 1);
    EXPECT_EQ(config({"set", "maxThreads", "4"}).exitStatus, 0);
    EXPECT_EQ(config({"set", "preallocate", "yes"}).exitStatus, 0);
    EXPECT_EQ(config({"set", "keepFreeSpaceMB", "1000000000"}).exitStatus, 0);  // the largest reserve
    EXPECT_EQ(config({"confirm-empty", "/home/me/Documents"}).exitStatus, 0);
    ProcessResult retention = config({"retention", "3", "2", "1", "10"});
    EXPECT_EQ(retention.exitStatus, 0) << retention.err;
    EXPECT_EQ(config({"retention", "off"}).exitStatus, 0);
    EXPECT_NE(config({"retention"}).out.find("Retention: off"), std::string::npos);
    EXPECT_EQ(config({"retention", "on"}).exitStatus, 0);

    FVConfiguration c = readBack();
    EXPECT_EQ(sources(c), (std::vector<std::pair<std::string, int64_t>>{
                              {"/home/me/Documents", 1}, {"/home/me/Documents/cache", 2}, {"/x/node_modules", 3}}));
    for (const auto& item : c.sources) EXPECT_FALSE(item->value("sizeInMB"));
    // The first change created the file with what a new destination gets (versions kept, the
    // free-space rule on); set values replaced theirs.
    const PlistDictPtr fresh = FVConfigurationFile::newDestinationOptions();
    for (const auto& [key, value] : fresh->entries())
        EXPECT_TRUE(c.settings->contains(key)) << key;
    EXPECT_EQ(c.settings->integerValue("maxThreads"), 4);
    EXPECT_TRUE(c.settings->boolValue("preallocate"));
    EXPECT_TRUE(c.settings->boolValue("moveChangedFiles") && c.settings->boolValue("keepFreeSpace"));
    EXPECT_EQ(c.sources[0]->value(FVSourceKey::emptySourceConfirmed), PlistValue(true));
    EXPECT_EQ(c.settings->integerValue("purgeRemovedArchiveDays"), 30);
    EXPECT_TRUE(c.settings->boolValue("retentionEnabled"));
    for (auto [key, value] : {std::pair{"retentionKeepAllDays", 3}, {"retentionDailyWeeks", 2},
                              {"retentionWeeklyMonths", 1}, {"retentionMonthlyYears", 10}})
        EXPECT_EQ(c.settings->integerValue(key), value) << key;

    shown = config({"show", "--json"});
    EXPECT_EQ(jsonQuery(shown.out, "[(s['path'], s['mode']) for s in d['sources']], d['options']['maxThreads'], "
                                   "d['job']"),
              "([('/home/me/Documents', 'backup'), ('/home/me/Documents/cache', 'exclude'), ('/x/node_modules', "
              "'exclude-name')], {'value': 4, 'default': 2}, None)") << shown.out << shown.err;

    // An existing file keeps what it stores: a change adds none of the new destinations' values.
    PlistDict stored;
    stored.set("maxThreads", int64_t{3});
    configure({{source, FVSourceMode::Backup}}, stored);
    EXPECT_EQ(config({"set", "maxThreads", "2"}).exitStatus, 0);
    c = readBack();
    EXPECT_FALSE(c.settings->contains("moveChangedFiles") || c.settings->contains("keepFreeSpace") ||
                 c.settings->contains("retentionEnabled"));
}

TEST_F(ConfigCommand, BadInputIsRefusedAndNothingIsWritten) {
    ASSERT_EQ(config({"add", "/data"}).exitStatus, 0);
    std::string before = settingsBytes();
    const std::vector<std::vector<std::string>> refused = {
        {"set", "noSuchOption", "1"},     {"set", "maxThreads", "many"},   {"set", "maxThreads", "0"},
        {"set", "moveChangedFiles", "2"}, {"set", "UUID", "X"},            {"set", "automationEnabled", "1"},
        {"add", "relative/path"},         {"add", "/a", "--mode", "all"},  {"add"},
        {"remove", "data"},               {"schedule", "daily", "24:00"},  {"schedule", "daily", "7:60"},
        {"schedule", "daily", "noon"},    {"schedule", "daily", "-1:30"},  {"schedule", "weekly", "someday", "10:00"},
        {"schedule", "weekly", "8", "10:00"}, {"schedule", "hourly"},      {"frobnicate"},
        {"set", "purgeChangedArchiveDays", "0"}, {"set", "purgeRemovedArchiveDays", "thirty"},
        {"confirm-empty", "/elsewhere"},  {"confirm-empty"},
        {"schedule", "when-connected"},   {"schedule", "when-connected", "maybe"},
        {"schedule", "when-connected", "on", "-5"}, {"schedule", "when-connected", "off", "5"},
        {"set", "backUpWhenConnected", "yes"},
        {"retention", "7", "-1", "6", "5"}, {"retention", "7", "4", "6", "101"}, {"retention", "7", "4"},
        {"retention", "sometimes"},
        // Sources whose mirrors would collide: one name, a reserved name, a path that is not plain.
        {"add", "/other/data"},           {"add", "/x/__removed"},         {"add", "/x/../data2"},
    };
    for (const auto& args : refused) {
        ProcessResult result = config(args);
        std::string shown;
        for (const auto& a : args) shown += a + " ";
        EXPECT_EQ(result.exitStatus, 2) << shown;
        EXPECT_NE(result.err.find("ferrovane: error: "), std::string::npos) << shown << result.err;
    }
    EXPECT_EQ(settingsBytes(), before);
    EXPECT_NE(config({"add", "/other/data"}).err.find("/data and /other/data would both be mirrored"), std::string::npos);
    EXPECT_FALSE(exists(calls));
    EXPECT_FALSE(exists(jobs));

    // A file that is not a configuration is never overwritten.
    writeFile(settingsPath(), "not a property list");
    EXPECT_EQ(config({"add", "/b"}).exitStatus, 1);
    EXPECT_EQ(readFile(settingsPath()), "not a property list");
}

TEST_F(ConfigCommand, ExclusionsAreNamesAndPatternsStoredInTheDestination) {
    ProcessResult name = config({"add", "node_modules", "--mode", "exclude-name"});
    EXPECT_EQ(name.exitStatus, 0) << name.err;
    EXPECT_EQ(config({"add", "*.tmp", "--mode", "exclude-name"}).exitStatus, 2) << "a wildcard makes a pattern";
    ProcessResult added = config({"exclude", "*.tmp", "cache/"});
    EXPECT_EQ(added.out, "Added 2 patterns.\n") << added.err;
    // An exclude file is read once: a later change to it changes nothing.
    writeFile(dir / "excludes", "# build output\n\n*.o\r\n**/build   \n*.tmp\n");
    EXPECT_EQ(config({"exclude-from", dir / "excludes"}).out,
              "Added 2 patterns from " + (dir / "excludes") + ". 1 was already there.\n");
    writeFile(dir / "excludes", "ok\n!negated\n[abc\n");
    const std::string before = settingsBytes();
    ProcessResult bad = config({"exclude-from", dir / "excludes"});
    EXPECT_EQ(bad.exitStatus, 2);
    EXPECT_EQ(bad.err, "ferrovane: error: " + (dir / "excludes") + ": line 2: \"!\" (an exception to the exclusions) "
                       "is not supported\nferrovane: error: " + (dir / "excludes") + ": line 3: a \"[\" without its "
                       "\"]\"\nferrovane: error: nothing was changed\n");
    EXPECT_EQ(config({"exclude", "a/../b"}).exitStatus, 2);
    EXPECT_EQ(settingsBytes(), before);
    EXPECT_EQ(config({"exclude", "--remove", "cache/"}).out, "Removed the pattern cache/.\n");
    EXPECT_EQ(config({"remove", "node_modules"}).exitStatus, 0);

    ProcessResult shown = config({"show", "--json"});
    EXPECT_EQ(jsonQuery(shown.out, "d['sources'], d['excludePatterns'], d['options']['excludeCacheFolders']"),
              "([], ['*.tmp', '*.o', '**/build'], {'value': True, 'default': True})") << shown.out;
    EXPECT_NE(config({"show"}).out.find("Left out below every source (exclude patterns):\n  *.tmp\n  *.o\n  **/build\n"),
              std::string::npos);
    // An unusable stored list is named and never overwritten; a pattern that cannot be used can
    // still be taken out.
    PlistDict options;
    options.set("excludePatterns", std::string("*.tmp"));
    configure({}, options);
    ProcessResult broken = config({"exclude", "*.o"});
    EXPECT_EQ(broken.exitStatus, 1);
    EXPECT_NE(broken.err.find("Option excludePatterns: expected a list of patterns, found the text \"*.tmp\""),
              std::string::npos) << broken.err;
    auto list = std::make_shared<PlistArray>(PlistArray{PlistValue(std::string("ok")), PlistValue(std::string("[bad"))});
    options.set("excludePatterns", PlistValue(list));
    configure({}, options);
    EXPECT_EQ(config({"exclude", "*.o"}).exitStatus, 1);
    EXPECT_EQ(config({"exclude", "--remove", "[bad"}).exitStatus, 0);
    EXPECT_EQ(jsonQuery(config({"show", "--json"}).out, "d['excludePatterns']"), "['ok']");
}

TEST_F(ConfigCommand, ScheduleWritesUnitsThatStartFerrovaneOnExactlyThisDestination) {
    ProcessResult daily = config({"schedule", "daily", "3:30"});
    ASSERT_EQ(daily.exitStatus, 0) << daily.err;
    FVConfiguration c = readBack();
    std::string uuid = c.settings->stringValue("UUID").value_or("");
    ASSERT_EQ(uuid.size(), 36u);
    EXPECT_TRUE(c.settings->boolValue("automationEnabled"));
    EXPECT_EQ(c.settings->integerValue("automationTimeHours"), 3);
    EXPECT_EQ(c.settings->integerValue("automationTimeMinutes"), 30);
    EXPECT_EQ(c.settings->integerValue("automationIntervalSelection"), 0);

    std::string label = "com.quillmarsh.ferrovane." + uuid;
    std::string user = getuid() == 0 ? "" : "--user ";
    EXPECT_EQ(readFile(calls), user + "disable --now " + label + ".timer\n" + user + "daemon-reload\n" + user +
                                     "enable --now " + label + ".timer\n" + user + "daemon-reload\n" + user +
                                     "enable --now com.quillmarsh.ferrovane-check-overdue.timer\n");

    ASSERT_EQ(config({"schedule", "weekly", "Friday", "22:15"}).exitStatus, 0);
    EXPECT_NE(readFile(jobs + "/" + label + ".timer").find("OnCalendar=Fri *-*-* 22:15:00"), std::string::npos);
    EXPECT_EQ(readBack().settings->stringValue("UUID"), uuid);  // created once

    // Set up from the window's executable, the job starts the command line beside it: a
    // scheduled run must not need the window's package.
    const std::string programs = dir / "programs";
    makeDirs(programs);
    std::filesystem::copy_file(FERROVANE_EXECUTABLE, programs + "/ferrovane-gui");
    program = programs + "/ferrovane-gui";
    ASSERT_EQ(config({"schedule", "daily", "3:30"}).exitStatus, 0);
    EXPECT_NE(readFile(jobs + "/" + label + ".service").find("\nExecStart=:" + programs + "/ferrovane --trigger"),
              std::string::npos) << readFile(jobs + "/" + label + ".service");

    ASSERT_EQ(config({"schedule", "off"}).exitStatus, 0);
    EXPECT_FALSE(exists(jobs + "/" + label + ".service"));
    EXPECT_FALSE(exists(jobs + "/" + label + ".timer"));
    EXPECT_FALSE(readBack().settings->boolValue("automationEnabled"));
}

TEST_F(ConfigCommand, JobFailuresAreReportedAndTheSettingIsKept) {
    // systemctl failing, then missing: the unit files and the setting are still written.
    ProcessResult failing = config({"schedule", "daily", "14:00"}, {{"FAKE_SYSTEMCTL_STATUS", "1"}});
    EXPECT_EQ(failing.exitStatus, 1);
    EXPECT_NE(failing.err.find("could not be set up"), std::string::npos) << failing.err;
    // Said once, with what the user can run instead.
    const std::string user = getuid() == 0 ? "" : "--user ";
    const std::string failingUUID = readBack().settings->stringValue("UUID").value_or("");
    const std::string failingLabel = jobs + "/com.quillmarsh.ferrovane." + failingUUID;
    EXPECT_NE(failing.err.find("Unit files written:\n  " + failingLabel + ".service\n  " + failingLabel +
                               ".timer\nTo set it up by hand, run:\n  systemctl " + user + "daemon-reload\n  systemctl " +
                               user + "enable --now com.quillmarsh.ferrovane." + failingUUID + ".timer\n"),
              std::string::npos) << failing.err;
    EXPECT_TRUE(readBack().settings->boolValue("automationEnabled"));

    ProcessResult missing = config({"schedule", "daily", "15:00"}, {{"PATH", dir / "nowhere"}});
    EXPECT_EQ(missing.exitStatus, 1);
    EXPECT_NE(missing.err.find("systemctl"), std::string::npos) << missing.err;
    EXPECT_EQ(readBack().settings->integerValue("automationTimeHours"), 15);
    std::string uuid = readBack().settings->stringValue("UUID").value_or("");
    EXPECT_TRUE(exists(jobs + "/com.quillmarsh.ferrovane." + uuid + ".timer"));

    writeFile(dir / "blocker", "");
    ProcessResult blocked = config({"schedule", "daily", "16:00"}, {{"FERROVANE_JOB_DIRECTORY", dir / "blocker/jobs"}});
    EXPECT_EQ(blocked.exitStatus, 1);
    EXPECT_NE(blocked.err.find("Creation of " + dir / "blocker/jobs/" + " failed!"), std::string::npos)
        << blocked.err;
}

// The command lines that the written units run, run as systemd would run them (the words of
// ExecStart=) on a real destination: every attempt is recorded for the schedule, a disk that is
// not there is no failure, and a run the disk starts soon after a good run does nothing.
TEST_F(ConfigCommand, TheUnitsCommandLinesRecordEveryAttempt) {
    writeFile(source + "/a.txt", "one");
    ASSERT_EQ(config({"add", source}).exitStatus, 0);
    ASSERT_EQ(config({"schedule", "daily", "3:30"}).exitStatus, 0);
    ASSERT_EQ(config({"schedule", "when-connected", "on", "90"}).exitStatus, 0);
    const std::string uuid = readBack().settings->stringValue("UUID").value_or("");
    const std::string label = "com.quillmarsh.ferrovane." + uuid;
    EXPECT_NE(readFile(jobs + "/" + label + "-connect.path").find("\nPathExists=" + settingsPath() + "\n"), std::string::npos);

    auto runUnit = [&](const std::string& file) {
        std::vector<std::string> argv = commandWords(readFile(jobs + "/" + file), "ExecStart");
        return runProcess(argv, environment({{"DBUS_SESSION_BUS_ADDRESS", "unix:path=" + dir / "no-bus"},
                                             {"HOME", dir.path()}}));
    };
    FVJobStatusStore store(statusFolder());
    auto last = [&] { return store.read(uuid).value_or(FVJobStatus{}).lastScheduledAttempt.value_or(FVJobAttempt{}); };

    // A connect run soon after a good run and a calendar run without the disk on a real mount are
    // the fault suite's connect part; here the disk is only away.
    ASSERT_EQ(rename(destination.c_str(), (dir / "unplugged").c_str()), 0);
    ProcessResult absent = runUnit(label + ".service");
    EXPECT_EQ(absent.exitStatus, 0) << absent.err;
    EXPECT_NE(absent.out.find("is not connected"), std::string::npos) << absent.out;
    EXPECT_EQ(last().trigger, FVJobTrigger::Schedule);
    EXPECT_EQ(last().outcome, FVJobOutcome::NotConnected);
    ASSERT_EQ(rename((dir / "unplugged").c_str(), destination.c_str()), 0);

    // A run by hand is recorded too, beside the last scheduled one.
    EXPECT_EQ(run().exitStatus, 0);
    EXPECT_EQ(store.read(uuid)->lastAttempt->trigger, FVJobTrigger::Manual);
    EXPECT_EQ(last().outcome, FVJobOutcome::NotConnected);

    EXPECT_NE(config({"schedule"}).out.find(label + "-connect (present, not enabled)"), std::string::npos);
    ProcessResult json = config({"schedule", "--json"});
    EXPECT_EQ(jsonQuery(json.out, "d['lastScheduledAttempt']['outcome'], d['jobs'][1]['present'], d['scheduled']"),
              "('not-connected', True, True)");

    ASSERT_EQ(config({"schedule", "off"}).exitStatus, 0);
    EXPECT_FALSE(exists(jobs + "/" + label + "-connect.path"));
    EXPECT_FALSE(readBack().settings->boolValue("backUpWhenConnected"));

    // A run that cannot start is recorded with its cause.
    FVConfiguration c = readBack();
    c.settings->set("maxThreads", int64_t{99});
    ASSERT_TRUE(FVConfigurationFile::writeSettingsForSourceConfiguration(c.sources, *c.settings, settingsPath()));
    EXPECT_EQ(run().exitStatus, 255);
    const FVJobAttempt failed = store.read(uuid)->lastAttempt.value_or(FVJobAttempt{});
    EXPECT_EQ(failed.outcome, FVJobOutcome::Failed);
    EXPECT_NE(failed.message.find("maxThreads"), std::string::npos) << failed.message;

    // A run that does not fit is told apart from a failure.
    writeFile(source + "/b.txt", "new");
    c.settings->set("maxThreads", int64_t{2});
    c.settings->set("keepFreeSpace", true);
    c.settings->set("keepFreeSpaceMB", int64_t{1000000000});
    ASSERT_TRUE(FVConfigurationFile::writeSettingsForSourceConfiguration(c.sources, *c.settings, settingsPath()));
    EXPECT_EQ(run().exitStatus, 1);
    const FVJobAttempt full = store.read(uuid)->lastAttempt.value_or(FVJobAttempt{});
    EXPECT_EQ(full.outcome, FVJobOutcome::NoSpace);
    EXPECT_EQ(full.message.rfind("Not enough room on ", 0), 0u) << full.message;
}

TEST_F(ConfigCommand, UnwritableDestinationIsRefused) {
    // A mode refused on a file the writer owns is a failure, not a file system without modes.
    ProcessResult modeRefused =
        runProcess({"/usr/bin/strace", "-f", "-qq", "-o", "/dev/null", "-e", "inject=fchmod:error=EPERM", FERROVANE_EXECUTABLE,
                    "config", destination, "add", "/data"},
                   {{"HOME", dir.path()}, {"FERROVANE_JOB_DIRECTORY", jobs}}, 30);
    EXPECT_EQ(modeRefused.exitStatus, 1) << modeRefused.err;
    EXPECT_FALSE(exists(settingsPath()));
    if (mount("fvtest", destination.c_str(), "tmpfs", MS_RDONLY, "size=1m") != 0)
        GTEST_SKIP() << "cannot mount a read-only tmpfs here: " << std::strerror(errno);
    ProcessResult result = config({"add", "/data"});
    ProcessResult schedule = config({"schedule", "daily", "10:00"});
    umount2(destination.c_str(), MNT_DETACH);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("cannot write to the destination"), std::string::npos) << result.err;
    EXPECT_EQ(schedule.exitStatus, 1);
    EXPECT_FALSE(exists(jobs));
}

TEST_F(ConfigCommand, AChangeWaitsForTheRunningBackupAndASecondRunIsRefused) {
    int held = open(destination.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(held, LOCK_EX | LOCK_NB), 0);
    ProcessResult refused = run();
    EXPECT_EQ(refused.exitStatus, 75);
    EXPECT_EQ(refused.err, "ferrovane: error: Another Ferrovane run is using this destination: " + destination +
                               ". Try again when it has finished.\n");

    // The lock goes once the change is waiting for it.
    TestHooks hooks(dir / "hooks");
    hooks.arm("waiting-for-lock", destination, false);
    std::thread finishing([&hooks, held] {
        hooks.waitUntilReached("waiting-for-lock");
        close(held);
    });
    ProcessResult change = config({"add", "/data"}, {hooks.env()});
    finishing.join();
    EXPECT_EQ(change.exitStatus, 0) << change.err;
    EXPECT_NE(change.err.find("waiting"), std::string::npos) << change.err;
    EXPECT_EQ(sources(readBack()).size(), 1u);
}

// A new placement never leaves a mirror behind: refused while one is in place, with commands that
// move it; once they ran, the change goes through and the next run copies nothing again.
TEST_F(ConfigCommand, APlacementChangeIsRefusedWhileAMirrorWouldBeLeftBehind) {
    writeFile(source + "/a.txt", "a");
    PlistDict options = defaults();
    options.set(FVOptionKey::syncMode, int64_t{1});
    configure({{source, FVSourceMode::Backup}}, options);
    ASSERT_EQ(config({"set", "syncMode", "0"}).exitStatus, 0) << "nothing is in place yet";
    ASSERT_EQ(config({"set", "syncMode", "1"}).exitStatus, 0);
    ASSERT_EQ(run().exitStatus, 0);
    const std::string before = settingsBytes();

    ProcessResult refused = config({"set", "syncMode", "0"});
    EXPECT_EQ(refused.exitStatus, 1);
    EXPECT_EQ(settingsBytes(), before);
    EXPECT_EQ(differences(source + "/", destination + "/src/"), "");
    const std::string move = "  mkdir -p -- '" + destination + source.substr(0, source.rfind('/')) + "' && mv -nT -- '" +
                             destination + "/src' '" + destination + source + "'\n";
    EXPECT_NE(refused.err.find("ferrovane: error: a new placement would leave the mirror already in the destination "
                               "behind"), std::string::npos) << refused.err;
    ASSERT_NE(refused.err.find(move), std::string::npos) << refused.err;
    EXPECT_NE(refused.err.find("  ferrovane config " + destination + " set syncMode 0"), std::string::npos);

    ASSERT_EQ(runProcess({"/bin/sh", "-c", move}).exitStatus, 0);
    ASSERT_EQ(config({"set", "syncMode", "0"}).exitStatus, 0);
    ProcessResult again = run();
    ASSERT_EQ(again.exitStatus, 0) << again.err;
    EXPECT_FALSE(exists(destination + "/src"));
    EXPECT_EQ(readBack().sources[0]->integerValue(FVSourceKey::updatedFilesCount), 0) << "nothing copied again";
    EXPECT_EQ(differences(source + "/", destination + source + "/"), "");
}
