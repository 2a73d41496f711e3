// The session over several items: progress across steps, the cleanup decision, results written
// into the items, and a stop during the before-hook. Stops between items, dry runs and a run that
// cannot fit are the window's, the command line's and the fault suite's.

#include "SessionFixture.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

class BackupSessionTest : public SessionTest {
protected:
    void SetUp() override {
        SessionTest::SetUp();
        for (const char* name : {"one", "two", "three"}) {
            makeDirs(dir / "src" + "/" + name + "/sub");
            for (int i = 0; i < 150; ++i)
                writeFile(dir / "src" + "/" + name + "/sub/f" + std::to_string(i), std::string(i * 10, 'z'));
        }
    }

    std::vector<FVSourceItemPtr> items(std::initializer_list<std::pair<const char*, FVSourceMode>> list) {
        std::vector<FVSourceItemPtr> out;
        for (const auto& [name, mode] : list) out.push_back(FVSourceItem::make(dir / "src" + "/" + name, mode));
        return out;
    }
};

// Each step owns its share of the range; within a step the analysis share may dip once its
// estimate replaces the starting value.
void expectWithinSteps(const std::vector<float>& progress, size_t steps) {
    ASSERT_FALSE(progress.empty());
    float highest = 0;
    for (float p : progress) {
        EXPECT_GE(p, 0.0f);
        EXPECT_LE(p, 100.01f);
        highest = std::max(highest, p);
    }
    EXPECT_GT(highest, 100.0f * (steps - 1) / steps) << "the last step was reported";
}

}  // namespace

TEST_F(BackupSessionTest, ThreeItemsWithoutCleanupFillTheWholeRangeAndNoneRunsTheCleanupOnly) {
    FVBackupSession session;
    SessionRecorder recorder;
    auto set = items({{"one", FVSourceMode::Backup}, {"two", FVSourceMode::Backup}, {"three", FVSourceMode::Backup}});
    ASSERT_EQ(run(session, recorder, set), "finished");
    EXPECT_FALSE(session.shouldPerformCleanup());
    EXPECT_EQ(session.sessionTaskCount(), 3u);
    expectWithinSteps(recorder.progress, 3);
    for (const auto& item : set)
        EXPECT_EQ(item->integerValue("totalFilesCount"), 152) << "the item's folder, sub and 150 files";
    EXPECT_TRUE(session.errorMessages().empty());
    // Folders are checked, not copied: the run's summary counts files once they are published.
    const FVRunTotals totals = session.summary().totals;
    EXPECT_EQ(std::pair(totals.checked, totals.copied), std::pair(uint64_t{456}, uint64_t{450}));

    FVBackupSession nothing;
    SessionRecorder idle;
    ASSERT_EQ(run(nothing, idle, items({{"four", FVSourceMode::Disabled}})), "finished") << "nothing enabled";
    EXPECT_EQ(nothing.sessionTaskCount(), 1u) << "only the cleanup of the now filled destination";
}

TEST_F(BackupSessionTest, AFilledDestinationAddsTheCleanupStepAndPurgesOnlyArchivesOfTheKindStillWritten) {
    writeFile(dir / "dest/stray.txt", "a user file");
    const std::string removed = dir / "dest/__removed/2000-01-01 00.00.00 +0000";
    const std::string changed = dir / "dest/__changed/2000-01-01 00.00.00 +0000";
    timespec old[2] = {{946684800, 0}, {946684800, 0}};
    for (const std::string& archive : {removed, changed}) makeDirs(archive), utimensat(AT_FDCWD, archive.c_str(), old, 0);
    options.purgeRemovedArchive = true;
    options.purgeChangedArchive = true;  // without moveChangedFiles: no effect
    FVBackupSession session;
    SessionRecorder recorder;
    auto set = items({{"one", FVSourceMode::Backup}, {"two", FVSourceMode::Disabled}});
    set[1]->setValue("totalFilesCount", int64_t{1000});
    ASSERT_EQ(run(session, recorder, set), "finished");
    EXPECT_TRUE(session.shouldPerformCleanup());
    EXPECT_EQ(session.sessionTaskCount(), 2u);
    expectWithinSteps(recorder.progress, 2);
    EXPECT_TRUE(exists(dir / "dest/stray.txt")) << "only mirrors of sources are cleaned";
    EXPECT_FALSE(set[1]->value("lastBackupDate").has_value());
    EXPECT_FALSE(exists(removed));
    EXPECT_TRUE(exists(changed));
    EXPECT_NE(readFile(dir / "Ferrovane.log").find("Removed archive " + removed), std::string::npos);
}

// A run stopped while its before-hook runs ends the hook at once, touches nothing, and its
// after-hook is told that it stopped.
TEST_F(BackupSessionTest, ACancelDuringTheBeforeHookEndsItAndTheAfterHookHearsTheRunStopped) {
    const std::string uuid = "0F1E2D3C-4B5A-4978-8695-A4B3C2D1E0F9";
    FVHookApprovals approvals(dir / "approvals");
    options.UUID = uuid;
    options.beforeHook = "sleep 60";
    options.afterHook = "echo $FERROVANE_OUTCOME $FERROVANE_TRIGGER > '" + dir / "after" + "'";
    ASSERT_TRUE(approvals.approve(uuid, FVHookKind::Before, options.beforeHook));
    ASSERT_TRUE(approvals.approve(uuid, FVHookKind::After, options.afterHook));
    FVBackupSession session;
    session.setHookApprovals(approvals);
    SessionRecorder recorder;
    recorder.cancelWhenTaskContains = "before-hook";
    const auto started = std::chrono::steady_clock::now();
    ASSERT_EQ(run(session, recorder, items({{"one", FVSourceMode::Backup}})), "cancelled");
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(30));
    EXPECT_FALSE(session.skippedByBeforeHook());
    EXPECT_EQ(readFile(dir / "after"), "stopped window\n");
    EXPECT_FALSE(exists(dir / "dest/one"));
}
