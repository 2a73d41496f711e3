// "ferrovane search" as a user meets it: the built executable on destinations laid out as the
// backup runs file their archives.

#include "cli/DestinationFixture.h"
#include "support/DatedFile.h"
#include "support/ProcessRunner.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

class SearchCommand : public ::testing::Test {
protected:
    ProcessResult search(std::vector<std::string> args, std::vector<std::string> prefix = {}) {
        args.insert(args.begin(), {FERROVANE_EXECUTABLE, "search"});
        args.insert(args.begin(), prefix.begin(), prefix.end());
        return runProcess(args, {{"DISPLAY", std::nullopt}, {"WAYLAND_DISPLAY", std::nullopt}, {"TZ", "UTC"}});
    }
    std::string file(const std::string& relative, const char* utcTime) {
        return writeDatedFile(dest + "/" + relative, relative, utcTime);
    }
    TempDir dir;
    std::string dest = dir / "dest";
};

}  // namespace

TEST_F(SearchCommand, ListsEachFileOnceWithItsCurrentCopyThenItsVersionsByRunNewestFirst) {
    // A current copy older than its archived version (a restore brought an old one back) is still
    // the current one.
    file("Documents/Letters/Tax Letter.txt", "2021-06-01 10:00");
    file("__changed/2021-07-02 09.00.00 +0200/Documents/Letters/Tax Letter.txt", "2021-06-20 08:30");
    // The archive folders' stamps say the opposite of the files' own times: the runs decide.
    file("__removed/2021-06-01 09.00.00 +0200/Documents/Letters/tax letter old.txt", "2021-05-01 12:00");
    file("__changed/2021-07-03 09.00.00 +0200/Documents/Letters/tax letter old.txt", "2021-04-01 12:00");
    file("Documents/Letters/letter.txt", "2021-07-05 10:00");  // only one of the two words
    file(".Trash/tax letter.txt", "2021-07-05 10:00");

    auto result = search({dest, "LETTER tax"});

    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.out, dest + "/Documents/Letters/Tax Letter.txt\n"
                          "  current                     2021-06-01 10:00  " + dest + "/Documents/Letters/Tax Letter.txt\n"
                          "  2021-07-02 09.00.00 +0200   2021-06-20 08:30  " + dest + "/__changed/2021-07-02 09.00.00 +0200/Documents/Letters/Tax Letter.txt\n"
                          "\n" +
                          dest + "/Documents/Letters/tax letter old.txt\n"
                          "  2021-07-03 09.00.00 +0200   2021-04-01 12:00  " + dest + "/__changed/2021-07-03 09.00.00 +0200/Documents/Letters/tax letter old.txt\n"
                          "  2021-06-01 09.00.00 +0200   2021-05-01 12:00  " + dest + "/__removed/2021-06-01 09.00.00 +0200/Documents/Letters/tax letter old.txt\n");
}

TEST_F(SearchCommand, ExitStatusSeparatesMatchesNoneAndBadUsage) {
    file("Documents/report.txt", "2021-07-05 10:00");

    EXPECT_EQ(search({dest, "report"}).exitStatus, 0);
    for (const char* text : {"invoice", "report  txt", " report", "report "}) {
        auto none = search({dest, text});
        EXPECT_EQ(none.exitStatus, 1) << text;
        EXPECT_EQ(none.out, "") << text;
        EXPECT_NE(none.err.find("no file name"), std::string::npos) << text;
    }

    auto tooShort = search({dest, "re"});
    EXPECT_EQ(tooShort.exitStatus, 2);
    EXPECT_NE(tooShort.err.find("at least 3 bytes"), std::string::npos);
    // Several words need no quotes.
    EXPECT_EQ(search({dest, "TXT", "report"}).exitStatus, 0);

    auto missing = search({dir / "nowhere", "report"});
    EXPECT_EQ(missing.exitStatus, 2);
    EXPECT_NE(missing.err.find(dir / "nowhere"), std::string::npos);
    EXPECT_NE(missing.err.find("No such file or directory"), std::string::npos);
}

