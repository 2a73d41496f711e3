#include "engine/config/FVExcludePattern.h"

#include <fmt/format.h>
#include <fnmatch.h>

#include <algorithm>

namespace ferrovane {

namespace {

std::vector<std::string_view> components(std::string_view path) {
    std::vector<std::string_view> parts;
    size_t start = 0;
    while (start <= path.size()) {
        size_t slash = path.find('/', start);
        if (slash == std::string_view::npos) slash = path.size();
        if (slash > start) parts.push_back(path.substr(start, slash - start));
        start = slash + 1;
    }
    return parts;
}

bool nameMatches(const std::string& pattern, std::string_view name) {
    return fnmatch(pattern.c_str(), std::string(name).c_str(), 0) == 0;
}

// "**" stands for any number of whole components, none included.
bool componentsMatch(const std::vector<std::string>& pattern, size_t p, const std::vector<std::string_view>& path,
                     size_t i) {
    if (p == pattern.size()) return i == path.size();
    if (pattern[p] == "**") {
        // A trailing "**" stands for what lies inside, not for the folder itself.
        if (p + 1 == pattern.size()) return i < path.size();
        for (size_t skip = i; skip <= path.size(); ++skip)
            if (componentsMatch(pattern, p + 1, path, skip)) return true;
        return false;
    }
    return i < path.size() && nameMatches(pattern[p], path[i]) && componentsMatch(pattern, p + 1, path, i + 1);
}

// A "[" that fnmatch would take literally for want of its "]" is a typing mistake here.
bool bracketsClosed(std::string_view text) {
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\') {
            ++i;
            continue;
        }
        if (text[i] != '[') continue;
        size_t j = i + 1;
        if (j < text.size() && (text[j] == '!' || text[j] == '^')) ++j;
        if (j < text.size() && text[j] == ']') ++j;
        while (j < text.size() && text[j] != ']' && text[j] != '/') ++j;
        if (j >= text.size() || text[j] != ']') return false;
        i = j;
    }
    return true;
}

}  // namespace

std::optional<FVExcludePattern> FVExcludePattern::parse(std::string_view text, std::string* problem) {
    auto refuse = [problem](const char* why) -> std::optional<FVExcludePattern> {
        if (problem) *problem = why;
        return std::nullopt;
    };
    if (text.empty()) return refuse("an empty pattern");
    if (text.front() == '!') return refuse("\"!\" (an exception to the exclusions) is not supported");
    if (std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < 0x20 || c == 0x7F; }))
        return refuse("a control character in a pattern");
    if (!bracketsClosed(text)) return refuse("a \"[\" without its \"]\"");
    FVExcludePattern pattern{std::string(text)};
    std::string_view body = text;
    if (body.ends_with('/')) {
        pattern.foldersOnly_ = true;
        body.remove_suffix(1);
    }
    pattern.anchored_ = body.find('/') != std::string_view::npos;
    for (std::string_view part : components(body)) {
        if (part == "." || part == "..") return refuse("\".\" or \"..\" as a folder in a pattern");
        pattern.components_.emplace_back(part);
    }
    if (pattern.components_.empty()) return refuse("a pattern without a name");
    // "**/name" is "name" at any depth.
    if (pattern.components_.size() == 2 && pattern.components_.front() == "**" && pattern.components_.back() != "**") {
        pattern.components_.erase(pattern.components_.begin());
        pattern.anchored_ = false;
    }
    return pattern;
}

FVExcludePattern::Lines FVExcludePattern::parseLines(std::string_view text) {
    Lines lines;
    size_t number = 0;
    while (!text.empty()) {
        ++number;
        size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) line.remove_suffix(1);
        if (line.empty() || line.front() == '#') continue;
        std::string why;
        if (std::optional<FVExcludePattern> pattern = parse(line, &why)) lines.patterns.push_back(std::move(*pattern));
        else lines.problems.push_back(fmt::format("line {}: {}", number, why));
    }
    return lines;
}

bool FVExcludePattern::matches(std::string_view relativePath, bool isDirectory) const {
    if (foldersOnly_ && !isDirectory) return false;
    while (relativePath.ends_with('/')) relativePath.remove_suffix(1);
    if (relativePath.empty()) return false;
    // Most patterns are names: only the last component counts, and nothing is split.
    if (!anchored_) {
        const size_t slash = relativePath.rfind('/');
        return components_.front() == "**" ||
               nameMatches(components_.front(), slash == std::string_view::npos ? relativePath : relativePath.substr(slash + 1));
    }
    return componentsMatch(components_, 0, components(relativePath), 0);
}

}  // namespace ferrovane
