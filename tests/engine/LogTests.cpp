// The run log: appended, rotated, sent to the journal, and read back as runs.

#include "engine/run/FVDate.h"
#include "engine/run/FVLog.h"
#include "engine/run/FVLogRotation.h"
#include "engine/run/FVRunError.h"
#include "engine/run/FVRunLogReader.h"
#include "engine/run/FVRunStatus.h"
#include "platform/FVJournalSink.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <set>
#include <sstream>
#include <thread>
#include <tuple>
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

TEST_F(LogTest, ALogAboveItsCapIsRotatedAtTheNextRunWithoutLosingALine) {
    const std::string path = dir / "logs/Ferrovane.log";
    FVLog& log = FVLog::currentLog();
    log.newLog();
    log.closeLog();
    // Just above the cap, ending in the last lines of earlier runs.
    ASSERT_EQ(truncate(path.c_str(), FVLogRotation::kCapBytes), 0);
    writeFile(path + ".1", "generation one\n");
    writeFile(path + ".2", "generation two\n");
    writeFile(path + ".3", "oldest, dropped\n");
    int earlierRun = open(path.c_str(), O_WRONLY | O_APPEND);
    ASSERT_GE(earlierRun, 0);
    ASSERT_EQ(write(earlierRun, "end of an earlier run\n", 22), 22);

    log.newLog();
    // A run that started before the rotation goes on writing into the old file.
    ASSERT_EQ(write(earlierRun, "still running\n", 14), 14);
    close(earlierRun);
    log.addLogLine("the new run");
    log.closeLog();

    const std::string old = readFile(path + ".1");
    EXPECT_EQ(old.size(), FVLogRotation::kCapBytes + 22 + 14);
    EXPECT_EQ(old.substr(old.size() - 36), "end of an earlier run\nstill running\n");
    EXPECT_EQ(readFile(path + ".2"), "generation one\n");
    EXPECT_EQ(readFile(path + ".3"), "generation two\n") << "three generations are kept";
    ASSERT_EQ(lines().size(), 1u);
    EXPECT_NE(lines()[0].find(": the new run"), std::string::npos);

    // Runs that start at once rotate it once: none moves a generation the other just made.
    writeFile(path, std::string(100, 'x'));
    std::vector<std::thread> runs;
    for (int i = 0; i < 8; ++i) runs.emplace_back([&] { EXPECT_EQ(FVLogRotation::rotateIfLarger(path, 50), ""); });
    for (auto& run : runs) run.join();
    EXPECT_EQ(readFile(path + ".1"), std::string(100, 'x'));
    EXPECT_EQ(readFile(path + ".2").size(), old.size());
}

// Each kind of error as a run reports it: its log line, its entry in the error list (none for a
// warning of the log alone), and whether it ends the run, whose first fatal line alone is kept.
TEST_F(LogTest, EveryKindOfRunErrorHasItsLineItsListEntryAndAFatalOneEndsTheRun) {
    const std::string failed = "ERROR: Destination failed: Input/output error (EIO) while publishing /d/f. Aborting backup.";
    const std::string replace = "Error: Could not replace destination file: /d/f";
    const std::tuple<FVRunError, std::string, std::string> rows[] = {  // the error, its log line, its entry
        {FVRunError::item("analysing", 0, "/s/a", "Cannot back up /s/a."), "ERROR: Cannot back up /s/a.", "Cannot back up /s/a."},
        {FVRunError::retryOnce("writing", EAGAIN, "/d/f", "Copy failed").retried().listedWithLevel(), "ERROR: Copy failed",
         "ERROR: Copy failed"},
        {FVRunError::atDestination("publishing", EXDEV, "/d/f", replace.substr(7)).taggedAs("Error: ").listedWithLevel(),
         replace, replace},
        {FVRunError::warning("purging", EBUSY, "/d/o", "Kept /d/o").listedWithLevel(), "WARNING: Kept /d/o", "WARNING: Kept /d/o"},
        {FVRunError::warning("copying", 0, "/s/f", "/s/f changed").loggedOnly().listedWithLevel(), "WARNING: /s/f changed", ""},
        {FVRunError::atDestination("publishing", EIO, "/d/f", replace.substr(7)).taggedAs("Error: "), failed, failed},
        {FVRunError::atDestination("creating", EROFS, "/d/g", "Not created"), "Aborting sync...", ""},
    };
    FVLog::currentLog().newLog();
    FVRunStatus status(false, [] {});
    std::vector<std::string> logged, listed;
    for (const auto& [error, line, entry] : rows) {
        const bool fatal = error.kind == FVRunError::Kind::Fatal;
        EXPECT_EQ(status.report(error), fatal) << line;
        EXPECT_EQ(status.isCancelled(), fatal) << line;
        logged.push_back(line);
        if (fatal) logged.push_back("Aborting sync...");
        if (!entry.empty()) listed.push_back(entry);
    }
    logged.erase(logged.end() - 2);  // the second fatal error: the run had ended
    EXPECT_EQ(status.errorMessages(), listed);
    std::vector<std::string> lines = this->lines();
    for (std::string& line : lines) line.erase(0, line.find(": ") + 2);
    EXPECT_EQ(lines, logged);
}

