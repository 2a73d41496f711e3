#pragma once
// The destination's options ("settings" in its configuration): every key once, with its type,
// its valid range and the default the window fills in, and the typed reading that the run, the
// window and "ferrovane config" share. A value of the wrong type or out of range is never
// guessed at: it is a problem that names the key, and nothing runs on it.

#include "engine/config/FVExcludePattern.h"
#include "engine/config/FVPlist.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ferrovane {

namespace FVOptionKey {
inline constexpr const char* syncMode = "syncMode";
inline constexpr const char* maxThreads = "maxThreads";
inline constexpr const char* moveDeletedFiles = "moveDeletedFiles";
inline constexpr const char* moveChangedFiles = "moveChangedFiles";
inline constexpr const char* purgeRemovedArchive = "purgeRemovedArchive";
inline constexpr const char* purgeRemovedArchiveDays = "purgeRemovedArchiveDays";
inline constexpr const char* purgeChangedArchive = "purgeChangedArchive";
inline constexpr const char* purgeChangedArchiveDays = "purgeChangedArchiveDays";
inline constexpr const char* ignoreFileFlagChanges = "ignoreFileFlagChanges";
inline constexpr const char* disableACLClone = "disableACLClone";
inline constexpr const char* preallocate = "preallocate";
inline constexpr const char* excludeSymlinks = "excludeSymlinks";
inline constexpr const char* performExtendedLogging = "performExtendedLogging";
inline constexpr const char* isSuperuserBackup = "isSuperuserBackup";
inline constexpr const char* UUID = "UUID";
inline constexpr const char* automationEnabled = "automationEnabled";
inline constexpr const char* automationTimeHours = "automationTimeHours";
inline constexpr const char* automationTimeMinutes = "automationTimeMinutes";
inline constexpr const char* automationWeekdaySelection = "automationWeekdaySelection";
inline constexpr const char* automationIntervalSelection = "automationIntervalSelection";
inline constexpr const char* automationVerifyMonthly = "automationVerifyMonthly";
inline constexpr const char* retentionEnabled = "retentionEnabled";
inline constexpr const char* retentionKeepAllDays = "retentionKeepAllDays";
inline constexpr const char* retentionDailyWeeks = "retentionDailyWeeks";
inline constexpr const char* retentionWeeklyMonths = "retentionWeeklyMonths";
inline constexpr const char* retentionMonthlyYears = "retentionMonthlyYears";
inline constexpr const char* keepFreeSpace = "keepFreeSpace";
inline constexpr const char* keepFreeSpaceMB = "keepFreeSpaceMB";
inline constexpr const char* purgeOldestForSpace = "purgeOldestForSpace";
inline constexpr const char* backUpWhenConnected = "backUpWhenConnected";
inline constexpr const char* connectedRunIntervalMinutes = "connectedRunIntervalMinutes";
inline constexpr const char* overdueDays = "overdueDays";
inline constexpr const char* excludeCacheFolders = "excludeCacheFolders";
inline constexpr const char* excludeNodumpItems = "excludeNodumpItems";
// A list of texts, each an FVExcludePattern; no rule of the table (those hold one value each).
inline constexpr const char* excludePatterns = "excludePatterns";
inline constexpr const char* beforeHook = "beforeHook";
inline constexpr const char* afterHook = "afterHook";
inline constexpr const char* hookTimeoutSeconds = "hookTimeoutSeconds";
inline constexpr const char* skipRunWhenBeforeHookFails = "skipRunWhenBeforeHookFails";
}  // namespace FVOptionKey

// The options as typed values. A missing key reads as 0 / no: only the window fills in defaults.
struct FVOptions {
    int64_t syncMode = 0;
    int64_t maxThreads = 0;
    bool moveDeletedFiles = false;
    bool moveChangedFiles = false;
    bool purgeRemovedArchive = false;
    int64_t purgeRemovedArchiveDays = 0;
    bool purgeChangedArchive = false;
    int64_t purgeChangedArchiveDays = 0;
    bool ignoreFileFlagChanges = false;
    bool disableACLClone = false;
    bool preallocate = false;
    bool excludeSymlinks = false;
    bool performExtendedLogging = false;
    bool isSuperuserBackup = false;
    std::string UUID;
    bool automationEnabled = false;
    int64_t automationTimeHours = 0;
    int64_t automationTimeMinutes = 0;
    int64_t automationWeekdaySelection = 0;
    int64_t automationIntervalSelection = 0;
    // A scheduled "ferrovane verify" on the first of each month, apart from the backup's schedule.
    bool automationVerifyMonthly = false;

    // Thinning of whole runs: every run of the last retentionKeepAllDays days, then one a day for
    // retentionDailyWeeks weeks, one a week for retentionWeeklyMonths months and one a month for
    // retentionMonthlyYears years. The numbers read as their defaults when missing; the policy
    // itself is on only where it was switched on.
    bool retentionEnabled = false;
    int64_t retentionKeepAllDays = 7;
    int64_t retentionDailyWeeks = 4;
    int64_t retentionWeeklyMonths = 6;
    int64_t retentionMonthlyYears = 5;

