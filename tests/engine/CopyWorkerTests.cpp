// The copy worker's pool: start, order, width, progress, finish and cancel. These run under
// ThreadSanitizer too; the chunk hook gives them fixed points instead of sleeps.

#include "engine/copy/FVFileCopyWorker.h"
#include "support/TempDir.h"
#include "support/TreeLiteral.h"
#include "CopyWorkerHarness.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>
#include <chrono>

#include <cmath>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <thread>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

struct PoolTest : ::testing::Test {
    void SetUp() override {
        makeDirs(dir / "src");
        makeDirs(dir / "dst");
        worker.setDelegate(&delegate);
        worker.setDestinationRoot(dir / "dst");
    }
    // Files of one byte: each makes exactly one chunk-hook call.
    std::vector<std::string> makeFiles(int count) {
        std::vector<std::string> names;
        for (int i = 0; i < count; ++i) {
            names.push_back("f" + std::to_string(i));
            writeFile(dir / ("src/" + names.back()), "x");
        }
        return names;
    }
    void add(const std::string& name) { addPair(worker, dir / ("src/" + name), dir / ("dst/" + name)); }
    void waitUntilCopied(uint64_t n) {
        while (worker.copiedFiles() < n) std::this_thread::yield();
    }

    TempDir dir;
    RecordingDelegate delegate;
    FVFileCopyWorker worker;
};

}  // namespace

// The session's end finishes at once when no thread is left: here the cancelled ones already
// ended with their own cancel step. A pair without items is dropped.
TEST_F(PoolTest, SessionEndWithoutThreadsFinishesAtOnce) {
    worker.startCopySession();
    worker.addCopyItemFromSource(nullptr, FVFileSystemItem::itemWithPath("/x"));
    EXPECT_EQ(worker.requestedFiles(), 0u);
    worker.cancel();
    for (const std::string& name : makeFiles(1)) add(name);
    ASSERT_TRUE(delegate.waitForEnd());
    EXPECT_EQ(delegate.cancelled(), 1);
    worker.endCopySession();
    EXPECT_EQ(delegate.finished(), 1);
    EXPECT_FALSE(exists(dir / "dst/f0"));
    EXPECT_TRUE(delegate.progress().empty());
}

TEST_F(PoolTest, OneThreadCopiesInTheOrderAdded) {
    std::mutex mutex;
    std::vector<std::string> order;
    worker.setMaxThreads(1);
    worker.setChunkHook([&](const std::string& path, uint64_t) {
        std::lock_guard lock(mutex);
        order.push_back(path.substr(path.find_last_of('/') + 1));
    });
    worker.startCopySession();
    std::vector<std::string> names = makeFiles(40);
    for (const std::string& name : names) add(name);
    worker.endCopySession();
    ASSERT_TRUE(delegate.waitForEnd());
    EXPECT_EQ(delegate.finished(), 1);
    EXPECT_EQ(order, names);
    EXPECT_EQ(worker.requestedFiles(), 40u);
    EXPECT_EQ(worker.copiedFiles(), 40u);
    EXPECT_EQ(worker.totalBytesCopied(), 40u);
    EXPECT_EQ(delegate.overwritten().size(), 40u);
}

TEST_F(PoolTest, OutOfRangeWidthFallsBackToTwoThreads) {
    // Each copy waits in its first chunk until a second one runs beside it (unless it is the
    // last), so that two threads surely meet whatever the load; a third, were there one, would
    // join them in the short wait that follows.
    std::mutex mutex;
    std::condition_variable changed;
    int inside = 0, most = 0, entered = 0;
    worker.setMaxThreads(16);
    worker.setChunkHook([&](const std::string&, uint64_t) {
        std::unique_lock lock(mutex);
        most = std::max(most, ++inside);
        ++entered;
        changed.notify_all();
        changed.wait_for(lock, std::chrono::seconds(60), [&] { return inside >= 2 || entered == 6; });
        changed.wait_for(lock, std::chrono::milliseconds(100), [&] { return inside >= 3; });
        --inside;
        changed.notify_all();
    });
    worker.startCopySession();
    // Each into a folder of its own: the files of one folder go to one thread at a time.
    for (const std::string& name : makeFiles(6)) addPair(worker, dir / ("src/" + name), dir / ("dst/" + name + "/x"));
    worker.endCopySession();
    ASSERT_TRUE(delegate.waitForEnd());
    EXPECT_EQ(most, 2);
}

