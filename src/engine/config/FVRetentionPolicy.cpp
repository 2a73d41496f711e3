#include "engine/config/FVRetentionPolicy.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>

namespace ferrovane {

namespace {

int64_t floorDivide(int64_t a, int64_t b) { return a / b - (a % b != 0 && (a < 0) != (b < 0)); }

// Days since 1970-01-01 of a civil date (proleptic Gregorian).
int64_t dayOfDate(int64_t year, int64_t month, int64_t day) {
    year -= month <= 2;
    const int64_t era = floorDivide(year, 400);
    const int64_t yearOfEra = year - era * 400;
    const int64_t dayOfYear = (153 * (month + (month > 2 ? -3 : 9)) + 2) / 5 + day - 1;
    const int64_t dayOfEra = yearOfEra * 365 + yearOfEra / 4 - yearOfEra / 100 + dayOfYear;
    return era * 146097 + dayOfEra - 719468;
}

struct Date {
    int64_t year, month, day;
};

Date localDate(std::time_t time) {
    struct tm parts {};
    localtime_r(&time, &parts);
    return {parts.tm_year + 1900, parts.tm_mon + 1, parts.tm_mday};
}

int64_t daysInMonth(int64_t year, int64_t month) {
    return dayOfDate(month == 12 ? year + 1 : year, month == 12 ? 1 : month + 1, 1) - dayOfDate(year, month, 1);
}

// The same day of the month some months earlier, or that month's last day when it is shorter, so
// that the horizon never moves back as today moves on (31 March and 1 April, a month back: 28 or
// 29 February, then 1 March).
int64_t monthsBefore(const Date& date, int64_t months) {
    const int64_t index = date.year * 12 + (date.month - 1) - months;
    const int64_t year = floorDivide(index, 12);
    const int64_t month = index - year * 12 + 1;
    return dayOfDate(year, month, std::min(date.day, daysInMonth(year, month)));
}

// Weeks from Monday to Sunday: 1970-01-01 (day 0) was a Thursday.
int64_t weekOfDay(int64_t day) { return floorDivide(day + 3, 7); }

}  // namespace

FVRetentionPolicy FVRetentionPolicy::of(const FVOptions& options) {
    return FVRetentionPolicy(options.retentionKeepAllDays, options.retentionDailyWeeks, options.retentionWeeklyMonths,
                             options.retentionMonthlyYears);
}

bool FVRetentionPolicy::keepsEveryRunAt(std::time_t run, std::time_t now) const {
    const Date d = localDate(run);
    const Date today = localDate(now);
    return dayOfDate(d.year, d.month, d.day) > dayOfDate(today.year, today.month, today.day) - keepAllDays_;
}

// Each tier keeps the newest run of its buckets, and a bucket's newest run is also the newest of
// the smaller buckets it lies in, so a run kept by an older tier was kept all along and one
// dropped never comes back: applied again and again to what is left, the policy keeps what it
// would keep of every run ever made. Weeks straddle months, so the run a month keeps is the newest
// of its runs that its week keeps.
std::vector<bool> FVRetentionPolicy::keptRuns(const std::vector<std::time_t>& runs, std::time_t now) const {
    std::vector<bool> kept(runs.size(), false);
    if (runs.empty()) return kept;
    const Date today = localDate(now);
    const int64_t todayNumber = dayOfDate(today.year, today.month, today.day);
    const int64_t keepAllFrom = todayNumber - keepAllDays_ + 1;
    const int64_t dailyFrom = std::min(keepAllFrom, todayNumber - 7 * dailyWeeks_ + 1);
    const int64_t weeklyFrom = std::min(dailyFrom, monthsBefore(today, weeklyMonths_) + 1);
    const int64_t monthlyFrom = std::min(weeklyFrom, monthsBefore(today, 12 * monthlyYears_) + 1);

    std::vector<int64_t> days(runs.size()), months(runs.size());
    for (size_t i = 0; i < runs.size(); ++i) {
        const Date d = localDate(runs[i]);
        days[i] = dayOfDate(d.year, d.month, d.day);
        months[i] = d.year * 12 + d.month - 1;
    }
    // Ties in time go to the later run in the list.
    auto newer = [&](size_t a, size_t b) { return runs[a] != runs[b] ? runs[a] > runs[b] : a > b; };
    auto newestBy = [&](const std::vector<int64_t>& bucketOf, const std::vector<bool>* among) {
        std::map<int64_t, size_t> newest;
        for (size_t i = 0; i < runs.size(); ++i) {
            if (among && !(*among)[i]) continue;
            auto [it, inserted] = newest.emplace(bucketOf[i], i);
            if (!inserted && newer(i, it->second)) it->second = i;
        }
        std::vector<bool> picked(runs.size(), false);
        for (const auto& [bucket, index] : newest) picked[index] = true;
        return picked;
    };
    std::vector<int64_t> weeks(runs.size());
    std::transform(days.begin(), days.end(), weeks.begin(), weekOfDay);
    const std::vector<bool> daily = newestBy(days, nullptr);
    const std::vector<bool> weekly = newestBy(weeks, nullptr);
    const std::vector<bool> monthly = newestBy(months, &weekly);

    size_t newest = 0;
    for (size_t i = 0; i < runs.size(); ++i) {
        if (newer(i, newest)) newest = i;
        const int64_t day = days[i];
        kept[i] = day >= keepAllFrom  ? true
                  : day >= dailyFrom  ? bool(daily[i])
                  : day >= weeklyFrom ? bool(weekly[i])
                  : day >= monthlyFrom ? bool(monthly[i])
                                       : false;
    }
    kept[newest] = true;
    return kept;
}

std::string FVRetentionPolicy::description() const {
    auto count = [](int64_t n, const char* unit) { return fmt::format("{} {}{}", n, unit, n == 1 ? "" : "s"); };
    return fmt::format("every run of the last {}, then the newest of each day up to {} back, of each week up to {} "
                       "back and of each month up to {} back",
                       count(keepAllDays_, "day"), count(dailyWeeks_, "week"), count(weeklyMonths_, "month"),
                       count(monthlyYears_, "year"));
}

}  // namespace ferrovane
