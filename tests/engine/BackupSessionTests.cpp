// The session over several items: progress across steps, the cleanup decision, results written
// into the items, cancellation in the middle, and the copy-worker callbacks of the job.

#include "engine/config/FVConfigurationFile.h"
#include "engine/session/FVBackupSession.h"
#include "support/TempDir.h"
#include "support/TreeLiteral.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <tuple>
#include <utility>

#include <sys/xattr.h>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

class Recorder : public FVBackupSessionDelegate {
public:
    void backupSessionProgressDidChange(FVBackupSession& session) override {
        {
            std::lock_guard lock(mutex_);
            progress.push_back(session.progressPercent());
            if (cancelWhenTaskContains.empty() || cancelRequested ||
                session.currentTaskDescription().find(cancelWhenTaskContains) == std::string::npos)
                return;
            cancelRequested = true;
        }
        session.cancel();  // reports progress itself, so not under the lock
    }
    void backupSessionDidFinish(FVBackupSession&) override { end("finished"); }
    void backupSessionDidCancel(FVBackupSession&) override { end("cancelled"); }
    void backupSessionWouldChange(FVBackupSession&, const std::string& line) override {
        std::lock_guard lock(mutex_);
        planned.push_back(line);
    }

    std::string wait() {
        std::unique_lock lock(mutex_);
        done_.wait_for(lock, std::chrono::seconds(60), [&] { return !outcome.empty(); });
        return outcome;
    }

    std::vector<float> progress;
    std::vector<std::string> planned;
    std::string cancelWhenTaskContains;
    bool cancelRequested = false;
    std::string outcome;

private:
    void end(const char* what) {
        std::lock_guard lock(mutex_);
        outcome = what;
        done_.notify_all();
    }
    std::mutex mutex_;
    std::condition_variable done_;
};

class BackupSessionTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("FERROVANE_LOG_FILE", (dir / "Ferrovane.log").c_str(), 1);
        makeDirs(dir / "dest");
        for (const char* name : {"one", "two", "three"}) {
            makeDirs(dir / "src" + "/" + name + "/sub");
            for (int i = 0; i < 150; ++i)
                writeFile(dir / "src" + "/" + name + "/sub/f" + std::to_string(i), std::string(i * 10, 'z'));
        }
        PlistDict defaults;
        FVConfigurationFile::applyDefaultOptions(defaults);
        options = FVOptionTable::read(defaults).options;
    }
    void TearDown() override { unsetenv("FERROVANE_LOG_FILE"); }

    std::vector<FVSourceItemPtr> items(std::initializer_list<std::pair<const char*, FVSourceMode>> list) {
        std::vector<FVSourceItemPtr> out;
        for (const auto& [name, mode] : list) out.push_back(FVSourceItem::make(dir / "src" + "/" + name, mode));
        return out;
    }

    std::string run(FVBackupSession& session, Recorder& recorder, std::vector<FVSourceItemPtr> set) {
        session.setDelegate(&recorder);
        session.setDestinationPath(dir / "dest");
        session.setBackupOptions(options);
        session.setBackupSet(std::move(set));
        session.start();
        return recorder.wait();
    }

    TempDir dir;
    FVOptions options;
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
    Recorder recorder;
    auto set = items({{"one", FVSourceMode::Backup}, {"two", FVSourceMode::Backup}, {"three", FVSourceMode::Backup}});
    ASSERT_EQ(run(session, recorder, set), "finished");
    EXPECT_FALSE(session.shouldPerformCleanup());
    EXPECT_EQ(session.sessionTaskCount(), 3u);
    expectWithinSteps(recorder.progress, 3);
    for (const auto& item : set) {
        EXPECT_TRUE(item->value("lastBackupDate").has_value());
        EXPECT_EQ(item->integerValue("totalFilesCount"), 152) << "the item's folder, sub and 150 files";
        EXPECT_EQ(item->integerValue("updatedFilesCount"), 152);
    }
    EXPECT_TRUE(session.errorMessages().empty());
    // Folders are checked, not copied: the run's summary counts files once they are published.
    const FVRunTotals totals = session.summary().totals;
    EXPECT_EQ(std::pair(totals.checked, totals.copied), std::pair(uint64_t{456}, uint64_t{450}));
    EXPECT_FALSE(session.summary().stopped);

    FVBackupSession nothing;
    Recorder idle;
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
    Recorder recorder;
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

TEST_F(BackupSessionTest, CancelInTheSecondItemKeepsTheFirstItemsResultsOnly) {
    FVBackupSession session;
    Recorder recorder;
    recorder.cancelWhenTaskContains = "two";
    auto set = items({{"one", FVSourceMode::Backup}, {"two", FVSourceMode::Backup}, {"three", FVSourceMode::Backup}});
    ASSERT_EQ(run(session, recorder, set), "cancelled");
    EXPECT_TRUE(set[0]->value("lastBackupDate").has_value());
    EXPECT_FALSE(set[1]->value("lastBackupDate").has_value());
    EXPECT_FALSE(set[2]->value("lastBackupDate").has_value());
    EXPECT_EQ(session.currentTaskDescription(), "Backup stopped.");
    EXPECT_FALSE(exists(dir / "dest/three"));
    EXPECT_EQ(session.summary().line().rfind("Stopped: checked ", 0), 0u) << session.summary().line();
}