TEST_F(PoolTest, ProgressWaitsForAHundredPairsWhileTheSessionRuns) {
    worker.startCopySession();
    for (const std::string& name : makeFiles(10)) add(name);
    waitUntilCopied(10);
    EXPECT_TRUE(delegate.progress().empty());
    worker.endCopySession();
    ASSERT_TRUE(delegate.waitForEnd());
    EXPECT_EQ(delegate.progress(), std::vector<float>{1.0f});
}

TEST_F(PoolTest, ProgressMovesInStepsAboveFivePercent) {
    worker.setMaxThreads(3);
    worker.startCopySession();
    for (const std::string& name : makeFiles(300)) add(name);
    worker.endCopySession();
    ASSERT_TRUE(delegate.waitForEnd());
    std::vector<float> progress = delegate.progress();
    ASSERT_FALSE(progress.empty());
    // Reports come only for moves of more than 5 %; while pairs are still being added the
    // fraction may also fall.
    float last = 0;
    for (float p : progress) {
        EXPECT_GT(std::fabs(p - last), 0.05f);
        last = p;
    }
    // A last step of 5 % or less is not reported.
    EXPECT_GE(progress.back(), 0.95f);
}

TEST_F(PoolTest, NoProgressForADelegateThatDoesNotAnswerIt) {
    delegate.answersProgress = false;
    delegate.answersWillOverwrite = false;
    worker.startCopySession();
    for (const std::string& name : makeFiles(120)) add(name);
    worker.endCopySession();
    ASSERT_TRUE(delegate.waitForEnd());
    EXPECT_TRUE(delegate.progress().empty());
    EXPECT_TRUE(delegate.overwritten().empty());
}

TEST_F(PoolTest, CancelDuringALargeCopyDropsTheRestAndTheFolderMetadata) {
    buildTree(dir / "src", {{"big", std::string(8 << 20, 'b')}, {"folder/", ""}});
    struct timespec old[2] = {{1000000000, 0}, {1000000000, 0}};
    utimensat(AT_FDCWD, (dir / "src/folder").c_str(), old, 0);
    // The cancel comes from the only thread once the session is closed, so that no other thread
    // can take the small files first and no second batch of threads starts after it.
    std::atomic<bool> allQueued{false};
    worker.setChunkHook([&](const std::string& path, uint64_t) {
        if (!path.ends_with("/big")) return;
        while (!allQueued) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        worker.cancel();
    });
    worker.setMaxThreads(1);
    worker.startCopySession();
    addPair(worker, dir / "src/folder", dir / "dst/folder");
    add("big");
    for (const std::string& name : makeFiles(20)) add(name);
    worker.endCopySession();
    allQueued = true;
    ASSERT_TRUE(delegate.waitForEnd());
    EXPECT_EQ(delegate.cancelled(), 1);
    EXPECT_EQ(delegate.finished(), 0);
    EXPECT_TRUE(worker.isCancelled());
    EXPECT_FALSE(exists(dir / "dst/big"));
    EXPECT_TRUE(delegate.messages().empty()) << delegate.messages()[0];
    struct stat st {};
    ASSERT_EQ(stat((dir / "dst/folder").c_str(), &st), 0);
    EXPECT_NE(st.st_mtim.tv_sec, 1000000000);
    for (const auto& entry : std::filesystem::directory_iterator(dir / "dst"))
        EXPECT_FALSE(entry.path().filename().string().starts_with(kTemporaryFilePrefix));
    EXPECT_LT(worker.copiedFiles(), 22u);
}

TEST(CopyWorker, MayBeDestroyedFromItsFinishCallback) {
    TempDir dir;
    makeDirs(dir / "dst");
    writeFile(dir / "a", "a");
    struct Owner : FVFileCopyWorkerDelegate {
        std::unique_ptr<FVFileCopyWorker> worker = std::make_unique<FVFileCopyWorker>();
        std::mutex mutex;
        std::condition_variable done;
        bool finished = false;
        void copyWorkerDidFinishCopy() override {
            worker.reset();
            std::lock_guard lock(mutex);
            finished = true;
            done.notify_all();
        }
        void copyWorkerDidCancel() override {}
    } owner;
    owner.worker->setDelegate(&owner);
    owner.worker->setDestinationRoot(dir / "dst");
    owner.worker->startCopySession();
    addPair(*owner.worker, dir / "a", dir / "dst/a");
    owner.worker->endCopySession();
    std::unique_lock lock(owner.mutex);
    ASSERT_TRUE(owner.done.wait_for(lock, std::chrono::seconds(30), [&] { return owner.finished; }));
    EXPECT_EQ(readFile(dir / "dst/a"), "a");
}
