// Which runs the retention policy keeps, on generated run times, in a fixed time zone.

#include "engine/config/FVRetentionPolicy.h"
#include "engine/record/FVRunRecords.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>
#include <string>
#include <vector>

using namespace ferrovane;

namespace {

class RetentionPolicy : public ::testing::Test {
protected:
    void SetUp() override {
        if (const char* tz = std::getenv("TZ")) savedTZ_ = tz;
        setenv("TZ", "Europe/Berlin", 1);
        tzset();
    }
    void TearDown() override {
        if (savedTZ_) setenv("TZ", savedTZ_->c_str(), 1);
        else unsetenv("TZ");
        tzset();
    }

    static std::time_t at(const std::string& localTime) {
        std::optional<std::time_t> time = FVRunRecords::parseMoment(localTime);
        EXPECT_TRUE(time) << localTime;
        return time.value_or(0);
    }
    static std::string dayOf(std::time_t time) {
        char text[32];
        struct tm parts {};
        localtime_r(&time, &parts);
        strftime(text, sizeof text, "%Y-%m-%d %H:%M", &parts);
        return text;
    }
    // The kept runs, as local times.
    static std::set<std::string> kept(const FVRetentionPolicy& policy, const std::vector<std::time_t>& runs,
                                      std::time_t now) {
        std::vector<bool> keep = policy.keptRuns(runs, now);
        std::set<std::string> out;
        for (size_t i = 0; i < runs.size(); ++i)
            if (keep[i]) out.insert(dayOf(runs[i]));
        return out;
    }

    std::optional<std::string> savedTZ_;
};

const FVRetentionPolicy kDefaults(7, 4, 6, 5);

}  // namespace

TEST_F(RetentionPolicy, AYearOfDailyRunsKeepsTheWeekTheDailiesTheSundaysAndOneRunAMonth) {
    std::vector<std::time_t> runs;
    for (std::time_t t = at("2025-11-25 10:00"); t <= at("2026-11-24 10:00"); t += 86400) runs.push_back(at(dayOf(t).substr(0, 10) + " 10:00"));
    ASSERT_EQ(runs.size(), 365u);
    std::set<std::string> expected;
    for (const char* day : {
             // the last 7 days
             "2026-11-24", "2026-11-23", "2026-11-22", "2026-11-21", "2026-11-20", "2026-11-19", "2026-11-18",
             // one a day up to 4 weeks back
             "2026-11-17", "2026-11-16", "2026-11-15", "2026-11-14", "2026-11-13", "2026-11-12", "2026-11-11",
             "2026-11-10", "2026-11-09", "2026-11-08", "2026-11-07", "2026-11-06", "2026-11-05", "2026-11-04",
             "2026-11-03", "2026-11-02", "2026-11-01", "2026-10-31", "2026-10-30", "2026-10-29", "2026-10-28",
             // the Sunday that ends each week up to 6 months back (25 May)
             "2026-10-25", "2026-10-18", "2026-10-11", "2026-10-04", "2026-09-27", "2026-09-20", "2026-09-13",
             "2026-09-06", "2026-08-30", "2026-08-23", "2026-08-16", "2026-08-09", "2026-08-02", "2026-07-26",
             "2026-07-19", "2026-07-12", "2026-07-05", "2026-06-28", "2026-06-21", "2026-06-14", "2026-06-07",
             "2026-05-31",
             // before: each month's last Sunday whose week ends within the month (May's is 31 May)
             "2026-04-26", "2026-03-29", "2026-02-22", "2026-01-25", "2025-12-28", "2025-11-30"})
        expected.insert(std::string(day) + " 10:00");
    EXPECT_EQ(kept(kDefaults, runs, at("2026-11-24 10:00")), expected);
}

