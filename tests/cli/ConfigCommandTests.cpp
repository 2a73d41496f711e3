// "ferrovane config" end to end on temporary destinations: the file it writes, refused input
// that leaves everything as it was, and the scheduled job with a stand-in systemctl.

#include "engine/FVConfigurationFile.h"
#include "support/ProcessRunner.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <sys/mount.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <thread>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

// A destination, a job folder, and a PATH whose only systemctl records its arguments.
struct Fixture {
    TempDir dir;
    std::string destination = dir / "dest";
    std::string jobs = dir / "jobs";
    std::string bin = dir / "bin";
    std::string calls = dir / "systemctl.log";

    Fixture() {
        makeDirs(destination);
        makeDirs(bin);
        writeFile(bin + "/systemctl", "#!/bin/sh\necho \"$*\" >> '" + calls + "'\nexit ${FAKE_SYSTEMCTL_STATUS:-0}\n");
        chmod((bin + "/systemctl").c_str(), 0755);
    }

    ProcessResult config(std::vector<std::string> args, std::map<std::string, std::optional<std::string>> env = {}) {
        std::vector<std::string> argv{FERROVANE_EXECUTABLE, "config", destination};
        argv.insert(argv.end(), args.begin(), args.end());
        env.emplace("PATH", bin);
        env.emplace("FERROVANE_JOB_DIRECTORY", jobs);
        env.emplace("HOME", dir.path());
        return runProcess(argv, env, 30);
    }

    FVConfiguration read() {
        auto result = FVConfigurationFile::read(FVConfigurationFile::formattedPath(destination));
        EXPECT_EQ(result.status, FVConfigurationReadStatus::Ok) << result.problem;
        return result.configuration;
    }
    std::string settingsBytes() { return exists(settingsPath()) ? readFile(settingsPath()) : "(none)"; }
    std::string settingsPath() { return FVConfigurationFile::formattedPath(destination); }
};

std::vector<std::pair<std::string, int64_t>> sources(const FVConfiguration& c) {
    std::vector<std::pair<std::string, int64_t>> out;
    for (const auto& item : c.sources) out.emplace_back(item->sourcePath(), item->enabled());
    return out;
}

}  // namespace

TEST(ConfigCommand, SourcesAndOptionsAreWrittenWithTheSharedWriter) {
    Fixture f;
    ProcessResult shown = f.config({"show"});
    EXPECT_EQ(shown.exitStatus, 0) << shown.err;
    EXPECT_NE(shown.out.find("none yet"), std::string::npos) << shown.out;
    EXPECT_FALSE(exists(f.settingsPath()));  // show writes nothing

    ProcessResult missing = f.config({"add", "/home/me/Documents/"});
    EXPECT_EQ(missing.exitStatus, 0);
    EXPECT_EQ(missing.err, "ferrovane config: warning: /home/me/Documents does not exist (yet); it will be skipped "
                           "until it does.\n");
    ProcessResult containing = f.config({"add", f.dir.path()});
    EXPECT_EQ(containing.exitStatus, 0);
    EXPECT_NE(containing.err.find(f.dir.path() + " contains the destination"), std::string::npos) << containing.err;
    EXPECT_EQ(f.config({"remove", f.dir.path()}).exitStatus, 0);
    EXPECT_EQ(f.config({"add", "--mode", "exclude", "/home/me/Documents/cache"}).exitStatus, 0);
    EXPECT_EQ(f.config({"add", "/x/node_modules", "--mode=exclude-name"}).exitStatus, 0);
    EXPECT_EQ(f.config({"add", "/old", "--mode", "disabled"}).exitStatus, 0);
    ProcessResult duplicate = f.config({"add", "/home/me/Documents"});
    EXPECT_EQ(duplicate.exitStatus, 1);
    EXPECT_NE(duplicate.err.find("already in the list"), std::string::npos) << duplicate.err;
    EXPECT_EQ(f.config({"remove", "/old"}).exitStatus, 0);
    EXPECT_EQ(f.config({"remove", "/old"}).exitStatus, 1);
    EXPECT_EQ(f.config({"set", "maxThreads", "4"}).exitStatus, 0);
    EXPECT_EQ(f.config({"set", "moveChangedFiles", "yes"}).exitStatus, 0);
    EXPECT_EQ(f.config({"confirm-empty", "/home/me/Documents"}).exitStatus, 0);

    FVConfiguration c = f.read();
    EXPECT_EQ(sources(c), (std::vector<std::pair<std::string, int64_t>>{
                              {"/home/me/Documents", 1}, {"/home/me/Documents/cache", 2}, {"/x/node_modules", 3}}));
    for (const auto& item : c.sources) EXPECT_FALSE(item->value("sizeInMB"));
    // The first change filled in the window's defaults; set values replaced theirs.
    for (const auto& [key, value] : FVConfigurationFile::defaultOptions())
        EXPECT_TRUE(c.settings->contains(key)) << key;
    EXPECT_EQ(c.settings->integerValue("maxThreads"), 4);
    EXPECT_TRUE(c.settings->boolValue("moveChangedFiles"));
    EXPECT_EQ(c.sources[0]->value(FVSourceKey::emptySourceConfirmed), PlistValue(true));
    EXPECT_EQ(c.settings->integerValue("purgeRemovedArchiveDays"), 30);

    shown = f.config({"show"});
    EXPECT_EQ(shown.exitStatus, 0);
    EXPECT_NE(shown.out.find("/home/me/Documents/cache"), std::string::npos);
    EXPECT_NE(shown.out.find("Exclude this name anywhere"), std::string::npos) << shown.out;
    EXPECT_NE(shown.out.find("Schedule: off"), std::string::npos);
}

