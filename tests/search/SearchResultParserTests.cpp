// Grouping of search hits into files with versions, on real files with fixed modification times.

#include "search/FVSearchResultParser.h"
#include "support/DatedFile.h"

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
    std::string file(const std::string& relative, const char* utcTime) {
        return writeDatedFile(dir / relative, relative, utcTime);
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

// The order by modification time, whatever the archive folders' stamps say, is checked through
// "ferrovane search"; here the rendering in local time, ties, vanished versions and a removed
// item's path as the cleanup files it (with a doubled separator).
TEST_F(SearchResultParserTest, EqualStampsKeepHitOrderAndVanishedVersionsComeLast) {
    std::string early = file("__changed/S1/src/a.txt", "2021-06-30 12:05:01");
    std::string late = file("src/a.txt", "2021-06-30 12:05:59");
    std::string gone = dir / "__removed/S2/src//a.txt";
    std::string other = file("src/b.txt", "2021-07-01 00:00");

    auto results = FVSearchResultParser::parsedResults({early, gone, other, late}, dir.path());

    ASSERT_EQ(results.size(), 2u);
    EXPECT_EQ(results[0].path, dir / "src/a.txt");
    EXPECT_EQ(results[0].timestamps, (std::vector<std::string> {"2021-06-30 14:05", "2021-06-30 14:05", ""}));
    EXPECT_EQ(results[0].fullpaths, (std::vector<std::string> {early, late, gone}));
    EXPECT_TRUE(results[0].hasMultipleVersions);
    EXPECT_EQ(results[1].fullpaths, std::vector<std::string> {other});
    EXPECT_FALSE(results[1].hasMultipleVersions);
    EXPECT_TRUE(FVSearchResultParser::parsedResults({}, dir.path()).empty());
}
