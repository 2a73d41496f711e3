// "ferrovane search" as a user meets it: the built executable on destinations laid out as the
// backup runs file their archives.

#include "support/ProcessRunner.h"
#include "support/DatedFile.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <regex>
#include <sstream>

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

TEST_F(SearchCommand, ListsEachFileOnceWithItsVersionsNewestFirst) {
    file("Documents/Letters/Tax Letter.txt", "2021-07-05 10:00");
    file("__changed/2021-07-02 09.00.00 +0200/Documents/Letters/Tax Letter.txt", "2021-06-20 08:30");
    // The archive folders' stamps say the opposite of the files' own times: the files' times decide.
    file("__removed/2021-06-01 09.00.00 +0200/Documents/Letters/tax letter old.txt", "2021-05-01 12:00");
    file("__changed/2021-07-03 09.00.00 +0200/Documents/Letters/tax letter old.txt", "2021-04-01 12:00");
    file("Documents/Letters/letter.txt", "2021-07-05 10:00");  // only one of the two words
    file(".Trash/tax letter.txt", "2021-07-05 10:00");

    auto result = search({dest, "LETTER tax"});

    EXPECT_EQ(result.exitStatus, 0) << result.err;
    EXPECT_EQ(result.out, dest + "/Documents/Letters/Tax Letter.txt\n"
                          "  2021-07-05 10:00  " + dest + "/Documents/Letters/Tax Letter.txt\n"
                          "  2021-06-20 08:30  " + dest + "/__changed/2021-07-02 09.00.00 +0200/Documents/Letters/Tax Letter.txt\n"
                          "\n" +
                          dest + "/Documents/Letters/tax letter old.txt\n"
                          "  2021-05-01 12:00  " + dest + "/__removed/2021-06-01 09.00.00 +0200/Documents/Letters/tax letter old.txt\n"
                          "  2021-04-01 12:00  " + dest + "/__changed/2021-07-03 09.00.00 +0200/Documents/Letters/tax letter old.txt\n");
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
    EXPECT_EQ(search({dest}).exitStatus, 2);
    EXPECT_EQ(search({dest, "report", "extra"}).exitStatus, 2);

    auto missing = search({dir / "nowhere", "report"});
    EXPECT_EQ(missing.exitStatus, 2);
    EXPECT_NE(missing.err.find(dir / "nowhere"), std::string::npos);
    EXPECT_NE(missing.err.find("No such file or directory"), std::string::npos);
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
    EXPECT_EQ(result.out, dest + "/open/report.txt\n  2021-07-05 10:00  " + dest + "/open/report.txt\n");
    chmod((dest + "/closed").c_str(), 0755);
}

TEST_F(SearchCommand, FindsEveryVersionThatRealBackupRunsArchived) {
    std::string source = dir / "Documents";
    makeDirs(source);
    makeDirs(dest);
    writeFile(dest + "/.ferrovane.conf",
              "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<plist version=\"1.0\"><dict>"
              "<key>settings</key><dict><key>moveChangedFiles</key><integer>1</integer>"
              "<key>moveDeletedFiles</key><integer>1</integer><key>syncMode</key><integer>1</integer>"
              "<key>maxThreads</key><integer>2</integer></dict>"
              "<key>sources</key><array><dict><key>sourcePath</key><string>" + source +
              "</string><key>enabled</key><integer>1</integer></dict></array></dict></plist>\n");
    auto backUp = [&] {
        auto run = runProcess({FERROVANE_EXECUTABLE, dest, "-noUserNotifications"},
                              {{"DISPLAY", std::nullopt}, {"FERROVANE_LOG_FILE", dir / "Ferrovane.log"}});
        ASSERT_EQ(run.exitStatus, 0) << run.out << run.err;
        sleep(1);  // archive folders are named to the second
    };
    writeDatedFile(source + "/Letter.txt", "first", "2021-01-01 10:00");
    writeDatedFile(source + "/draft.txt", "draft", "2021-01-02 10:00");
    backUp();
    writeDatedFile(source + "/Letter.txt", "second version", "2021-02-01 10:00");
    ASSERT_EQ(unlink((source + "/draft.txt").c_str()), 0);
    backUp();
    writeDatedFile(source + "/Letter.txt", "third and last version", "2021-03-01 10:00");
    backUp();

    auto letter = search({dest, "letter"});
    EXPECT_EQ(letter.exitStatus, 0) << letter.err;
    std::regex archived("/[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}\\.[0-9]{2}\\.[0-9]{2} [+-][0-9]{4}/Documents/");
    std::istringstream lines(letter.out);
    std::vector<std::string> l;
    for (std::string line; std::getline(lines, line);) l.push_back(line);
    ASSERT_EQ(l.size(), 4u) << letter.out;
    EXPECT_EQ(l[0], dest + "/Documents/Letter.txt");
    EXPECT_EQ(l[1], "  2021-03-01 10:00  " + dest + "/Documents/Letter.txt");
    EXPECT_EQ(l[2].rfind("  2021-02-01 10:00  " + dest + "/__changed/", 0), 0u) << l[2];
    EXPECT_EQ(l[3].rfind("  2021-01-01 10:00  " + dest + "/__changed/", 0), 0u) << l[3];
    EXPECT_TRUE(std::regex_search(l[2], archived) && std::regex_search(l[3], archived)) << letter.out;

    auto draft = search({dest, "DRAFT"});
    EXPECT_EQ(draft.exitStatus, 0) << draft.err;
    EXPECT_TRUE(std::regex_match(draft.out, std::regex(dest + "/Documents/draft.txt\n  2021-01-02 10:00  " + dest +
                                                       "/__removed/[^/]+/Documents/draft.txt\n")))
        << draft.out;
}
