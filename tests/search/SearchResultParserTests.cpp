// Grouping of search hits into files with versions, on real files with fixed modification times.

#include "search/FVSearchResultParser.h"
#include "support/TempDir.h"

#include <gtest/gtest.h>

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
    // A file modified at utcTime ("YYYY-MM-DD HH:MM[:SS]"); returns its path.
    std::string file(const std::string& relative, const char* utcTime) {
        const std::string path = dir / relative;
        makeDirs(path.substr(0, path.rfind('/')));
        writeFile(path, relative);
        std::tm utc {};
        if (!strptime(utcTime, "%Y-%m-%d %H:%M:%S", &utc)) strptime(utcTime, "%Y-%m-%d %H:%M", &utc);
        EXPECT_TRUE(setModificationTime(path, timegm(&utc))) << path;
        return path;
    }
    TempDir dir;

private:
    std::string savedTZ_;
    bool hadTZ_ = false;
};

}  // namespace

TEST_F(SearchResultParserTest, RemovesTheArchivePartBelowTheDestinationOnly) {
    struct Case {
        const char* hit;
        const char* logical;
    };
    for (auto c : std::initializer_list<Case> {
             {"/T/src/a.txt", "/T/src/a.txt"},
             {"/T/__removed/S/src/a.txt", "/T/src/a.txt"},
             {"/T/__changed/S/src/__changed/old/a.txt", "/T/src/__changed/old/a.txt"},
             {"/T/__changed/S/src/__removed/x/a.txt", "/T/src/__removed/x/a.txt"},
             // A user folder that happens to carry the name is the user's.
             {"/T/src/__changed/old/a.txt", "/T/src/__changed/old/a.txt"},
             {"/T/__removed/S", "/T"},
             {"/T/__removed/S/src//a.txt", "/T/src/a.txt"},
             {"/Other/__changed/S/a.txt", "/Other/__changed/S/a.txt"},
         })
        EXPECT_EQ(FVSearchResultParser::parsedResults({c.hit}, "/T").at(0).path, c.logical) << c.hit;
}

// The current copy first, then the runs newest first by the time their stamps name (whatever the
// files' own times or the stamps' bytes say), a folder that is no run last; the rendering in
// local time, vanished versions and a removed item's path as the cleanup files it (with a doubled
// separator).
TEST_F(SearchResultParserTest, CurrentCopyFirstThenRunsNewestFirst) {
    std::string noon = file("__changed/2021-06-30 14.00.00 +0200/src/a.txt", "2021-06-30 12:05:59");
    std::string current = file("src/a.txt", "2021-06-30 12:05:01");
    std::string gone = dir / "__removed/2021-06-30 13.30.00 +0000/src//a.txt";
    std::string odd = file("__changed/S1/src/a.txt", "2021-07-01 00:00");
    std::string other = file("src/b.txt", "2021-07-01 00:00");

    auto results = FVSearchResultParser::parsedResults({odd, noon, gone, other, current}, dir.path());

    ASSERT_EQ(results.size(), 2u);
    EXPECT_EQ(results[0].path, dir / "src/a.txt");
    EXPECT_EQ(results[0].timestamps,
              (std::vector<std::string> {"2021-06-30 14:05", "", "2021-06-30 14:05", "2021-07-01 02:00"}));
    EXPECT_EQ(results[0].fullpaths, (std::vector<std::string> {current, gone, noon, odd}));
    EXPECT_EQ(results[0].runs, (std::vector<std::string> {"", "2021-06-30 13.30.00 +0000", "2021-06-30 14.00.00 +0200", "S1"}));
    EXPECT_TRUE(results[0].hasMultipleVersions);
    EXPECT_EQ(results[1].fullpaths, std::vector<std::string> {other});
    EXPECT_FALSE(results[1].hasMultipleVersions);
    EXPECT_TRUE(FVSearchResultParser::parsedResults({}, dir.path()).empty());
}
