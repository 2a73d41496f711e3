#pragma once
// The words of a name search and the test of a name against them: a name matches when it contains
// every word, without regard to case.

#include <string>
#include <string_view>
#include <vector>

namespace ferrovane {

class FVSearchQuery {
public:
    // The text split at every single blank; doubled, leading and trailing blanks give empty
    // words, which no name contains.
    explicit FVSearchQuery(std::string_view text);

    // Not safe from two threads at once: the lower-cased name is kept in one buffer.
    bool matches(std::string_view name) const;

private:
    std::vector<std::string> terms_;  // lower case
    mutable std::string lowerName_;
};

}  // namespace ferrovane
