// Thinning a destination's runs by the retention policy, on a destination whose runs are laid out
// as real runs leave them: a mirror, archive folders and records. A kept point in time keeps every
// version it needs; the rest goes, records first. What a preview names and leaves is the fault
// suite's retention part.

#include "engine/archive/FVArchivedRuns.h"
#include "engine/archive/FVRunThinning.h"
#include "engine/run/FVDate.h"
#include "engine/run/FVLog.h"
#include "support/RecordedRun.h"
#include "support/TempDir.h"
#include "support/TreeLiteral.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <set>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

std::time_t localTime(int daysBack, int hour) {
    std::time_t now = std::time(nullptr);
    struct tm parts {};
    localtime_r(&now, &parts);
    parts.tm_mday -= daysBack;
    parts.tm_hour = hour;
    parts.tm_min = parts.tm_sec = 0;
    parts.tm_isdst = -1;
    return mktime(&parts);
}

}  // namespace

TEST(RunThinning, KeptPointsInTimeKeepTheirVersionsAndTheRestGoesRecordsFirst) {
    TempDir dir;
    setenv("FERROVANE_LOG_FILE", (dir / "Ferrovane.log").c_str(), 1);
    const std::string dest = dir / "dest";
    const std::vector<std::string> sources = {"/home/me/src"};
    auto archive = [&](const char* kind, const std::string& stamp, const std::string& item) {
        const std::string to = dest + "/" + kind + "/" + stamp + "/src/" + item;
        makeDirs(to.substr(0, to.rfind('/')));
        ASSERT_EQ(std::rename((dest + "/src/" + item).c_str(), to.c_str()), 0) << item;
    };
    // Before records existed, then: a day-old kept run (S1), two runs of one day of which only the
    // later stays (S2 goes), and today's.
    const std::string old = FVDate::archiveStamp(localTime(4000, 12));
    const std::string s1 = FVDate::archiveStamp(localTime(3, 12)), s2 = FVDate::archiveStamp(localTime(2, 8)),
                      s3 = FVDate::archiveStamp(localTime(2, 20)), s4 = FVDate::archiveStamp(localTime(0, 2));
    // Runs of today that left archives but no record (it could not be written) are runs of the
    // last days all the same.
    const std::string l1 = FVDate::archiveStamp(localTime(0, 0)), l2 = FVDate::archiveStamp(localTime(0, 1));
    buildTree(dest, {{"__changed/" + old + "/src/ancient", "ancient"}});
    buildTree(dest, {{"src/a", "a1"}, {"src/b", "b1"}, {"src/dir/x", "x1"}, {"src/dir/empty/", ""}});
    recordRun(dest, s1, sources);
    archive("__changed", s2, "a");
    buildTree(dest, {{"src/a", "a2 longer"}, {"src/dir/y", "y2"}});
    recordRun(dest, s2, sources);
    // S3 displaces what S2 left: a's second version only S2 needed; b, and the folder with x,
    // are as S1 recorded them, and S1 stays.
    archive("__changed", s3, "a");
    archive("__changed", s3, "b");
    archive("__removed", s3, "dir");
    buildTree(dest, {{"src/a", "a3 longer still"}, {"src/b", "b3 longer"}});
    recordRun(dest, s3, sources);
    buildTree(dest, {{"__changed/" + l1 + "/src/p", "p1"}, {"__changed/" + l2 + "/src/p", "p2"}});
    archive("__changed", s4, "a");
    buildTree(dest, {{"src/a", "a4"}});
    recordRun(dest, s4, sources);
    const std::string mirror = treeDigest(dest + "/src");

    FVRunSettings settings;
    settings.targetPath = dest;
    settings.options.syncMode = 1;
    settings.options.retentionEnabled = true;
    settings.options.retentionKeepAllDays = 1;
    settings.options.retentionDailyWeeks = 1;
    settings.options.retentionWeeklyMonths = 0;
    settings.options.retentionMonthlyYears = 1;
    settings.archiveFolderName = FVDate::archiveStamp(localTime(0, 3));
    const FVDestinationTree tree(dest);
    FVLog::currentLog().newLog();
    // The preview's order is the run's: the record of a run goes before the versions it needed.
    settings.dryRun = true;
    std::vector<std::string> planned;
    FVRunStatus preview(false, {});
    preview.setPlannedChangeListener([&](const std::string& line) { planned.push_back(line); });
    FVRunThinning(settings, tree, preview).run();
    ASSERT_EQ(planned.size(), 4u);
    EXPECT_EQ(planned[0], "Would purge: " + dest + "/__runs/" + s2 + ".fvmanifest");
    settings.dryRun = false;
    FVRunStatus status(false, {});
    FVRunThinning(settings, tree, status).run();
    FVLog::currentLog().closeLog();
    EXPECT_TRUE(status.errorMessages().empty());
    std::set<std::string> records;
    for (const FVArchivedRun& run : FVArchivedRuns(FVMirrorLayout::archivesOf(dest)).list())
        if (run.record) records.insert(run.stamp);
    EXPECT_EQ(records, (std::set<std::string>{s1, s3, s4}));
    for (const std::string& gone : {"/__changed/" + s3 + "/src/a", "/__removed/" + s3 + "/src/dir/y", "/__changed/" + old})
        EXPECT_FALSE(exists(dest + gone)) << gone;
    EXPECT_EQ(readFile(dest + "/__changed/" + s2 + "/src/a"), "a1");
    EXPECT_EQ(readFile(dest + "/__changed/" + s3 + "/src/b"), "b1");
    EXPECT_EQ(readFile(dest + "/__removed/" + s3 + "/src/dir/x"), "x1");
    EXPECT_TRUE(exists(dest + "/__removed/" + s3 + "/src/dir/empty"));
    EXPECT_EQ(readFile(dest + "/__changed/" + s4 + "/src/a"), "a3 longer still");
    EXPECT_EQ(readFile(dest + "/__changed/" + l2 + "/src/p"), "p2");
    EXPECT_EQ(treeDigest(dest + "/src"), mirror);
    unsetenv("FERROVANE_LOG_FILE");
}
