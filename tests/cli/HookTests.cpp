// The commands run before and after a run, end to end through the built executable: what the
// after-hook is told, that only a command this user set or approved runs, and that a failing or
// overlong before-hook skips the run or is ended with everything it started.

#include "cli/DestinationFixture.h"
#include "engine/record/FVRunRecords.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

class Hooks : public DestinationFixture {
protected:
    void SetUp() override {
        DestinationFixture::SetUp();
        writeFile(source + "/a", "hello");
        configure({{source, FVSourceMode::Backup}}, defaults());
    }
    void hook(std::vector<std::string> args) {
        args.insert(args.begin(), {"config", destination, "hook"});
        ProcessResult r = ferrovane(args);
        ASSERT_EQ(r.exitStatus, 0) << r.err;
    }
    void set(const std::string& option, const std::string& value) {
        ProcessResult r = ferrovane({"config", destination, "set", option, value});
        ASSERT_EQ(r.exitStatus, 0) << r.err;
    }
    static bool hasLine(const std::string& text, const std::string& line) {
        return ("\n" + text).find("\n" + line + "\n") != std::string::npos;
    }
};

// A process that has ended, or is only waiting to be reaped.
bool isGone(const std::string& pid) {
    std::ifstream stat("/proc/" + pid + "/stat");
    std::string fields;
    std::getline(stat, fields);
    return fields.empty() || fields.find(") Z ") != std::string::npos;
}

}  // namespace

TEST_F(Hooks, TheAfterHookIsToldTheRunAndOnlyACommandThisUserSetRuns) {
    const std::string environment = dir / "after.env";
    hook({"before", "echo started $FERROVANE_TRIGGER $FERROVANE_DRY_RUN"});
    hook({"after", "env > '" + environment + "'"});
    ProcessResult r = run();
    ASSERT_EQ(r.exitStatus, 0) << r.err;
    // Its output goes to standard error and the log, never into standard output.
    EXPECT_TRUE(hasLine(r.err, "started manual 0")) << r.err;
    EXPECT_EQ(r.out.find("started"), std::string::npos);
    EXPECT_NE(readFile(logPath()).find(": before-hook: started manual 0\n"), std::string::npos);

    const std::string seen = readFile(environment);
    for (const std::string& line : {"FERROVANE_DESTINATION=" + destination, std::string("FERROVANE_TRIGGER=manual"),
                                    std::string("FERROVANE_DRY_RUN=0"), std::string("FERROVANE_OUTCOME=finished"),
                                    std::string("FERROVANE_ERRORS=0"), std::string("FERROVANE_BYTES_COPIED=5"),
                                    "FERROVANE_LOG_FILE=" + logPath()})
        EXPECT_TRUE(hasLine(seen, line)) << line << "\n" << seen;
    EXPECT_NE(seen.find("FERROVANE_FILES_COPIED="), std::string::npos);
    EXPECT_FALSE(hasLine(seen, "FERROVANE_FILES_COPIED=0"));
    const std::vector<FVRunRecord> runs = FVRunRecords(destination).list();
    ASSERT_EQ(runs.size(), 1u);
    EXPECT_TRUE(hasLine(seen, "FERROVANE_RUN_STAMP=" + runs.front().stamp)) << seen;

    // The same destination identity with another command, as a disk from elsewhere could carry it.
    const std::string foreign = dir / "foreign";
    FVConfiguration carried = readBack();
    carried.settings->set("afterHook", "touch '" + foreign + "'");
    ASSERT_TRUE(FVConfigurationFile::writeSettingsForSourceConfiguration(
        carried.sources, *carried.settings, FVConfigurationFile::formattedPath(destination)));
    r = run();
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_FALSE(exists(foreign));
    EXPECT_NE(r.err.find("not run: touch '" + foreign + "'. To approve it: ferrovane config '" + destination +
                         "' hook after --approve"),
              std::string::npos) << r.err;
    EXPECT_NE(ferrovane({"config", destination, "show"}).out.find("not approved, does not run"), std::string::npos);
    hook({"after", "--approve"});
    EXPECT_EQ(run().exitStatus, 0);
    EXPECT_TRUE(exists(foreign));
}

TEST_F(Hooks, AFailingBeforeHookSkipsTheRunAndOneOutOfTimeEndsWithWhatItStarted) {
    const std::string afterRan = dir / "after-ran";
    hook({"before", "exit 3"});
    hook({"after", "touch '" + afterRan + "'"});
    ProcessResult r = run();
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.err.find("ferrovane: error: before-hook failed (exit 3): exit 3; the run was skipped\n"), std::string::npos)
        << r.err;
    // Nothing touched: no mirror, no record, no after-hook.
    EXPECT_FALSE(exists(destination + "/src"));
    EXPECT_TRUE(FVRunRecords(destination).list().empty());
    EXPECT_FALSE(exists(afterRan));

    // Past its time the whole group ends, the background child too, and the run goes on.
    const std::string pidFile = dir / "pid";
    set("skipRunWhenBeforeHookFails", "no");
    set("hookTimeoutSeconds", "1");
    hook({"before", "sleep 100 & echo $! > '" + pidFile + "'; wait"});
    const auto started = std::chrono::steady_clock::now();
    r = run();
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(30));
    EXPECT_EQ(r.exitStatus, 1);
    EXPECT_NE(r.err.find("before-hook failed (ran out of time after 1 second): sleep 100"), std::string::npos) << r.err;
    EXPECT_EQ(differences(source + "/", destination + "/src/"), "");
    EXPECT_TRUE(exists(afterRan));
    std::string pid = readFile(pidFile);
    pid.erase(pid.find_last_not_of('\n') + 1);
    EXPECT_TRUE(isGone(pid)) << pid;
}
