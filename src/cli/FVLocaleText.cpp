#include "cli/FVLocaleText.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <utility>

namespace ferrovane::FVLocaleText {

namespace {

const std::pair<std::string_view, std::string_view> kPunctuation[] = {
    {"\u2026", "..."}, {"\u2018", "'"}, {"\u2019", "'"}, {"\u201C", "\""}, {"\u201D", "\""},
    {"\u2013", "-"},   {"\u2014", "-"}, {"\u00B7", "-"}, {"\u2192", "->"}, {"\u00A0", " "},
};

}  // namespace

bool namesUTF8(std::string_view locale) {
    std::string lower(locale);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
    return lower.find("utf-8") != std::string::npos || lower.find("utf8") != std::string::npos;
}

bool utf8() {
    static const bool takesUTF8 = [] {
        for (const char* variable : {"LC_ALL", "LC_CTYPE", "LANG"})
            if (const char* value = std::getenv(variable); value && *value) return namesUTF8(value);
        return false;
    }();
    return takesUTF8;
}

std::string ascii(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        auto match = std::find_if(std::begin(kPunctuation), std::end(kPunctuation),
                                  [&](const auto& entry) { return text.substr(i).starts_with(entry.first); });
        if (match == std::end(kPunctuation)) {
            out += text[i++];
            continue;
        }
        out += match->second;
        i += match->first.size();
    }
    return out;
}

std::string shown(std::string_view text) { return utf8() ? std::string(text) : ascii(text); }

}  // namespace ferrovane::FVLocaleText
