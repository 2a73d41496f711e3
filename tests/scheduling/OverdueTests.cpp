// The status kept per destination outside it, the last good run a destination shows, when a
// scheduled destination is overdue, and how its schedule is shown.

#include "engine/record/FVRunRecords.h"
#include "engine/run/FVDate.h"
#include "manifest/FVManifestWriter.h"
#include "scheduling/FVJobStatus.h"
#include "scheduling/FVOverdueCheck.h"
#include "scheduling/FVOverdueState.h"
#include "scheduling/FVScheduleSummary.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {
constexpr std::time_t kDay = 86400;
constexpr std::time_t kNow = 1'795'000'000;
const std::string kUUID = "0C2A5E7E-1B6B-4E8A-9A61-4D6E1B0F7A11";
}  // namespace

TEST(JobStatus, AttemptsAreKeptPerIdentityAndTheLastSuccessSurvivesFailures) {
    TempDir dir;
    FVJobStatusStore store(dir / "state/Ferrovane/jobs");
    EXPECT_FALSE(store.read(kUUID));
    ASSERT_TRUE(store.record(kUUID, "/media/disk", {kNow - 3 * kDay, FVJobTrigger::Manual, FVJobOutcome::Warnings, ""}));
    ASSERT_TRUE(store.record(kUUID, "/media/disk", {kNow - kDay, FVJobTrigger::Schedule, FVJobOutcome::NotConnected, "not there"}, 3));
    std::optional<FVJobStatus> status = store.read(kUUID);
    ASSERT_TRUE(status);
    EXPECT_EQ(status->lastSuccess, kNow - 3 * kDay);
    EXPECT_EQ(status->overdueDays, 3);
    struct stat st {};
    ASSERT_EQ(stat((dir / "state/Ferrovane/jobs").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0700u);
    // Identities that could name other files are neither read nor written.
    EXPECT_FALSE(store.record("../x", "/d", {kNow, FVJobTrigger::Manual, FVJobOutcome::Finished, ""}));
}

TEST(OverdueCheck, OnlyScheduledDestinationsPastTheLimitAreToldWithTheReason) {
    FVOptions scheduled;
    scheduled.automationEnabled = true;
    FVJobStatus status;
    status.lastSuccess = kNow - 8 * kDay;
    status.lastAttempt = status.lastScheduledAttempt =
        FVJobAttempt{kNow - kDay, FVJobTrigger::Schedule, FVJobOutcome::NotConnected, ""};

    std::optional<FVOverdueNotice> notice = FVOverdueCheck::evaluate(scheduled, "/media/disk", status, 0, kNow);
    ASSERT_TRUE(notice);
    EXPECT_EQ(notice->days, 8);
    EXPECT_EQ(notice->reason, "the disk was not connected");
    EXPECT_NE(notice->text().find("(8 days): the disk was not connected."), std::string::npos) << notice->text();

    // A newer good run seen at the destination, a shorter gap, a manual-only destination, or
    // notices switched off: nothing to tell.
    EXPECT_FALSE(FVOverdueCheck::evaluate(scheduled, "/d", status, kNow - kDay, kNow));
    status.lastSuccess = kNow - 6 * kDay;
    EXPECT_FALSE(FVOverdueCheck::evaluate(scheduled, "/d", status, 0, kNow));
    status.lastSuccess = kNow - 8 * kDay;
    EXPECT_FALSE(FVOverdueCheck::evaluate(FVOptions{}, "/d", status, 0, kNow));
    FVOptions off = scheduled;
    off.overdueDays = 0;
    EXPECT_FALSE(FVOverdueCheck::evaluate(off, "/d", status, 0, kNow));

    // Connected-only destinations count as scheduled; a never-successful one is told at its first
    // failed attempt, with the run's own message.
    FVOptions connected;
    connected.backUpWhenConnected = true;
    FVJobStatus never;
    never.lastAttempt = never.lastScheduledAttempt =
        FVJobAttempt{kNow - kDay, FVJobTrigger::Connect, FVJobOutcome::Failed, "Could not read configuration"};
    notice = FVOverdueCheck::evaluate(connected, "/d", never, 0, kNow);
    ASSERT_TRUE(notice);
    EXPECT_EQ(notice->text(), "No backup to /d has succeeded yet: the last run failed: Could not read configuration.");
    EXPECT_FALSE(FVOverdueCheck::evaluate(connected, "/d", FVJobStatus{}, 0, kNow));
}

TEST(OverdueState, TheLastGoodRunIsTheNewestCleanCompleteRecordElseTheLeastRecentlyBackedUpSource) {
    TempDir dir;
    FVConfiguration configuration;
    auto item = [&](const char* path, FVSourceMode mode, std::optional<std::time_t> lastBackup) {
        FVSourceItemPtr made = FVSourceItem::make(path, mode);
        if (lastBackup) made->setValue(FVSourceKey::lastBackupDate, PlistDate{static_cast<double>(*lastBackup)});
        configuration.sources.push_back(made);
    };
    item("/home/me/a", FVSourceMode::Backup, kNow - 5 * kDay);
    item("/home/me/b", FVSourceMode::Backup, kNow - 2 * kDay);
    item("/home/me/old", FVSourceMode::Disabled, kNow - 90 * kDay);
    EXPECT_EQ(FVOverdueState::lastGoodRunAt(dir.path(), configuration.sources), kNow - 5 * kDay);
    item("/home/me/new", FVSourceMode::Backup, std::nullopt);
    EXPECT_EQ(FVOverdueState::lastGoodRunAt(dir.path(), configuration.sources), 0) << "a source never backed up";

    // With records, only a complete run without errors counts; the sources' dates no longer do.
    auto record = [&](std::time_t at, FVManifestOutcome outcome, uint64_t errors) {
        std::string problem;
        auto writer = FVManifestWriter::create(FVRunRecords(dir.path()).folder(),
                                               {0, FVDate::archiveStamp(at), 0, "test", {}, true}, &problem);
        ASSERT_TRUE(writer) << problem;
        FVManifestSummary summary;
        summary.outcome = outcome;
        summary.errors = errors;
        ASSERT_TRUE(writer->finish(summary, &problem)) << problem;
    };
    record(kNow - 9 * kDay, FVManifestOutcome::Complete, 0);
    record(kNow - 3 * kDay, FVManifestOutcome::Complete, 2);
    record(kNow - kDay, FVManifestOutcome::Stopped, 0);
    EXPECT_EQ(FVOverdueState::lastGoodRunAt(dir.path(), configuration.sources), kNow - 9 * kDay);
}

TEST(ScheduleSummary, SaysWhenRunsStartAndWhenTheNextIsDue) {
    setenv("TZ", "UTC", 1);
    tzset();
    FVOptions options;
    EXPECT_EQ(FVScheduleSummary::of(options, std::nullopt, kNow).when, "off");
    options.automationEnabled = true;
    options.automationTimeHours = 14;
    options.automationIntervalSelection = 1;
    options.automationWeekdaySelection = 5;
    options.backUpWhenConnected = true;
    FVJobStatus status;
    status.lastScheduledAttempt = FVJobAttempt{kNow - kDay, FVJobTrigger::Connect, FVJobOutcome::NoSpace, ""};
    FVScheduleSummary summary = FVScheduleSummary::of(options, status, kNow);
    EXPECT_EQ(summary.when, "weekly on Friday at 14:00 and when the disk is connected, at most once an hour");
    options.connectedRunIntervalMinutes = 1;
    EXPECT_EQ(FVScheduleSummary::of(options, status, kNow).when.substr(summary.when.find(", at")),
              ", at most once in 1 minute");
    ASSERT_TRUE(summary.nextRun);
    EXPECT_EQ(FVScheduleSummary::localTimeText(*summary.nextRun), "Fri 2026-11-20 14:00");
    EXPECT_EQ(summary.lastScheduledRun, "Tue 2026-11-17 11:06, not enough room on the disk");
    // Today's time already past: tomorrow.
    EXPECT_EQ(FVScheduleSummary::localTimeText(FVScheduleSummary::nextCalendarRun(8, 0, -1, kNow)),
              "Thu 2026-11-19 08:00");
}