TEST(RunSummary, OneLineInWordsForEveryKindOfRun) {
    const std::vector<std::pair<FVRunSummary, std::string>> cases = {
        {{{12345, 12, 1'234'567, 3, 1}, 0, 64.4, false, false},
         "Checked 12,345 items, copied 12 (1.2 MB), archived 3, deleted 1, 0 errors in 1 min 4 s."},
        {{{1, 1, 999, 0, 0}, 1, 0.44, true, false},
         "Checked 1 item, would copy 1 (999 bytes), archive 0, delete 0, 1 error in 0.4 s."},
        {{{1'000'000, 0, 0, 0, 0}, 2, 7260, false, true},
         "Stopped: checked 1,000,000 items, copied 0 (0 bytes), archived 0, deleted 0, 2 errors in 2 h 1 min."},
        {{{100, 0, 0, 0, 0}, 0, 12.4, false, false},
         "Checked 100 items, copied 0 (0 bytes), archived 0, deleted 0, 0 errors in 12 s."},
    };
    for (const auto& [summary, line] : cases) EXPECT_EQ(summary.line(), line);
}

TEST_F(BackupSessionTest, ADryRunReportsEachDecisionAndChangesNothing) {
    options.moveChangedFiles = true;
    options.purgeRemovedArchive = true;
    auto set = items({{"one", FVSourceMode::Backup}});
    for (FVBackupSession realRun, again; FVBackupSession* session : {&realRun, &again}) {
        Recorder recorder;
        ASSERT_EQ(run(*session, recorder, set), "finished");
    }
    const std::string source = dir / "src/one/sub", mirror = dir / "dest/one/sub";
    const std::string oldArchive = dir / "dest/__removed/2000-01-01 00.00.00 +0000";
    makeDirs(oldArchive);
    timespec old[2] = {{946684800, 0}, {946684800, 0}};
    utimensat(AT_FDCWD, oldArchive.c_str(), old, 0);
    struct stat folder {};
    stat(source.c_str(), &folder);
    writeFile(source + "/f1", "changed");
    std::filesystem::remove(source + "/f2");
    writeFile(source + "/new", "new");
    timespec folderTimes[2] = {folder.st_atim, folder.st_mtim};
    utimensat(AT_FDCWD, source.c_str(), folderTimes, 0);
    setxattr(mirror.c_str(), "user.kept", "1", 1, 0);  // ignored by the decision, part of the digest
    const std::string before = treeDigest(dir / "dest");
    const PlistDict results = set[0]->snapshot();

    FVBackupSession session;
    session.setDryRun(true);
    Recorder recorder;
    ASSERT_EQ(run(session, recorder, set), "finished");
    EXPECT_EQ(treeDigest(dir / "dest"), before);
    EXPECT_EQ(set[0]->snapshot(), results) << "no run results";
    // The removed file would go to __removed (the default), so it is reported as archived. The
    // space line only comes when the quick check cannot tell that the run fits: on a disk more
    // than half full, as here where source and destination share one.
    std::erase_if(recorder.planned, [](const std::string& line) { return line.starts_with("Space on "); });
    std::sort(recorder.planned.begin(), recorder.planned.end());
    EXPECT_EQ(recorder.planned, (std::vector<std::string>{"Would archive: " + mirror + "/f1", "Would archive: " + mirror + "/f2",
                                                          "Would copy: " + source + "/f1", "Would copy: " + source + "/new",
                                                          "Would purge: " + oldArchive}));
    const FVRunSummary& summary = session.summary();
    EXPECT_EQ(std::tuple(summary.dryRun, summary.totals.copied, summary.totals.bytesCopied, summary.totals.archived),
              std::tuple(true, uint64_t{2}, uint64_t{10}, uint64_t{2}));
}

TEST_F(BackupSessionTest, ARunThatCannotFitStopsBeforeCopyingAndACancelWhileItLooksAheadWritesNothing) {
    options.keepFreeSpace = true;
    options.keepFreeSpaceMB = int64_t{1000000000};  // a reserve beyond any disk: the run looks ahead and cannot fit
    auto set = items({{"one", FVSourceMode::Backup}});
    FVBackupSession session;
    Recorder recorder;
    ASSERT_EQ(run(session, recorder, set), "cancelled");
    EXPECT_TRUE(session.stoppedForSpace());
    const std::vector<std::string> errors = session.errorMessages();
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_EQ(errors[0].rfind("Not enough room on " + (dir / "dest") + ": this run writes ", 0), 0u) << errors[0];
    EXPECT_TRUE(std::filesystem::is_empty(dir / "dest"));

    FVBackupSession cancelled;
    Recorder stopper;
    stopper.cancelWhenTaskContains = "fits";
    ASSERT_EQ(run(cancelled, stopper, set), "cancelled");
    EXPECT_TRUE(stopper.cancelRequested);
    EXPECT_FALSE(cancelled.stoppedForSpace());
    EXPECT_TRUE(cancelled.errorMessages().empty());
    EXPECT_TRUE(std::filesystem::is_empty(dir / "dest"));
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
    Recorder recorder;
    recorder.cancelWhenTaskContains = "before-hook";
    const auto started = std::chrono::steady_clock::now();
    ASSERT_EQ(run(session, recorder, items({{"one", FVSourceMode::Backup}})), "cancelled");
    EXPECT_LT(std::chrono::steady_clock::now() - started, std::chrono::seconds(30));
    EXPECT_FALSE(session.skippedByBeforeHook());
    EXPECT_EQ(readFile(dir / "after"), "stopped window\n");
    EXPECT_FALSE(exists(dir / "dest/one"));
}