    // A run leaves at least keepFreeSpaceMB free on the destination (0: the larger of 1 GiB and
    // 2 % of the volume, at most a tenth of it), making room by purging the oldest archived runs
    // only where purgeOldestForSpace allows it. A run that cannot fit at all stops before copying
    // in any case.
    bool keepFreeSpace = false;
    int64_t keepFreeSpaceMB = 0;
    bool purgeOldestForSpace = false;

    // A run starts when the destination appears (a disk plugged in), at most once per interval
    // after the last successful run.
    bool backUpWhenConnected = false;
    int64_t connectedRunIntervalMinutes = 60;
    // A scheduled destination whose last successful run is older than this is announced; 0: never.
    int64_t overdueDays = 7;

    // Left out below every source root: what the patterns match, the contents of a folder tagged
    // with a valid CACHEDIR.TAG (the folder and the tag stay), and items with the nodump flag.
    std::vector<FVExcludePattern> excludePatterns;
    bool excludeCacheFolders = false;
    bool excludeNodumpItems = false;
    // Commands run through /bin/sh before and after each run (empty: none), each ended after
    // hookTimeoutSeconds. A before-hook that fails or runs out of time skips the run when
    // skipRunWhenBeforeHookFails is on; otherwise the run goes on with a warning.
    std::string beforeHook;
    std::string afterHook;
    int64_t hookTimeoutSeconds = 600;
    bool skipRunWhenBeforeHookFails = true;

    // Runs start by themselves: on the calendar or when the disk is connected.
    bool isScheduled() const { return automationEnabled || backUpWhenConnected; }

    // Archives are purged only when the age is at least one day: a run never purges this
    // run's own archive.
    bool purgesRemovedArchives() const {
        return purgeRemovedArchive && moveDeletedFiles && purgeRemovedArchiveDays >= 1;
    }
    bool purgesChangedArchives() const {
        return purgeChangedArchive && moveChangedFiles && purgeChangedArchiveDays >= 1;
    }
};

enum class FVOptionType { Boolean, Integer, Text };

struct FVOptionRule {
    const char* key;
    FVOptionType type;
    int64_t minimum;
    int64_t maximum;
    // What a valid value looks like, for messages ("a whole number of days from 1 to 36500").
    const char* expected;
    // Filled in by the window (and the first "config" change) when the key is missing.
    std::optional<int64_t> windowDefault;
    // Set when a destination's configuration is first created, where it differs from the
    // window's default: a key missing from an existing file keeps meaning 0 / no.
    std::optional<int64_t> newDestinationDefault;
    // A run option that "ferrovane config set" changes; the others are the schedule's and the
    // program's own.
    bool settable;
    bool FVOptions::*flag;
    int64_t FVOptions::*number;
    std::string FVOptions::*text;
    // The text the options sheet shows for it and the unit after a number (string keys); null
    // where the sheet shows none.
    const char* label = nullptr;
    const char* unit = nullptr;

    // What a new destination starts with.
    int64_t initialValue() const { return newDestinationDefault.value_or(windowDefault.value_or(0)); }
    FVOptionRule shown(const char* labelKey, const char* unitKey = nullptr) const {
        FVOptionRule rule = *this;
        rule.label = labelKey;
        rule.unit = unitKey;
        return rule;
    }
};

struct FVOptionsReadResult {
    FVOptions options;
    // One line per unusable value, naming its key; empty when every value is usable.
    std::vector<std::string> problems;
};

namespace FVOptionTable {

// Every known option; those with a window default come first, in the order they are filled in.
const std::vector<FVOptionRule>& rules();
const FVOptionRule* find(std::string_view key);
// The rule of a typed field; every field but excludePatterns has one.
const FVOptionRule& rule(bool FVOptions::*field);
const FVOptionRule& rule(int64_t FVOptions::*field);
const FVOptionRule& rule(std::string FVOptions::*field);
// Stores a value under its field's key, as the value's own type (a flag as true or false).
void store(PlistDict& settings, bool FVOptions::*field, bool value);
void store(PlistDict& settings, int64_t FVOptions::*field, int64_t value);
void store(PlistDict& settings, std::string FVOptions::*field, std::string value);

// Why value cannot be used for rule ("Option maxThreads: expected ..., found the text "four"."),
// or nothing when it can.
std::optional<std::string> problem(const FVOptionRule& rule, const PlistValue& value);

// The patterns stored under excludePatterns, or why that value cannot be used.
std::vector<FVExcludePattern> readPatterns(const PlistDict& settings, std::vector<std::string>* problems);

// The typed options of a "settings" dictionary. Unknown keys are left alone.
FVOptionsReadResult read(const PlistDict& settings);

}  // namespace FVOptionTable

}  // namespace ferrovane