TEST_F(SearchCommand, NamesThatWouldDriveTheTerminalAreEscaped) {
    file("evil\x1B]0;owned\x07 report", "2021-07-05 10:00");
    file("latin1 r\xE9port report", "2021-07-05 10:00");
    file("back\\slash report", "2021-07-05 10:00");

    auto result = search({dest, "report"});

    ASSERT_EQ(result.exitStatus, 0);
    EXPECT_NE(result.out.find("/evil\\x1b]0;owned\\x07 report\n"), std::string::npos) << result.out;
    EXPECT_NE(result.out.find("/latin1 r\\xe9port report\n"), std::string::npos);
    EXPECT_NE(result.out.find("/back\\\\slash report\n"), std::string::npos);
    for (char c : result.out) EXPECT_TRUE(c == '\n' || static_cast<unsigned char>(c) >= 0x20) << int(c);
    EXPECT_EQ(result.out.find('\xE9'), std::string::npos);
}

TEST_F(SearchCommand, UnreadableFoldersArePassedOver) {
    file("open/report.txt", "2021-07-05 10:00");
    file("closed/report.txt", "2021-07-05 10:00");
    file("closed/inner/report.txt", "2021-07-05 10:00");
    ASSERT_EQ(chmod((dest + "/closed").c_str(), 0), 0);
    std::vector<std::string> asUser;
    if (geteuid() == 0) {  // the superuser reads everything: search as nobody
        if (access("/usr/bin/setpriv", X_OK) != 0) GTEST_SKIP() << "setpriv is needed to drop root";
        ASSERT_EQ(chmod(dir.path().c_str(), 0755), 0);
        asUser = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    }

    auto result = search({dest, "report"}, asUser);

    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.out, dest + "/open/report.txt\n  current                     2021-07-05 10:00  " + dest + "/open/report.txt\n");
    chmod((dest + "/closed").c_str(), 0755);
}

namespace {

class SearchAfterRuns : public DestinationFixture {
protected:
    // Each version of a file a minute apart from every other, so that the order is the times'.
    void write(const std::string& relative, const std::string& content) {
        makeDirs((source + "/" + relative).substr(0, (source + "/" + relative).rfind('/')));
        writeFile(source + "/" + relative, content);
        ASSERT_TRUE(setModificationTime(source + "/" + relative, 1'700'000'000 + 60 * ++versions_));
    }
    void backUp() {
        auto result = run();
        ASSERT_EQ(result.exitStatus, 0) << result.err;
    }
    ProcessResult search(const std::string& text) { return ferrovane({"search", destination, text}); }

private:
    int versions_ = 0;
};

}  // namespace

TEST_F(SearchAfterRuns, TheRecordAnswersAsTheWalkOfTheSameDestination) {
    PlistDict options = defaults();
    options.set("moveChangedFiles", int64_t{1});
    configure({{source, FVSourceMode::Backup}}, options);
    for (const char* name : {"a report.txt", "b report.txt", "reports/c report.txt", "reports/d.txt", "keep report"})
        write(name, name);
    backUp();
    write("a report.txt", "changed");
    std::filesystem::remove_all(source + "/reports");
    backUp();
    write("reports/c report.txt", "back again");
    std::filesystem::remove(source + "/b report.txt");
    write("a report.txt", "changed again");
    backUp();
    ASSERT_FALSE(std::filesystem::is_empty(destination + "/__runs"));

    for (const char* text : {"report", "c report", "reports", "d.txt"}) {
        auto recorded = search(text);
        std::filesystem::rename(destination + "/__runs", dir / "runs aside");
        auto walked = search(text);
        std::filesystem::rename(dir / "runs aside", destination + "/__runs");
        EXPECT_EQ(recorded.exitStatus, walked.exitStatus) << text;
        EXPECT_EQ(recorded.out, walked.out) << text;
        EXPECT_EQ(recorded.err, walked.err) << text;
    }
    // The record did answer: what each later run displaced was kept.
    EXPECT_FALSE(std::filesystem::is_empty(dir / "cache/ferrovane/displaced"));
    EXPECT_NE(search("c report").out.find("/__removed/"), std::string::npos);
    EXPECT_NE(search("a report").out.find("/__changed/"), std::string::npos);
}
