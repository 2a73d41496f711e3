#pragma once
// Which paths of a source tree are left out of the mirror. A pattern is one of three kinds, told
// apart by its text: "/a/b/" (everything below that folder, not the folder itself), "/a/b" (the
// item and everything below it, never "/a/bc") and "name" or "a/name" (any path whose trailing
// components are exactly these: "log" leaves out ".../log", not ".../catalog").

#include <string>
#include <string_view>
#include <vector>

namespace ferrovane {

class FVExclusionRules {
public:
    // Patterns in order; the first match wins. An absolute pattern that covers
    // currentSourceItemPath (or lies above it) is ignored, so that it cannot drop the whole item.
    static bool fileShouldBeExcluded(const std::string& path, const std::vector<std::string>& patterns,
                                     const std::string* currentSourceItemPath = nullptr);

    // Names added as patterns when an item of that name lies directly inside a source item:
    // {tested name, pattern}.
    struct NamedPattern {
        const char* testedName;
        const char* pattern;
    };
    static const std::vector<NamedPattern>& perItemNamePatterns();
    // For a clone of "/": added only when they exist directly under "/".
    static const std::vector<std::string>& rootCloneConditionalNames();
    // For a clone of "/": always added, in this order.
    static const std::vector<std::string>& rootClonePatterns();
    // For a clone of "/": the destination's own volume files, archives and configuration, which
    // the cleanup keeps.
    static const std::vector<std::string>& rootCloneProtectedPaths();
};

}  // namespace ferrovane
