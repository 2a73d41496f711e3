// The run log and the small formatting helpers.

#include "engine/FVAdditions.h"
#include "engine/FVLog.h"
#include "engine/FVStrings.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

class LogTest : public ::testing::Test {
protected:
    void SetUp() override { setenv("FERROVANE_LOG_FILE", (dir / "logs/Ferrovane.log").c_str(), 1); }
    void TearDown() override {
        FVLog::currentLog().closeLog();
        unsetenv("FERROVANE_LOG_FILE");
    }
    std::vector<std::string> lines() {
        std::vector<std::string> out;
        std::istringstream in(readFile(dir / "logs/Ferrovane.log"));
        for (std::string line; std::getline(in, line);) out.push_back(line);
        return out;
    }
    TempDir dir;
};

}  // namespace

TEST_F(LogTest, AppendsAcrossRunsStopsWhenClosedOrUncreatableAndFollowsTheUser) {
    FVLog& log = FVLog::currentLog();
    log.newLog();  // creates the missing folder
    log.addLogLine("first run");
    log.closeLog();
    log.addLogLine("while closed");
    log.newLog();
    log.addLogLine("second run");
    log.addLogLine("Sync finished (Duration: 1 s).\n");
    log.closeLog();

    auto l = lines();
    ASSERT_EQ(l.size(), 4u);
    EXPECT_NE(l[0].find(": first run"), std::string::npos);
    EXPECT_NE(l[1].find(": second run"), std::string::npos);
    EXPECT_EQ(l[3], "") << "a line ending in a newline leaves an empty line";
    EXPECT_EQ(l[0].rfind(FVDate::logTimeStamp().substr(0, 10), 0), 0u) << "lines start with the time stamp";

    setenv("FERROVANE_LOG_FILE", "/proc/ferrovane-no/Ferrovane.log", 1);
    log.newLog();
    EXPECT_FALSE(log.isOpen()) << "an uncreatable log stays closed";
    log.addLogLine("goes to the system log");
    // Without the variable: the superuser's log, or the user's state folder.
    unsetenv("FERROVANE_LOG_FILE");
    if (geteuid() == 0) {
        EXPECT_EQ(FVLog::logFilePath(), "/var/log/Ferrovane.log");
    } else {
        setenv("XDG_STATE_HOME", "/x/state", 1);
        EXPECT_EQ(FVLog::logFilePath(), "/x/state/Ferrovane/Ferrovane.log");
        unsetenv("XDG_STATE_HOME");
    }
}

TEST_F(LogTest, LinesFromManyThreadsNeverInterleave) {
    FVLog& log = FVLog::currentLog();
    log.newLog();
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t)
        threads.emplace_back([t, &log] {
            for (int i = 0; i < 500; ++i) log.addLogLine("thread " + std::to_string(t) + " line " +
                                                         std::to_string(i) + " " + std::string(200, 'a' + t));
        });
    for (auto& th : threads) th.join();
    log.closeLog();
    auto l = lines();
    ASSERT_EQ(l.size(), 4000u);
    std::set<std::string> seen;
    for (const auto& line : l) {
        auto pos = line.find(": thread ");
        ASSERT_NE(pos, std::string::npos) << line;
        int t = std::stoi(line.substr(pos + 9));
        EXPECT_EQ(line.substr(line.size() - 200), std::string(200, 'a' + t)) << "mixed line: " << line;
        seen.insert(line.substr(pos));
    }
    EXPECT_EQ(seen.size(), 4000u);
}

TEST(Formatting, DiskSizesUseDecimalUnitsAndCountsTheirPlurals) {
    EXPECT_EQ(FVNumber::formattedDiskSizeString(0), "0 bytes");
    EXPECT_EQ(FVNumber::formattedDiskSizeString(1), "1 byte");
    EXPECT_EQ(FVNumber::formattedDiskSizeString(999), "999 bytes");
    EXPECT_EQ(FVNumber::formattedDiskSizeString(1000), "1.0 KB");
    EXPECT_EQ(FVNumber::formattedDiskSizeString(999949), "999.9 KB");
    EXPECT_EQ(FVNumber::formattedDiskSizeString(1500000), "1.5 MB");
    EXPECT_EQ(FVNumber::formattedDiskSizeString(2e9), "2.0 GB");
    EXPECT_EQ(FVNumber::formattedDiskSizeString(2e12), "2000.0 GB");
    EXPECT_EQ(FVNumber::counted(0, "file"), "0 files");
    EXPECT_EQ(FVNumber::counted(1, "file"), "1 file");
    EXPECT_EQ(FVNumber::counted(2, "match", "matches"), "2 matches");
}

TEST(StringTable, FormatsFillTheirPlaceholdersAndUnknownKeysShowThemselves) {
    EXPECT_EQ(FVStrings::format("progresssyncing", "Documents"), "Backing up Documents…");
    EXPECT_EQ(FVStrings::format("currentDurationMinutesSeconds", 1, 0), "1 min 0 s");
    EXPECT_EQ(FVStrings::formatPlural("sourceiteminformationGB", 3, 1.1), "3 items, 1.1 GB");
    // One of a thing has its own form.
    EXPECT_EQ(FVStrings::formatPlural("sourceiteminformationMB", 1, 0.5), "1 item, 0.5 MB");
    EXPECT_EQ(FVStrings::formatPlural("errorpanelmessage", 1), "The backup reported 1 error. It is also in the log.");
    EXPECT_EQ(FVStrings::localized("no-such-key"), "no-such-key");
}
