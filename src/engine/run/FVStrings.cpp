#include "engine/run/FVStrings.h"

#include <unordered_map>

namespace ferrovane {
extern const std::string_view kStringTableSource;
}

namespace ferrovane::FVStrings {

namespace {

// Reads one "…" literal starting at s[i] == '"'; understands \" \\ and \n.
bool readQuoted(std::string_view s, size_t& i, std::string& out) {
    if (i >= s.size() || s[i] != '"') return false;
    out.clear();
    for (++i; i < s.size(); ++i) {
        char c = s[i];
        if (c == '"') {
            ++i;
            return true;
        }
        if (c == '\\' && i + 1 < s.size()) {
            char e = s[++i];
            out.push_back(e == 'n' ? '\n' : e);
        } else {
            out.push_back(c);
        }
    }
    return false;
}

void skipSpaceAndComments(std::string_view s, size_t& i) {
    for (;;) {
        while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\n' || s[i] == '\r')) ++i;
        if (s.substr(i, 2) == "/*") {
            size_t end = s.find("*/", i + 2);
            i = end == std::string_view::npos ? s.size() : end + 2;
        } else if (s.substr(i, 2) == "//") {
            size_t end = s.find('\n', i);
            i = end == std::string_view::npos ? s.size() : end + 1;
        } else {
            return;
        }
    }
}

const std::unordered_map<std::string, std::string>& table() {
    static const std::unordered_map<std::string, std::string> parsed = [] {
        std::unordered_map<std::string, std::string> map;
        std::string_view s = kStringTableSource;
        size_t i = 0;
        std::string key, value;
        for (;;) {
            skipSpaceAndComments(s, i);
            if (!readQuoted(s, i, key)) break;
            skipSpaceAndComments(s, i);
            if (i >= s.size() || s[i] != '=') break;
            ++i;
            skipSpaceAndComments(s, i);
            if (!readQuoted(s, i, value)) break;
            skipSpaceAndComments(s, i);
            if (i < s.size() && s[i] == ';') ++i;
            map[key] = value;
        }
        return map;
    }();
    return parsed;
}

}  // namespace

const std::string& localized(std::string_view key) {
    static thread_local std::string missing;
    const auto& map = table();
    if (auto it = map.find(std::string(key)); it != map.end()) return it->second;
    missing = std::string(key);
    return missing;
}

bool contains(std::string_view key) { return table().count(std::string(key)) != 0; }

}  // namespace ferrovane::FVStrings