TEST_F(RetentionPolicy, SeveralRunsADayGapsClockJumpsAndDaylightSavingTime) {
    const std::time_t now = at("2026-11-24 12:00");
    struct Case {
        const char* what;
        FVRetentionPolicy policy;
        std::vector<std::string> runs;
        std::set<std::string> kept;
    };
    const Case cases[] = {
        {"the last run of each day once the day is past the first days",
         FVRetentionPolicy(1, 1, 0, 0),
         {"2026-11-22 08:00", "2026-11-22 20:00", "2026-11-23 08:00", "2026-11-23 20:00", "2026-11-24 08:00",
          "2026-11-24 11:00"},
         {"2026-11-22 20:00", "2026-11-23 20:00", "2026-11-24 08:00", "2026-11-24 11:00"}},
        {"nothing past the last horizon but the newest run",
         kDefaults,
         {"2019-01-01 10:00", "2020-06-01 10:00"},
         {"2020-06-01 10:00"}},
        {"a gap of months: each week and month keeps what it has",
         kDefaults,
         {"2026-01-05 09:00", "2026-01-06 09:00", "2026-08-03 09:00", "2026-08-04 09:00", "2026-11-24 09:00"},
         {"2026-01-06 09:00", "2026-08-04 09:00", "2026-11-24 09:00"}},
        {"runs stamped after now (a clock set back) are kept; all of the last days in any order",
         FVRetentionPolicy(2, 0, 0, 0),
         {"2026-11-26 10:00", "2026-11-23 10:00", "2026-11-24 09:00", "2026-11-22 10:00"},
         {"2026-11-26 10:00", "2026-11-23 10:00", "2026-11-24 09:00"}},
        {"the hour that comes twice in autumn and the night spring loses belong to their local days",
         FVRetentionPolicy(0, 52, 0, 0),
         {"2026-03-29 01:30", "2026-03-29 23:30", "2026-03-30 00:30", "2026-10-25 02:30", "2026-10-25 23:59"},
         {"2026-03-29 23:30", "2026-03-30 00:30", "2026-10-25 23:59"}},
        {"everything off keeps the newest run only",
         FVRetentionPolicy(0, 0, 0, 0),
         {"2026-11-24 08:00", "2026-11-24 09:00"},
         {"2026-11-24 09:00"}},
    };
    for (const Case& c : cases) {
        std::vector<std::time_t> runs;
        for (const std::string& run : c.runs) runs.push_back(at(run));
        EXPECT_EQ(kept(c.policy, runs, now), c.kept) << c.what;
    }
    // Both 02:30 of 25 October, an hour apart, fall on one day: the later one is that day's.
    const std::time_t first = at("2026-10-25 02:30");
    const std::vector<std::time_t> twice = {first, first + 3600};
    EXPECT_EQ(FVRetentionPolicy(0, 52, 0, 0).keptRuns(twice, now), (std::vector<bool>{false, true}));
    EXPECT_TRUE(kDefaults.keepsEveryRunAt(at("2026-11-18 00:01"), now));
    EXPECT_FALSE(kDefaults.keepsEveryRunAt(at("2026-11-17 23:59"), now));
}

// Thinning a little every day keeps what one thinning of every run ever made keeps: a run kept
// stays kept until it is past the last horizon, and one let go is never wanted again.
TEST_F(RetentionPolicy, ThinningDayByDayKeepsWhatThePolicyKeepsOfAllRuns) {
    for (const FVRetentionPolicy& policy : {kDefaults, FVRetentionPolicy(2, 2, 3, 1)}) {
        std::vector<std::time_t> all, left;
        uint32_t random = 12345;
        const std::time_t start = at("2024-12-20 00:00");
        for (int day = 0; day < 800; ++day) {
            const std::time_t midnight = at(dayOf(start + day * 86400 + 7200).substr(0, 10) + " 00:00");
            random = random * 1103515245 + 12345;
            const int runsToday = (random >> 16) % 4;  // some days none
            for (int r = 0; r < runsToday; ++r) {
                const std::time_t run = midnight + 3600 * (6 + 5 * r) + (random >> 20) % 600;
                all.push_back(run);
                left.push_back(run);
                std::vector<bool> keep = policy.keptRuns(left, run);
                std::vector<std::time_t> thinned;
                for (size_t i = 0; i < left.size(); ++i)
                    if (keep[i]) thinned.push_back(left[i]);
                left = std::move(thinned);
            }
        }
        std::vector<bool> keep = policy.keptRuns(all, all.back());
        std::vector<std::time_t> once;
        for (size_t i = 0; i < all.size(); ++i)
            if (keep[i]) once.push_back(all[i]);
        EXPECT_EQ(left, once) << policy.description();
    }
}
