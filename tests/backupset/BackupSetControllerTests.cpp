// The source list model: modes and derived lists, order-keeping inserts and moves, and the
// background size measurement on real folders (staleness, removal, mounts, the summary line).

#include "backupset/BackupSetController.h"
#include "engine/run/FVStrings.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

#include <chrono>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

// A main queue the test drains on its own thread.
class TestQueue final : public FVMainQueue {
public:
    void post(std::function<void()> work) override {
        std::lock_guard lock(mutex_);
        work_.push_back(std::move(work));
    }
    // Runs posted work until pred holds; false after the timeout.
    bool runUntil(const std::function<bool()>& pred, double seconds = 20) {
        auto deadline = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (!pred()) {
            if (std::chrono::steady_clock::now() > deadline) return false;
            std::deque<std::function<void()>> batch;
            {
                std::lock_guard lock(mutex_);
                batch.swap(work_);
            }
            for (auto& work : batch) work();
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return true;
    }

private:
    std::mutex mutex_;
    std::deque<std::function<void()>> work_;
};

std::vector<std::string> paths(const BackupSetController& controller) {
    std::vector<std::string> out;
    for (const auto& item : controller.arrangedObjects()) out.push_back(item->sourcePath());
    return out;
}

// A file of the given logical size without using the disk.
void sparseFile(const std::string& path, off_t bytes) {
    int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_TRUNC, 0644);
    ASSERT_GE(fd, 0) << path;
    ASSERT_EQ(ftruncate(fd, bytes), 0);
    close(fd);
}

std::optional<double> sizeOf(const FVSourceItemPtr& item) {
    auto v = item->value(FVSourceKey::sizeInMB);
    if (!v) return std::nullopt;
    return v->doubleValue();
}

}  // namespace

TEST(BackupSetController, ModesDeriveThePathListsAndDuplicatesAreRefused) {
    BackupSetController controller;
    controller.setDisableSizeEvaluation(true);
    int listChanges = 0;
    controller.setChangeHandler([&](BackupSetChange change) { listChanges += change == BackupSetChange::List; });

    EXPECT_TRUE(controller.addBackupPath("/data/photos", FVSourceMode::Backup, 0));
    EXPECT_TRUE(controller.addBackupPath("/data/old", FVSourceMode::Disabled, 1));
    EXPECT_TRUE(controller.addBackupPath("/data/photos/raw", FVSourceMode::ExcludePath, 2));
    EXPECT_TRUE(controller.addBackupPath("/anywhere/node_modules", FVSourceMode::ExcludeName, 3));
    EXPECT_FALSE(controller.addBackupPath("/data/photos", FVSourceMode::ExcludePath, 0));
    EXPECT_EQ(listChanges, 5);  // the refused add still rebuilds and reports

    EXPECT_EQ(paths(controller), (std::vector<std::string>{"/data/photos", "/data/old", "/data/photos/raw",
                                                           "/anywhere/node_modules"}));
    EXPECT_EQ(controller.backupSetPaths(), (std::vector<std::string>{"/data/photos", "/data/old"}));
    EXPECT_EQ(controller.excludePaths(), (std::vector<std::string>{"/data/photos/raw", "node_modules"}));
    EXPECT_EQ(controller.arrangedObjects()[3]->value(FVSourceKey::sourcePathComponent)->string()[0],
              "node_modules");

    // Changing a mode in place and re-evaluating moves the path between the lists.
    controller.arrangedObjects()[1]->setValue(FVSourceKey::enabled, int64_t{2});
    controller.evaluateItemModeChange();
    EXPECT_EQ(controller.backupSetPaths(), (std::vector<std::string>{"/data/photos"}));
    EXPECT_EQ(controller.excludePaths().front(), "/data/old");

    controller.removeItemsAtIndexes({0, 2});
    EXPECT_EQ(paths(controller), (std::vector<std::string>{"/data/old", "/anywhere/node_modules"}));
    EXPECT_TRUE(controller.backupSetPaths().empty());

    // Items loaded from a configuration are the list's own objects, named by their path.
    auto loaded = FVSourceItem::make("/c/", FVSourceMode::Backup);
    loaded->setValue(FVSourceKey::sourcePathComponent, "stored name is never trusted");
    controller.addBackupItems({loaded});
    EXPECT_EQ(controller.arrangedObjects().back(), loaded);  // the same object, not a copy
    EXPECT_EQ(*loaded->value(FVSourceKey::sourcePathComponent)->string(), "c");
}