TEST(ConfigCommand, BadInputIsRefusedAndNothingIsWritten) {
    Fixture f;
    ASSERT_EQ(f.config({"add", "/data"}).exitStatus, 0);
    std::string before = f.settingsBytes();
    const std::vector<std::vector<std::string>> refused = {
        {"set", "noSuchOption", "1"},     {"set", "maxThreads", "many"},   {"set", "maxThreads", "0"},
        {"set", "moveChangedFiles", "2"}, {"set", "UUID", "X"},            {"set", "automationEnabled", "1"},
        {"add", "relative/path"},         {"add", "/a", "--mode", "all"},  {"add"},
        {"remove", "data"},               {"schedule", "daily", "24:00"},  {"schedule", "daily", "7:60"},
        {"schedule", "daily", "noon"},    {"schedule", "daily", "-1:30"},  {"schedule", "weekly", "someday", "10:00"},
        {"schedule", "weekly", "8", "10:00"}, {"schedule", "hourly"},      {"frobnicate"},
        {"set", "purgeChangedArchiveDays", "0"}, {"set", "purgeRemovedArchiveDays", "thirty"},
        {"confirm-empty", "/elsewhere"},  {"confirm-empty"},
    };
    for (const auto& args : refused) {
        ProcessResult result = f.config(args);
        std::string shown;
        for (const auto& a : args) shown += a + " ";
        EXPECT_EQ(result.exitStatus, 2) << shown;
        EXPECT_NE(result.err.find("ferrovane config: "), std::string::npos) << shown << result.err;
    }
    EXPECT_EQ(f.settingsBytes(), before);
    EXPECT_FALSE(exists(f.calls));
    EXPECT_FALSE(exists(f.jobs));

    ProcessResult relative = runProcess({FERROVANE_EXECUTABLE, "config", "dest", "show"});
    EXPECT_EQ(relative.exitStatus, 2);
    EXPECT_NE(relative.err.find("absolute path"), std::string::npos);

    // A file that is not a configuration is never overwritten.
    writeFile(f.settingsPath(), "not a property list");
    EXPECT_EQ(f.config({"add", "/b"}).exitStatus, 1);
    EXPECT_EQ(readFile(f.settingsPath()), "not a property list");
}

TEST(ConfigCommand, ScheduleWritesUnitsThatStartFerrovaneOnExactlyThisDestination) {
    Fixture f;
    ProcessResult daily = f.config({"schedule", "daily", "3:30"});
    ASSERT_EQ(daily.exitStatus, 0) << daily.err;
    FVConfiguration c = f.read();
    std::string uuid = c.settings->stringValue("UUID").value_or("");
    ASSERT_EQ(uuid.size(), 36u);
    EXPECT_TRUE(c.settings->boolValue("automationEnabled"));
    EXPECT_EQ(c.settings->integerValue("automationTimeHours"), 3);
    EXPECT_EQ(c.settings->integerValue("automationTimeMinutes"), 30);
    EXPECT_EQ(c.settings->integerValue("automationIntervalSelection"), 0);

    std::string label = "com.quillmarsh.ferrovane." + uuid;
    EXPECT_NE(readFile(f.jobs + "/" + label + ".service").find("ExecStart=:" FERROVANE_EXECUTABLE " " + f.destination),
              std::string::npos);
    EXPECT_NE(readFile(f.jobs + "/" + label + ".timer").find("OnCalendar=*-*-* 03:30:00"), std::string::npos);
    std::string user = getuid() == 0 ? "" : "--user ";
    EXPECT_EQ(readFile(f.calls), user + "disable --now " + label + ".timer\n" + user + "daemon-reload\n" + user +
                                     "enable --now " + label + ".timer\n");

    ASSERT_EQ(f.config({"schedule", "weekly", "Friday", "22:15"}).exitStatus, 0);
    EXPECT_NE(readFile(f.jobs + "/" + label + ".timer").find("OnCalendar=Fri *-*-* 22:15:00"), std::string::npos);
    EXPECT_EQ(f.read().settings->stringValue("UUID"), uuid);  // created once
    ProcessResult shown = f.config({"show"});
    EXPECT_NE(shown.out.find("weekly on Friday at 22:15"), std::string::npos) << shown.out;

    ASSERT_EQ(f.config({"schedule", "off"}).exitStatus, 0);
    EXPECT_FALSE(exists(f.jobs + "/" + label + ".service"));
    EXPECT_FALSE(exists(f.jobs + "/" + label + ".timer"));
    EXPECT_FALSE(f.read().settings->boolValue("automationEnabled"));
}

