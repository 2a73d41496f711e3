// Overdue backups told from outside the window: "ferrovane check-overdue" over this user's jobs,
// with a private session bus whose notification server records what it is told, and the line
// that "ferrovane runs" prints first.

#include "engine/config/FVConfigurationFile.h"
#include "scheduling/FVJobStatus.h"
#include "support/JsonQuery.h"
#include "support/PrivateBus.h"
#include "support/ProcessRunner.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <ctime>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

constexpr std::time_t kDay = 86400;

class OverdueNotice : public ::testing::Test {
protected:
    void SetUp() override {
        if (!bus.ok() || !silentBus.ok()) GTEST_SKIP() << "dbus-daemon could not be started";
        makeDirs(jobs);
    }

    // A destination with an identity; its job files as the job manager names them.
    void destination(const std::string& path, const std::string& uuid, bool scheduled, const char* jobSuffix) {
        makeDirs(path);
        PlistDict options;
        FVConfigurationFile::applyDefaultOptions(options);
        options.set("UUID", uuid);
        options.set("automationEnabled", scheduled);
        ASSERT_TRUE(FVConfigurationFile::writeSettingsForSourceConfiguration(
            {FVSourceItem::make(source, FVSourceMode::Backup)}, options, FVConfigurationFile::formattedPath(path)));
        writeFile(jobs + "/com.quillmarsh.ferrovane." + uuid + jobSuffix, "");
    }

    void attempt(const std::string& uuid, const std::string& path, std::time_t at, FVJobTrigger trigger,
                 FVJobOutcome outcome) {
        ASSERT_TRUE(store.record(uuid, path, {at, trigger, outcome, ""}, 7));
    }

    ProcessResult ferrovane(std::vector<std::string> args, const PrivateBus& on) {
        args.insert(args.begin(), FERROVANE_EXECUTABLE);
        return runProcess(args, {{"DISPLAY", std::nullopt},
                                 {"TZ", "UTC"},
                                 {"DBUS_SESSION_BUS_ADDRESS", on.address()},
                                 {"FERROVANE_JOB_DIRECTORY", jobs},
                                 {"FERROVANE_JOB_STATUS_DIRECTORY", store.folder()},
                                 {"FERROVANE_LOG_FILE", dir / "Ferrovane.log"}},
                          60);
    }

    static std::string utcTime(std::time_t at, const char* format = "%a %Y-%m-%d %H:%M") {
        struct tm parts {};
        gmtime_r(&at, &parts);
        char text[64];
        return std::string(text, std::strftime(text, sizeof text, format, &parts));
    }

    TempDir dir;
    PrivateBus bus{NOTIFICATION_RECORDER};
    PrivateBus silentBus{""};  // a session bus without a notification server
    std::string jobs = dir / "jobs", source = dir / "src";
    FVJobStatusStore store{dir / "state"};
    const std::time_t now = std::time(nullptr);
};

}  // namespace

TEST_F(OverdueNotice, OnlyOverdueScheduledDestinationsAreToldOnceADayWithTheDateAndTheReason) {
    makeDirs(source);
    writeFile(source + "/a.txt", "a");
    const std::time_t tenDaysAgo = now - 10 * kDay - 3600;
    // Missed: its scheduled runs found no disk.
    const std::string missed = dir / "missed", missedID = "11111111-1111-4111-8111-111111111111";
    destination(missed, missedID, true, ".timer");
    attempt(missedID, missed, tenDaysAgo, FVJobTrigger::Manual, FVJobOutcome::Finished);
    attempt(missedID, missed, now - kDay, FVJobTrigger::Schedule, FVJobOutcome::NotConnected);
    // Backed up yesterday by hand: the destination's own record outweighs the old status.
    const std::string fresh = dir / "fresh", freshID = "22222222-2222-4222-8222-222222222222";
    destination(fresh, freshID, true, ".timer");
    attempt(freshID, fresh, tenDaysAgo, FVJobTrigger::Schedule, FVJobOutcome::Finished);
    ASSERT_EQ(ferrovane({fresh, "-noUserNotifications"}, silentBus).exitStatus, 0);
    // Only verified monthly: its backups do not start by themselves.
    const std::string manual = dir / "manual", manualID = "33333333-3333-4333-8333-333333333333";
    destination(manual, manualID, false, "-verify.timer");
    attempt(manualID, manual, tenDaysAgo, FVJobTrigger::Manual, FVJobOutcome::Finished);
    // Unplugged since its last good run: judged by its status alone.
    const std::string away = dir / "away", awayID = "44444444-4444-4444-8444-444444444444";
    writeFile(jobs + "/com.quillmarsh.ferrovane." + awayID + ".timer", "");
    attempt(awayID, away, tenDaysAgo, FVJobTrigger::Schedule, FVJobOutcome::Finished);

    const std::string missedText =
        "No backup to " + missed + " since " + utcTime(tenDaysAgo) + " (10 days): the disk was not connected.";
    const std::string awayText =
        "No backup to " + away + " since " + utcTime(tenDaysAgo) + " (10 days): the disk is not connected.";

    // Nobody there to take the notices: they are not counted as told.
    ProcessResult unseen = ferrovane({"check-overdue"}, silentBus);
    ASSERT_EQ(unseen.exitStatus, 0) << unseen.err;
    EXPECT_NE(unseen.out.find(missed + "\n    Overdue: " + missedText + "\n"), std::string::npos) << unseen.out;
    EXPECT_EQ(store.read(missedID)->lastOverdueNotice, 0);

    ASSERT_EQ(ferrovane({"check-overdue"}, bus).exitStatus, 0);
    std::vector<RecordedNotification> told = bus.recordedNotifications();
    ASSERT_EQ(told.size(), 2u);
    EXPECT_EQ(told[0].text, "Backups overdue: missed\t" + missedText);
    EXPECT_EQ(told[1].text, "Backups overdue: away\t" + awayText);
    EXPECT_EQ(told[0].urgency, 2) << "stays until dismissed";
    EXPECT_GE(store.read(missedID)->lastOverdueNotice, now);
    EXPECT_EQ(store.read(freshID)->lastOverdueNotice, 0);

    // The same day: told already.
    ProcessResult again = ferrovane({"check-overdue", "--json"}, bus);
    EXPECT_EQ(bus.recordedNotifications().size(), 2u);
    EXPECT_EQ(jsonQuery(again.out, "[(x['uuid'][:1], x['scheduled'], x['overdue'] is not None, x['notified']) "
                                   "for x in d['destinations']]"),
              "[('1', True, True, False), ('2', True, False, False), ('3', False, False, False), "
              "('4', True, True, False)]")
        << again.out;
    EXPECT_EQ(jsonQuery(again.out, "d['destinations'][0]['overdue']['lastGoodRun']"),
              utcTime(tenDaysAgo, "%Y-%m-%dT%H:%M:%S+00:00"));

    // "ferrovane runs" says it first, and --json gives the notice or null.
    ProcessResult runs = ferrovane({"runs", missed}, bus);
    EXPECT_EQ(runs.out.rfind("Overdue: " + missedText + "\n\n", 0), 0u) << runs.out;
    EXPECT_EQ(jsonQuery(ferrovane({"runs", missed, "--json"}, bus).out, "d['overdue']['days']"), "10");
    EXPECT_EQ(ferrovane({"runs", fresh}, bus).out.find("Overdue"), std::string::npos);
    EXPECT_EQ(jsonQuery(ferrovane({"runs", fresh, "--json"}, bus).out, "d['overdue']"), "None");
}
