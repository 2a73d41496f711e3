#include "cli/FVExcludeCommand.h"

#include "cli/FVOutput.h"
#include "engine/config/FVExcludePattern.h"
#include "engine/config/FVOptions.h"
#include "search/FVSearchText.h"

#include <fmt/format.h>

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace ferrovane::FVExcludeCommand {

namespace {

// Larger exclude files are no list of patterns.
constexpr size_t kLargestFile = 1024 * 1024;

std::string printable(std::string_view text) { return FVSearchText::printable(text); }

std::string patternCount(size_t count) { return fmt::format("{} pattern{}", count, count == 1 ? "" : "s"); }

std::optional<std::string> readWhole(const std::string& path, std::string& problem) {
    FILE* file = path == "-" ? stdin : std::fopen(path.c_str(), "rbe");
    if (!file) {
        problem = fmt::format("cannot read {}: {}", printable(path), std::strerror(errno));
        return std::nullopt;
    }
    std::string text;
    char buffer[65536];
    size_t got = 0;
    while ((got = std::fread(buffer, 1, sizeof buffer, file)) > 0 && text.size() <= kLargestFile)
        text.append(buffer, got);
    const bool failed = std::ferror(file);
    const int error = errno;
    if (file != stdin) std::fclose(file);
    if (failed) problem = fmt::format("cannot read {}: {}", printable(path), std::strerror(error));
    else if (text.size() > kLargestFile) problem = fmt::format("{} is larger than 1 MiB: no list of patterns", printable(path));
    else return text;
    return std::nullopt;
}

// A pattern with a leading slash is matched below each source root; one that names an existing
// path was most likely meant as that path.
void warnAboutAnchoredPath(const std::string& pattern) {
    struct stat st {};
    if (pattern.size() > 1 && pattern.front() == '/' && lstat(pattern.c_str(), &st) == 0)
        FVOutput::warning("{} is matched below each source root (as {} there); to leave out that path itself: "
                          "ferrovane config DESTINATION add {} --mode exclude",
                          printable(pattern), printable(pattern.substr(1)), printable(pattern));
}

}  // namespace

std::optional<std::vector<std::string>> checkedPatterns(const std::vector<std::string>& patterns, std::string& problem) {
    std::vector<std::string> checked;
    for (const std::string& text : patterns) {
        std::string why;
        if (!FVExcludePattern::parse(text, &why)) {
            problem += fmt::format("{}not a pattern: {} ({})", problem.empty() ? "" : "\n", printable(text), why);
            continue;
        }
        checked.push_back(text);
    }
    if (!problem.empty()) return std::nullopt;
    return checked;
}

std::optional<std::vector<std::string>> readFile(const std::string& path, std::string& problem) {
    std::optional<std::string> text = readWhole(path, problem);
    if (!text) return std::nullopt;
    FVExcludePattern::Lines lines = FVExcludePattern::parseLines(*text);
    for (const std::string& line : lines.problems)
        problem += fmt::format("{}{}: {}", problem.empty() ? "" : "\n", printable(path), line);
    if (!problem.empty()) return std::nullopt;
    std::vector<std::string> patterns;
    for (const FVExcludePattern& pattern : lines.patterns) patterns.push_back(pattern.text());
    return patterns;
}

std::vector<std::string> storedPatterns(const PlistDict& options) {
    std::vector<std::string> texts;
    for (const FVExcludePattern& pattern : FVOptionTable::readPatterns(options, nullptr)) texts.push_back(pattern.text());
    return texts;
}

bool apply(PlistDict& options, const std::vector<std::string>& patterns, bool remove, const std::string& from,
           std::string& message) {
    // The stored texts as they are: a pattern that cannot be used can still be removed.
    std::vector<std::string> problems;
    FVOptionTable::readPatterns(options, &problems);
    std::vector<std::string> texts;
    const PlistValue* value = options.find(FVOptionKey::excludePatterns);
    const PlistArrayPtr* list = value ? value->array() : nullptr;
    bool usable = !value || (list && *list);
    if (list && *list)
        for (const PlistValue& item : **list) {
            if (const std::string* text = item.string()) texts.push_back(*text);
            else usable = false;
        }
    if (!usable || (!remove && !problems.empty())) {
        message = printable(problems.front());
        return false;
    }
    size_t changed = 0;
    for (const std::string& pattern : patterns) {
        auto found = std::find(texts.begin(), texts.end(), pattern);
        if (remove == (found == texts.end())) continue;
        if (remove) texts.erase(found);
        else texts.push_back(pattern);
        if (!remove) warnAboutAnchoredPath(pattern);
        ++changed;
    }
    auto stored = std::make_shared<PlistArray>();
    for (const std::string& text : texts) stored->emplace_back(text);
    if (texts.empty()) options.remove(FVOptionKey::excludePatterns);
    else options.set(FVOptionKey::excludePatterns, PlistValue(stored));
    const size_t unchanged = patterns.size() - changed;
    if (remove)
        message = patterns.size() == 1 && changed == 1 ? "Removed the pattern " + printable(patterns.front()) + "."
                  : fmt::format("Removed {}.", patternCount(changed));
    else
        message = patterns.size() == 1 && changed == 1
                      ? "Added the pattern " + printable(patterns.front()) + ": it is left out below every source."
                      : fmt::format("Added {}{}.", patternCount(changed),
                                    from.empty() ? "" : " from " + printable(from));
    if (unchanged > 0)
        message += fmt::format(" {} {}.", unchanged, remove ? (unchanged == 1 ? "was not in the list" : "were not in the list")
                                                           : (unchanged == 1 ? "was already there" : "were already there"));
    return true;
}

}  // namespace ferrovane::FVExcludeCommand
