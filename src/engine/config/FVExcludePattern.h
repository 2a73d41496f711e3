#pragma once
// One exclusion pattern of the user's, matched below each source root the way rsync and
// gitignore match theirs: a pattern without a slash matches a name at any depth ("*.tmp",
// "node_modules"); a pattern with a slash (or a leading one) is matched against the whole path
// below the source root ("src/*/cache", "/build"); "**" matches any number of folders
// ("**/build", "logs/**"); a trailing slash matches folders only ("cache/"). The wildcards are
// fnmatch(3)'s ("*", "?", "[...]", "\" escapes) and never match a slash. Paths are bytes.

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ferrovane {

class FVExcludePattern {
public:
    // The pattern of text, or nothing with why it cannot be one (empty, "!" negation, "." or
    // ".." as a component, an unclosed "[", a control character).
    static std::optional<FVExcludePattern> parse(std::string_view text, std::string* problem = nullptr);

    // The patterns of an exclude file: one a line; blank lines and lines whose first character
    // is "#" are skipped, blanks and a carriage return at a line's end are dropped. Each line that is no
    // pattern is one problem ("line 3: ...").
    struct Lines {
        std::vector<FVExcludePattern> patterns;
        std::vector<std::string> problems;
    };
    static Lines parseLines(std::string_view text);

    // relativePath: below the source root, without a leading slash ("a/b/c").
    bool matches(std::string_view relativePath, bool isDirectory) const;
    // As the user wrote it, and as the configuration stores it.
    const std::string& text() const { return text_; }

private:
    explicit FVExcludePattern(std::string text) : text_(std::move(text)) {}

    std::string text_;
    std::vector<std::string> components_;  // of an anchored pattern; one name otherwise
    bool anchored_ = false;
    bool foldersOnly_ = false;
};

}  // namespace ferrovane