TEST(JournalSink, EntriesCarryTheDestinationTheRunAndAPriorityAndOnlyUnderSystemd) {
    using Fields = std::vector<std::string>;
    EXPECT_EQ(FVJournalSink::fields("ERROR: Copy failed: /a\n", "/media/x", "2026-11-24 09.00.00 +0000"),
              (Fields{"MESSAGE=ERROR: Copy failed: /a", "PRIORITY=3", "SYSLOG_IDENTIFIER=ferrovane",
                      "FERROVANE_DESTINATION=/media/x", "FERROVANE_RUN_STAMP=2026-11-24 09.00.00 +0000"}));
    EXPECT_EQ(FVJournalSink::fields("Sync finished (Duration: 1 s).\n", "/media/x", ""),
              (Fields{"MESSAGE=Sync finished (Duration: 1 s).", "PRIORITY=6", "SYSLOG_IDENTIFIER=ferrovane",
                      "FERROVANE_DESTINATION=/media/x"}));

    // systemd names the stream it connected; a program started from there on a terminal is not on it.
    struct stat st {};
    ASSERT_EQ(fstat(STDERR_FILENO, &st), 0);
    setenv("JOURNAL_STREAM", (std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino)).c_str(), 1);
    EXPECT_TRUE(FVJournalSink::connected());
    setenv("JOURNAL_STREAM", (std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino + 1)).c_str(), 1);
    EXPECT_FALSE(FVJournalSink::connected());
    unsetenv("JOURNAL_STREAM");
    EXPECT_FALSE(FVJournalSink::connected());
}

