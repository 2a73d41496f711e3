#pragma once
// Which runs a destination keeps as time passes: every run of the last keepAllDays days, the
// newest run of each day up to dailyWeeks weeks back, of each week up to weeklyMonths months
// back and of each month up to monthlyYears years back; nothing older. Ages are counted in
// local calendar days from today, each horizon from today (a tier shorter than the one before it
// adds nothing). The newest run is always kept.

#include "engine/config/FVOptions.h"

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

namespace ferrovane {

class FVRetentionPolicy {
public:
    FVRetentionPolicy(int64_t keepAllDays, int64_t dailyWeeks, int64_t weeklyMonths, int64_t monthlyYears)
        : keepAllDays_(keepAllDays), dailyWeeks_(dailyWeeks), weeklyMonths_(weeklyMonths), monthlyYears_(monthlyYears) {}
    static FVRetentionPolicy of(const FVOptions& options);

    // For each run time (in any order), whether the run is kept at now.
    std::vector<bool> keptRuns(const std::vector<std::time_t>& runs, std::time_t now) const;
    // Whether every run at this time is kept: it lies within the last keepAllDays days (or later).
    bool keepsEveryRunAt(std::time_t run, std::time_t now) const;
    // "every run of the last 7 days, then one a day for 4 weeks, ..."
    std::string description() const;

private:
    int64_t keepAllDays_;
    int64_t dailyWeeks_;
    int64_t weeklyMonths_;
    int64_t monthlyYears_;
};

}  // namespace ferrovane
