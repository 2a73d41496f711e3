// Which runs the retention policy keeps at its edges, in a fixed time zone. Thinning day by day
// over months of real daily runs, checked against a model of the policy, is the fault suite's
// retention part.

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