TEST(ConfigCommand, JobFailuresAreReportedAndTheSettingIsKept) {
    Fixture f;
    // systemctl failing, then missing: the unit files and the setting are still written.
    ProcessResult failing = f.config({"schedule", "daily", "14:00"}, {{"FAKE_SYSTEMCTL_STATUS", "1"}});
    EXPECT_EQ(failing.exitStatus, 1);
    EXPECT_NE(failing.err.find("could not be set up"), std::string::npos) << failing.err;
    EXPECT_TRUE(f.read().settings->boolValue("automationEnabled"));

    ProcessResult missing = f.config({"schedule", "daily", "15:00"}, {{"PATH", f.dir / "nowhere"}});
    EXPECT_EQ(missing.exitStatus, 1);
    EXPECT_NE(missing.err.find("systemctl"), std::string::npos) << missing.err;
    EXPECT_EQ(f.read().settings->integerValue("automationTimeHours"), 15);
    std::string uuid = f.read().settings->stringValue("UUID").value_or("");
    EXPECT_TRUE(exists(f.jobs + "/com.quillmarsh.ferrovane." + uuid + ".timer"));

    writeFile(f.dir / "blocker", "");
    ProcessResult blocked = f.config({"schedule", "daily", "16:00"}, {{"FERROVANE_JOB_DIRECTORY", f.dir / "blocker/jobs"}});
    EXPECT_EQ(blocked.exitStatus, 1);
    EXPECT_NE(blocked.err.find("Creation of " + f.dir / "blocker/jobs/" + " failed!"), std::string::npos)
        << blocked.err;
}

TEST(ConfigCommand, UnwritableDestinationIsRefused) {
    Fixture f;
    if (mount("fvtest", f.destination.c_str(), "tmpfs", MS_RDONLY, "size=1m") != 0)
        GTEST_SKIP() << "cannot mount a read-only tmpfs here: " << std::strerror(errno);
    ProcessResult result = f.config({"add", "/data"});
    ProcessResult schedule = f.config({"schedule", "daily", "10:00"});
    umount2(f.destination.c_str(), MNT_DETACH);
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_NE(result.err.find("cannot write to the destination"), std::string::npos) << result.err;
    EXPECT_EQ(schedule.exitStatus, 1);
    EXPECT_FALSE(exists(f.jobs));
}

TEST(ConfigCommand, AChangeWaitsForTheRunningBackupAndASecondRunIsRefused) {
    Fixture f;
    int held = open(f.destination.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(flock(held, LOCK_EX | LOCK_NB), 0);

    ProcessResult run = runProcess({FERROVANE_EXECUTABLE, f.destination, "-noUserNotifications"},
                                   {{"DISPLAY", std::nullopt}, {"FERROVANE_LOG_FILE", f.dir / "Ferrovane.log"}}, 30);
    EXPECT_EQ(run.exitStatus, 75);
    EXPECT_EQ(run.err, "Another Ferrovane run is using this destination: " + f.destination +
                           ". Try again when it has finished.\n");

    std::thread finishing([held] {
        std::this_thread::sleep_for(std::chrono::seconds(1));
        close(held);
    });
    ProcessResult change = f.config({"add", "/data"});
    finishing.join();
    EXPECT_EQ(change.exitStatus, 0) << change.err;
    EXPECT_GE(change.seconds, 0.9) << "the change waited for the lock";
    EXPECT_NE(change.err.find("waiting"), std::string::npos) << change.err;
    EXPECT_EQ(sources(f.read()).size(), 1u);
}
