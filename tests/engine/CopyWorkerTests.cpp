// The copy worker's pool: start, order, progress, finish and cancel. These run under
// ThreadSanitizer too; the chunk hook gives them fixed points instead of sleeps.

#include "engine/copy/FVFileCopyWorker.h"
#include "support/TempDir.h"
#include "support/TreeLiteral.h"
#include "CopyWorkerHarness.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
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
    TempDir dir;
    RecordingDelegate delegate;
    FVFileCopyWorker worker;
};

}  // namespace

// A cancel ends the session at once, with its one end step; a pair without items is dropped,
// and so is a pair added after the cancel.
TEST_F(PoolTest, ACancelEndsTheSessionAndDropsLaterPairs) {
    worker.startCopySession();
    worker.addCopyItemFromSource(nullptr, FVFileSystemItem::itemWithPath("/x"));
    worker.cancel();
    ASSERT_TRUE(delegate.waitForEnd());
    for (const std::string& name : makeFiles(1)) add(name);
    EXPECT_EQ(worker.requestedFiles(), 0u);
    EXPECT_FALSE(worker.finishCopySession());
    EXPECT_EQ(delegate.cancelled(), 1);
    EXPECT_EQ(delegate.finished(), 0);
    EXPECT_FALSE(exists(dir / "dst/f0"));
    EXPECT_TRUE(delegate.progress().empty());
}

// Progress is reported only for moves of more than 5 % (while pairs are still being added the
// fraction may also fall), so a last step of 5 % or less is not.
TEST_F(PoolTest, OneThreadCopiesInTheOrderAddedAndReportsProgressInStepsAboveFivePercent) {
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
    float last = 0;
    for (float p : delegate.progress()) {
        EXPECT_GT(std::fabs(p - last), 0.05f);
        last = p;
    }
    EXPECT_GE(last, 0.95f);
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
    EXPECT_EQ(temporaryLeftovers(dir / "dst"), std::vector<std::string>{});
    EXPECT_LT(worker.copiedFiles(), 22u);
}