TEST(BackupSetController, InsertsAndMovesKeepTheOrderOfTheMovedRows) {
    BackupSetController controller;
    controller.setDisableSizeEvaluation(true);
    controller.addBackupPaths({"/a", "/b", "/c"}, 0);
    EXPECT_EQ(controller.addBackupPaths({"/x", "/b", "/y"}, 1), 2u);
    EXPECT_EQ(paths(controller), (std::vector<std::string>{"/a", "/x", "/y", "/b", "/c"}));

    struct Case {
        std::vector<size_t> from;
        size_t to;
        const char* expected;
        size_t firstMoved;
    };
    const Case cases[] = {
        {{0, 2}, 5, "bdeac", 3},     // both above the drop row
        {{4, 1}, 0, "beacd", 0},     // both below, given out of order
        {{0, 4}, 2, "baecd", 1},     // one on each side
        {{1, 3}, 3, "acbde", 2},     // one of them at the drop row
        {{2, 2, 9}, 2, "abcde", 2},  // onto itself; duplicates and bad indexes ignored
    };
    for (const Case& c : cases) {
        BackupSetController moved;
        moved.setDisableSizeEvaluation(true);
        moved.addBackupPaths({"/a", "/b", "/c", "/d", "/e"}, 0);
        size_t first = moved.moveObjectsInArrangedObjectsFromIndexes(c.from, c.to);
        std::string names;
        for (const auto& p : paths(moved)) names += p.substr(1);
        EXPECT_EQ(names, c.expected) << "move to " << c.to;
        EXPECT_EQ(first, c.firstMoved) << "move to " << c.to;
        EXPECT_EQ(moved.backupSetPaths(), paths(moved));
    }
}