TEST(RunLogReaderTest, SplitsTheLogIntoEachDestinationsRunsWithTheirOutcomesCountsAndErrorsFirst) {
    const std::string text =
        "2026-11-20 10:00:00: Thinning removed 2 runs\n"  // before any run: belongs to none
        "2026-11-20 10:00:01: Ferrovane 1.0(7) starting sync to: /media/disk (one) (ext4)\n"
        "2026-11-20 10:00:02: Source finished analysing: /home/a (12 items changed).\n"
        "2026-11-20 10:00:03: ERROR: Cannot read file: /home/a/key (Permission denied)\n"
        "2026-11-20 10:00:04: Source finished analysing: /home/b (3 items changed).\n"
        "2026-11-20 10:00:05: \n"
        "Destination volume unmounted unexpectedly!\n"
        "\n"
        "2026-11-20 10:00:06: Sync cancelled.\n"
        "\n"
        "2026-11-20 11:00:00: Ferrovane 1.0(7) starting sync to: /media/other (ext4)\n"
        "2026-11-20 11:00:01: Sync finished (Duration: 1 s).\n"
        "2026-11-20 12:00:00: Ferrovane cannot sync to: /media/disk (one)\n"
        "2026-11-20 12:00:00: ERROR: The destination is read-only\n"
        "2026-11-20 12:00:00: Sync cancelled: nothing was changed.\n"
        "2026-11-20 13:00:00: Ferrovane cannot sync to: /media/disk (one)\n"
        "2026-11-20 13:00:00: Sync stopped before copying: not enough room.\n"
        "2026-11-20 14:00:00: Ferrovane 1.0(7) starting restore from: /media/disk (one)\n"
        "2026-11-20 14:00:01: Restore finished: 5 files (1 KB), 0 replaced items moved aside, 0 errors.\n"
        "2026-11-20 15:00:00: Verify of /media/disk (one): no problems\n"
        "2026-11-20 16:00:00: Ferrovane 1.0(7) starting sync to: /media/disk (one) (ext4)\n"
        "2026-11-20 16:00:01: Source started analysing: /home/a\n";
    const std::vector<FVLoggedRun> runs = FVRunLogReader::parse(text);
    ASSERT_EQ(runs.size(), 6u);
    using Outcome = FVLoggedRun::Outcome;
    const FVLoggedRun& stopped = runs[0];
    EXPECT_EQ(stopped.destination, "/media/disk (one)");
    EXPECT_EQ(stopped.time, "2026-11-20 10:00:01");
    EXPECT_EQ(stopped.outcome, Outcome::Stopped);
    EXPECT_EQ(stopped.changedItems, 15u);
    ASSERT_EQ(stopped.errorCount, 2u);
    EXPECT_EQ(stopped.lines[0], "10:00:03 ERROR: Cannot read file: /home/a/key (Permission denied)");
    EXPECT_EQ(stopped.lines[1], "Destination volume unmounted unexpectedly!");
    EXPECT_EQ(stopped.lines[2], "10:00:01 Ferrovane 1.0(7) starting sync to: /media/disk (one) (ext4)");
    EXPECT_EQ(stopped.lines.back(), "10:00:06 Sync cancelled.");
    EXPECT_EQ(runs[1].outcome, Outcome::Finished);
    EXPECT_EQ(runs[2].outcome, Outcome::Refused);
    EXPECT_EQ(runs[2].errorCount, 1u);
    EXPECT_EQ(runs[3].outcome, Outcome::NoRoom);
    EXPECT_EQ(runs[4].kind, FVLoggedRun::Kind::Restore);
    EXPECT_EQ(runs[4].changedItems, 5u);
    EXPECT_EQ(runs[4].lines.size(), 2u) << "the verify after it is no part of it";
    EXPECT_EQ(runs[5].outcome, Outcome::Unfinished);

    // From the file: only that destination's, newest first, at most as many as asked; a read
    // from the middle of the file drops the cut line.
    TempDir dir;
    writeFile(dir / "Ferrovane.log", text);
    std::string problem;
    std::vector<FVLoggedRun> recent = FVRunLogReader::recentRuns(dir / "Ferrovane.log", "/media/disk (one)", 3, &problem);
    ASSERT_EQ(recent.size(), 3u);
    EXPECT_EQ(recent[0].time, "2026-11-20 16:00:00");
    EXPECT_EQ(recent[2].time, "2026-11-20 13:00:00");
    recent = FVRunLogReader::recentRuns(dir / "Ferrovane.log", "/media/disk (one)", 10, &problem,
                                        text.size() - text.find("2026-11-20 14:00:00") - 5);
    ASSERT_EQ(recent.size(), 1u);
    EXPECT_EQ(recent[0].time, "2026-11-20 16:00:00");
    EXPECT_TRUE(FVRunLogReader::recentRuns(dir / "none.log", "/media/disk (one)", 10, &problem).empty());
    EXPECT_TRUE(problem.empty()) << "no log yet is no problem";
    FVRunLogReader::recentRuns(dir.path(), "/media/disk (one)", 10, &problem);
    EXPECT_FALSE(problem.empty()) << "a folder cannot be read as the log";
}
