// A restore cancelled in the middle of a file leaves neither that file nor its temporary copy.

#include "engine/copy/FVFileCopyWorker.h"
#include "engine/restore/FVRestorePlan.h"
#include "engine/restore/FVRestoreRun.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <filesystem>

using namespace ferrovane;
using namespace ferrovane::test;
namespace fs = std::filesystem;

TEST(RestoreRun, CancelMidFileLeavesNothingHalfWritten) {
    TempDir dir;
    std::string destination = dir / "dest", target = dir / "out";
    makeDirs(destination + "/docs");
    makeDirs(target);
    writeFile(destination + "/docs/big.bin", std::string(5 * 1048576, 'x'));
    setenv("FERROVANE_LOG_FILE", (dir / "log").c_str(), 1);

    std::vector<FVRestorePlan> plans;
    plans.emplace_back(destination, destination + "/docs", target + "/docs", target);
    ASSERT_EQ(plans[0].fileCount(), 1u);
    FVRestoreRun run(plans, false);
    std::atomic<bool> interrupt{false};
    run.setWorkerSetup([&](FVFileCopyWorker& worker) {
        worker.setChunkHook([&](const std::string&, uint64_t copied) {
            if (copied >= 1048576) worker.cancel();
        });
    });
    FVRestoreRun::Summary summary = run.run(destination, {}, {}, interrupt);

    EXPECT_TRUE(summary.cancelled);
    EXPECT_EQ(summary.files, 0u);
    for (const auto& entry : fs::recursive_directory_iterator(target))
        EXPECT_TRUE(entry.is_directory()) << "left behind: " << entry.path();
    EXPECT_NE(readFile(dir / "log").find("Restore stopped: 0 files"), std::string::npos);
    unsetenv("FERROVANE_LOG_FILE");
}