TEST(BackupSetController, MeasuresBackupItemsOnlyAndHonoursExclusions) {
    TempDir dir;
    makeDirs(dir / "docs/sub");
    makeDirs(dir / "docs/cache");
    sparseFile(dir / "docs/a.bin", 2'000'000);
    sparseFile(dir / "docs/sub/b.bin", 500'000);
    sparseFile(dir / "docs/cache/c.bin", 7'000'000);
    sparseFile(dir / "docs/sub/x.tmp", 3'000'000);
    ASSERT_EQ(symlink("a.bin", (dir / "docs/link").c_str()), 0);
    sparseFile(dir / "single.bin", 1'250'000);
    makeDirs(dir / "disabled");
    sparseFile(dir / "disabled/d.bin", 9'000'000);

    TestQueue queue;
    BackupSetController controller(&queue);
    int sizeChanges = 0;
    controller.setChangeHandler([&](BackupSetChange change) { sizeChanges += change == BackupSetChange::Sizes; });
    controller.addBackupPath(dir / "docs", FVSourceMode::Backup, 0);
    controller.addBackupPath(dir / "single.bin", FVSourceMode::Backup, 1);
    controller.addBackupPath(dir / "disabled", FVSourceMode::Disabled, 2);
    controller.addBackupPath(dir / "docs/cache", FVSourceMode::ExcludePath, 3);
    controller.addBackupPath("x.tmp", FVSourceMode::ExcludeName, 4);

    auto items = controller.arrangedObjects();
    std::string expected = FVStrings::format("sourceiteminformationMB", 5ul, 3.75);
    // Size changes arrive through the main queue.
    ASSERT_TRUE(queue.runUntil([&] { return controller.totalSizeString() == expected && sizeChanges > 0; }))
        << controller.totalSizeString();
    EXPECT_DOUBLE_EQ(*sizeOf(items[0]), 2.5);
    EXPECT_DOUBLE_EQ(*sizeOf(items[1]), 1.25);
    EXPECT_EQ(sizeOf(items[2]).value_or(-1.0), -1.0);  // disabled: never measured

    // A known size is not walked again: a new file shows only after the size goes stale.
    sparseFile(dir / "docs/new.bin", 1'000'000);
    controller.addBackupPath(dir / "other", FVSourceMode::Disabled, 5);
    std::string unchanged = FVStrings::format("sourceiteminformationMB", 6ul, 3.75);
    ASSERT_TRUE(queue.runUntil([&] { return controller.totalSizeString() == unchanged; }));
    controller.evaluateItemModeChange();
    std::string grown = FVStrings::format("sourceiteminformationMB", 6ul, 4.75);
    ASSERT_TRUE(queue.runUntil([&] { return controller.totalSizeString() == grown; }))
        << controller.totalSizeString();
}

// Results made stale or of removed items are checked through the controller below.
TEST(BackupSetController, AMeasurementStopsAtOnceWhenCancelledAndCountsNothingExcludedMissingOrMountedBelow) {
    TempDir dir;
    makeDirs(dir / "tree");
    for (int i = 0; i < 50; ++i) sparseFile(dir / ("tree/f" + std::to_string(i)), 1'000'000);
    int visited = 0;
    auto never = [] { return false; };
    auto afterThree = [&] { return ++visited > 3; };
    EXPECT_EQ(BackupSetController::sizeOfPathInMB(dir / "tree", nullptr, nullptr, afterThree, never), -1.0);
    EXPECT_EQ(visited, 4);
    EXPECT_EQ(BackupSetController::sizeOfPathInMB(dir / "missing", nullptr, nullptr, never, never), 0.0);
    std::vector<std::string> excludeTree{dir / "tree"};
    EXPECT_EQ(BackupSetController::sizeOfPathInMB(dir / "tree", &excludeTree, nullptr, never, never), 0.0);

    // Files of another mount below the item are not its own.
    makeDirs(dir / "vol/mnt");
    sparseFile(dir / "vol/here", 2'000'000);
    if (mount("fvtest", (dir / "vol/mnt").c_str(), "tmpfs", 0, "size=4m") != 0)
        GTEST_SKIP() << "cannot mount a tmpfs here: " << strerror(errno);
    sparseFile(dir / "vol/mnt/there", 3'000'000);
    const double size = BackupSetController::sizeOfPathInMB(dir / "vol", nullptr, nullptr, never, never);
    umount2((dir / "vol/mnt").c_str(), MNT_DETACH);
    EXPECT_DOUBLE_EQ(size, 2.0);
}

TEST(BackupSetController, ChangesDuringMeasurementNeverLeaveAStaleResult) {
    TempDir dir;
    makeDirs(dir / "tree/big");
    for (int i = 0; i < 2000; ++i) sparseFile(dir / ("tree/big/f" + std::to_string(i)), 1'000'000);
    sparseFile(dir / "tree/small", 1'000'000);
    makeDirs(dir / "gone");
    for (int i = 0; i < 2000; ++i) sparseFile(dir / ("gone/f" + std::to_string(i)), 1'000);

    TestQueue queue;
    BackupSetController controller(&queue);
    auto gone = FVSourceItem::make(dir / "gone", FVSourceMode::Backup);
    auto tree = FVSourceItem::make(dir / "tree", FVSourceMode::Backup);
    gone->setValue(FVSourceKey::sizeInMB, -1.0);
    tree->setValue(FVSourceKey::sizeInMB, -1.0);
    controller.addBackupItems({gone, tree});
    auto items = controller.arrangedObjects();
    // The worker removes the stale mark when it starts walking (or has already stored a size).
    // Then remove that item and exclude most of the other one: whatever the timing, no result
    // from before these changes may be kept.
    ASSERT_TRUE(queue.runUntil([&] { return sizeOf(items[0]).value_or(0) != -1.0; }));
    controller.removeItems({items[0]});
    controller.addBackupPath(dir / "tree/big", FVSourceMode::ExcludePath, 1);

    std::string expected = FVStrings::format("sourceiteminformationMB", 2ul, 1.0);
    ASSERT_TRUE(queue.runUntil([&] { return controller.totalSizeString() == expected; }))
        << controller.totalSizeString();
    EXPECT_EQ(*sizeOf(items[0]), -1.0);
    EXPECT_DOUBLE_EQ(*sizeOf(items[1]), 1.0);
}
