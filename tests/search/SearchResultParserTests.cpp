// Grouping of search hits into files with versions, on real files with fixed modification times.

#include "search/FVSearchResultParser.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdlib>
#include <ctime>

using namespace ferrovane;
using namespace ferrovane::test;

namespace {

// Two hours east of UTC, so that a UTC rendering would show.
class SearchResultParserTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (const char* tz = std::getenv("TZ")) savedTZ_ = tz, hadTZ_ = true;
        setenv("TZ", "XST-2", 1);
        tzset();
    }
    void TearDown() override {
        if (hadTZ_) setenv("TZ", savedTZ_.c_str(), 1);
        else unsetenv("TZ");
        tzset();
    }
    // A file modified at the given UTC time.
    std::string file(const std::string& relative, int year, int month, int day, int hour, int minute,
                     int second = 0) {
        std::string path = dir / relative;
        makeDirs(path.substr(0, path.rfind('/')));
        writeFile(path, relative);
        std::tm utc {};
        utc.tm_year = year - 1900, utc.tm_mon = month - 1, utc.tm_mday = day;
        utc.tm_hour = hour, utc.tm_min = minute, utc.tm_sec = second;
        struct timespec times[2] = {{timegm(&utc), 0}, {timegm(&utc), 0}};
        EXPECT_EQ(utimensat(AT_FDCWD, path.c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
        return path;
    }
    TempDir dir;

private:
    std::string savedTZ_;
    bool hadTZ_ = false;
};

}  // namespace

TEST_F(SearchResultParserTest, GroupsVersionsOfOneFileNewestFirstByModificationTime) {
    std::string current = file("src/Docs/a.txt", 2021, 7, 5, 10, 0);
    // The folder stamps say the opposite of the files' own times: the files' times decide.
    std::string changed = file("__changed/2021-07-02 09.00.00 +0200/src/Docs/a.txt", 2021, 6, 20, 8, 30);
    file("__removed/2021-06-30 14.05.09 +0200/src/Docs/a.txt", 2021, 6, 25, 23, 59);
    std::string other = file("src/Docs/b.txt", 2021, 7, 1, 0, 0);
    // A removed item's path as the cleanup builds it, with the doubled separator.
    std::string removedAsFiled = dir.path() + "/__removed/2021-06-30 14.05.09 +0200/src//Docs/a.txt";

    auto results = FVSearchResultParser::parsedResults({changed, other, removedAsFiled, current});

    ASSERT_EQ(results.size(), 2u);
    EXPECT_EQ(results[0].path, dir / "src/Docs/a.txt");
    EXPECT_EQ(results[0].timestamps,
              (std::vector<std::string> {"2021-07-05 12:00", "2021-06-26 01:59", "2021-06-20 10:30"}));
    EXPECT_EQ(results[0].fullpaths, (std::vector<std::string> {current, removedAsFiled, changed}));
    EXPECT_TRUE(results[0].hasMultipleVersions);
    EXPECT_EQ(results[0].selectedIndex, 0u);

    EXPECT_EQ(results[1].path, other);
    EXPECT_EQ(results[1].fullpaths, std::vector<std::string> {other});
    EXPECT_FALSE(results[1].hasMultipleVersions);
}

TEST_F(SearchResultParserTest, RemovesOnlyTheFirstArchivePartPreferringRemoved) {
    struct Case {
        const char* hit;
        const char* logical;
    };
    for (auto c : std::initializer_list<Case> {
             {"/T/src/a.txt", "/T/src/a.txt"},
             {"/T/__removed/S/src/a.txt", "/T/src/a.txt"},
             {"/T/__changed/S/src/__changed/old/a.txt", "/T/src/__changed/old/a.txt"},
             {"/T/__changed/S/src/__removed/x/a.txt", "/T/__changed/S/src/a.txt"},
             // A user folder that happens to carry the name loses the folder after it too.
             {"/T/src/__changed/old/a.txt", "/T/src/a.txt"},
             {"/T/__removed", "/T"},
             {"rel/__changed/S/a.txt", "rel/a.txt"},
         })
        EXPECT_EQ(FVSearchResultParser::pathWithoutArchivePart(c.hit), c.logical) << c.hit;
}

TEST_F(SearchResultParserTest, EqualStampsKeepHitOrderAndVanishedVersionsComeLast) {
    std::string early = file("__changed/S1/src/a.txt", 2021, 6, 30, 12, 5, 1);
    std::string late = file("src/a.txt", 2021, 6, 30, 12, 5, 59);
    std::string gone = dir / "__removed/S2/src/a.txt";

    auto results = FVSearchResultParser::parsedResults({gone, early, late});

    ASSERT_EQ(results.size(), 1u);
    EXPECT_EQ(results[0].timestamps, (std::vector<std::string> {"2021-06-30 14:05", "2021-06-30 14:05", ""}));
    EXPECT_EQ(results[0].fullpaths, (std::vector<std::string> {early, late, gone}));
    EXPECT_TRUE(FVSearchResultParser::parsedResults({}).empty());
}
