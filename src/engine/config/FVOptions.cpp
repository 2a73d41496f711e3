#include "engine/config/FVOptions.h"

#include <fmt/format.h>

#include <algorithm>

namespace ferrovane::FVOptionTable {

namespace {

using T = FVOptionType;
constexpr int64_t kLongestAge = 36500;  // a hundred years
constexpr const char* kYesOrNo = "yes or no (true, false, 1 or 0)";

FVOptionRule boolean(const char* key, bool FVOptions::*field, bool settable, std::optional<int64_t> preset = {},
                     std::optional<int64_t> forNewDestinations = {}) {
    return {key, T::Boolean, 0, 1, kYesOrNo, preset, forNewDestinations, settable,
            field, nullptr, nullptr, nullptr, nullptr};
}

FVOptionRule integer(const char* key, int64_t FVOptions::*field, int64_t minimum, int64_t maximum,
                     const char* expected, bool settable, std::optional<int64_t> preset = {}) {
    return {key, T::Integer, minimum, maximum, expected, preset, std::nullopt, settable,
            nullptr, field, nullptr, nullptr, nullptr};
}

FVOptionRule text(const char* key, std::string FVOptions::*field) {
    return {key, T::Text, 0, 0, "a text", std::nullopt, std::nullopt, false,
            nullptr, nullptr, field, nullptr, nullptr};
}

// Text shown in a message: control characters and overlong values never reach the terminal.
std::string quoted(const std::string& text) {
    std::string out;
    for (unsigned char c : text.substr(0, 60)) out += c < 0x20 || c == 0x7F ? '?' : static_cast<char>(c);
    if (text.size() > 60) out += "...";
    return "\"" + out + "\"";
}

std::string describe(const PlistValue& value) {
    const auto& v = value.storage();
    if (auto s = std::get_if<std::string>(&v)) return "the text " + quoted(*s);
    if (auto i = std::get_if<int64_t>(&v)) return fmt::format("the number {}", *i);
    if (auto d = std::get_if<double>(&v)) return fmt::format("the number {}", *d);
    if (auto b = std::get_if<bool>(&v)) return *b ? "the value true" : "the value false";
    if (value.is<PlistDate>()) return "a date";
    if (value.is<PlistData>()) return "data";
    if (value.array()) return "a list";
    if (value.dict()) return "a dictionary";
    return fmt::format("a {}", value.typeName());
}

}  // namespace

const std::vector<FVOptionRule>& rules() {
    using O = FVOptions;
    static const std::vector<FVOptionRule> table = {
        boolean(FVOptionKey::moveDeletedFiles, &O::moveDeletedFiles, true, 1).shown("optionsmovedeleted"),
        integer(FVOptionKey::purgeRemovedArchiveDays, &O::purgeRemovedArchiveDays, 1, kLongestAge,
                "a whole number of days from 1 to 36500", true, 30)
            .shown(nullptr, "optionsdays"),
        integer(FVOptionKey::purgeChangedArchiveDays, &O::purgeChangedArchiveDays, 1, kLongestAge,
                "a whole number of days from 1 to 36500", true, 30)
            .shown(nullptr, "optionsdays"),
        integer(FVOptionKey::maxThreads, &O::maxThreads, 1, 15, "a whole number of threads from 1 to 15", true, 2)
            .shown("optionsmaxthreads"),
        boolean(FVOptionKey::ignoreFileFlagChanges, &O::ignoreFileFlagChanges, true, 1).shown("optionsignoreflags"),
        integer(FVOptionKey::syncMode, &O::syncMode, 0, 1,
                "1 (a folder per source) or 0 (the whole source path rebuilt)", true, 1)
            .shown("optionssyncmode"),
        integer(FVOptionKey::automationTimeHours, &O::automationTimeHours, 0, 23, "an hour from 0 to 23", false, 14),
        integer(FVOptionKey::automationTimeMinutes, &O::automationTimeMinutes, 0, 59, "a minute from 0 to 59", false, 0),
        integer(FVOptionKey::retentionKeepAllDays, &O::retentionKeepAllDays, 0, kLongestAge,
                "a whole number of days from 0 to 36500", true, 7)
            .shown("optionsretentionall", "optionsdays"),
        integer(FVOptionKey::retentionDailyWeeks, &O::retentionDailyWeeks, 0, kLongestAge / 7,
                "a whole number of weeks from 0 to 5214", true, 4)
            .shown("optionsretentiondaily", "optionsweeks"),
        integer(FVOptionKey::retentionWeeklyMonths, &O::retentionWeeklyMonths, 0, kLongestAge / 30,
                "a whole number of months from 0 to 1216", true, 6)
            .shown("optionsretentionweekly", "optionsmonths"),
        integer(FVOptionKey::retentionMonthlyYears, &O::retentionMonthlyYears, 0, kLongestAge / 365,
                "a whole number of years from 0 to 100", true, 5)
            .shown("optionsretentionmonthly", "optionsyears"),
        integer(FVOptionKey::keepFreeSpaceMB, &O::keepFreeSpaceMB, 0, 1000000000,
                "a whole number of MB from 0 (automatic) to 1000000000", true, 0)
            .shown(nullptr, "optionsmb"),
        integer(FVOptionKey::connectedRunIntervalMinutes, &O::connectedRunIntervalMinutes, 0, 525600,
                "a whole number of minutes from 0 to 525600", false, 60)
            .shown("optionsconnectedinterval", "optionsminutes"),
        integer(FVOptionKey::overdueDays, &O::overdueDays, 0, 3650, "a whole number of days from 0 (never) to 3650",
                true, 7)
            .shown("optionsoverdue", "optionsdays"),
        integer(FVOptionKey::hookTimeoutSeconds, &O::hookTimeoutSeconds, 1, 86400,
                "a whole number of seconds from 1 to 86400", true, 600),
        boolean(FVOptionKey::skipRunWhenBeforeHookFails, &O::skipRunWhenBeforeHookFails, true, 1),
        // Versions are kept by default: a new destination archives what a run replaces.
        boolean(FVOptionKey::moveChangedFiles, &O::moveChangedFiles, true, std::nullopt, 1).shown("optionsmovechanged"),
        boolean(FVOptionKey::retentionEnabled, &O::retentionEnabled, true, std::nullopt, 1).shown("optionsretention"),
        boolean(FVOptionKey::keepFreeSpace, &O::keepFreeSpace, true, std::nullopt, 1).shown("optionskeepfree"),
        boolean(FVOptionKey::purgeOldestForSpace, &O::purgeOldestForSpace, true, std::nullopt, 1)
            .shown("optionspurgeoldest"),
        // Caches are rebuilt by the programs that made them; a destination set up before the
        // option existed keeps backing them up until told otherwise.
        boolean(FVOptionKey::excludeCacheFolders, &O::excludeCacheFolders, true, std::nullopt, 1)
            .shown("optionsexcludecaches"),
        boolean(FVOptionKey::backUpWhenConnected, &O::backUpWhenConnected, false).shown("optionsbackupwhenconnected"),
        boolean(FVOptionKey::purgeRemovedArchive, &O::purgeRemovedArchive, true).shown("optionspurgeremoved"),
        boolean(FVOptionKey::purgeChangedArchive, &O::purgeChangedArchive, true).shown("optionspurgechanged"),
        boolean(FVOptionKey::disableACLClone, &O::disableACLClone, true).shown("optionsdisableacl"),
        boolean(FVOptionKey::preallocate, &O::preallocate, true).shown("optionspreallocate"),
        boolean(FVOptionKey::excludeSymlinks, &O::excludeSymlinks, true).shown("optionsexcludesymlinks"),
        boolean(FVOptionKey::excludeNodumpItems, &O::excludeNodumpItems, true).shown("optionsexcludenodump"),
        boolean(FVOptionKey::performExtendedLogging, &O::performExtendedLogging, true)
            .shown("optionsextendedlogging"),
        boolean(FVOptionKey::isSuperuserBackup, &O::isSuperuserBackup, false),
        text(FVOptionKey::UUID, &O::UUID),
        boolean(FVOptionKey::automationEnabled, &O::automationEnabled, false).shown("optionsautomationenabled"),
        integer(FVOptionKey::automationWeekdaySelection, &O::automationWeekdaySelection, 0, 7,
                "a weekday number from 0 to 7 (0 and 7 are Sunday)", false),
        integer(FVOptionKey::automationIntervalSelection, &O::automationIntervalSelection, 0, 1,
                "0 (daily) or 1 (weekly)", false),
        boolean(FVOptionKey::automationVerifyMonthly, &O::automationVerifyMonthly, false).shown("optionsverifymonthly"),
        // Set with "config DEST hook", which also records the approval that lets them run.
        text(FVOptionKey::beforeHook, &O::beforeHook),
        text(FVOptionKey::afterHook, &O::afterHook),
    };
    return table;
}

const FVOptionRule* find(std::string_view key) {
    const auto& table = rules();
    auto found = std::find_if(table.begin(), table.end(), [&](const FVOptionRule& r) { return key == r.key; });
    return found == table.end() ? nullptr : &*found;
}

namespace {

template <typename Field>
const FVOptionRule& ruleOf(Field FVOptions::*field, Field FVOptions::*FVOptionRule::*member) {
    const auto& table = rules();
    return *std::find_if(table.begin(), table.end(), [&](const FVOptionRule& r) { return r.*member == field; });
}

}  // namespace

const FVOptionRule& rule(bool FVOptions::*field) { return ruleOf(field, &FVOptionRule::flag); }
const FVOptionRule& rule(int64_t FVOptions::*field) { return ruleOf(field, &FVOptionRule::number); }
const FVOptionRule& rule(std::string FVOptions::*field) { return ruleOf(field, &FVOptionRule::text); }

void store(PlistDict& settings, bool FVOptions::*field, bool value) { settings.set(rule(field).key, value); }
void store(PlistDict& settings, int64_t FVOptions::*field, int64_t value) { settings.set(rule(field).key, value); }
void store(PlistDict& settings, std::string FVOptions::*field, std::string value) {
    settings.set(rule(field).key, std::move(value));
}

std::optional<std::string> problem(const FVOptionRule& rule, const PlistValue& value) {
    bool usable = false;
    switch (rule.type) {
    case T::Boolean:
        if (value.is<bool>()) usable = true;
        else if (auto i = value.get<int64_t>()) usable = *i == 0 || *i == 1;
        break;
    case T::Integer:
        if (auto i = value.get<int64_t>()) usable = *i >= rule.minimum && *i <= rule.maximum;
        break;
    case T::Text:
        usable = value.is<std::string>();
        break;
    }
    if (usable) return std::nullopt;
    return fmt::format("Option {}: expected {}, found {}.", rule.key, rule.expected, describe(value));
}

std::vector<FVExcludePattern> readPatterns(const PlistDict& settings, std::vector<std::string>* problems) {
    std::vector<FVExcludePattern> patterns;
    const PlistValue* value = settings.find(FVOptionKey::excludePatterns);
    if (!value) return patterns;
    const PlistArrayPtr* list = value->array();
    if (!list || !*list) {
        if (problems)
            problems->push_back(fmt::format("Option {}: expected a list of patterns, found {}.",
                                            FVOptionKey::excludePatterns, describe(*value)));
        return patterns;
    }
    size_t number = 0;
    for (const PlistValue& item : **list) {
        ++number;
        std::string why = "not a text";
        const std::string* text = item.string();
        std::optional<FVExcludePattern> pattern = text ? FVExcludePattern::parse(*text, &why) : std::nullopt;
        if (pattern) patterns.push_back(std::move(*pattern));
        else if (problems)
            problems->push_back(fmt::format("Option {}: pattern {} ({}) cannot be used: {}{}.", FVOptionKey::excludePatterns,
                                            number, text ? quoted(*text) : describe(item), why,
                                            text ? "; \"config exclude --remove\" takes it out" : ""));
    }
    return patterns;
}

FVOptionsReadResult read(const PlistDict& settings) {
    FVOptionsReadResult result;
    result.options.excludePatterns = readPatterns(settings, &result.problems);
    for (const FVOptionRule& rule : rules()) {
        const PlistValue* value = settings.find(rule.key);
        if (!value) continue;
        if (auto why = problem(rule, *value)) {
            result.problems.push_back(*why);
            continue;
        }
        if (rule.flag) result.options.*rule.flag = value->boolValue();
        else if (rule.number) result.options.*rule.number = value->integerValue();
        else result.options.*rule.text = *value->string();
    }
    return result;
}

}  // namespace ferrovane::FVOptionTable
