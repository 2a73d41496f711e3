#pragma once
// How deeply the arrays and dictionaries of a property list nest, read from its bytes before
// libplist parses them: libplist builds and frees its trees recursively, and a file nested some
// hundred thousand levels deep overflows the stack. XML is scanned for its container tags,
// binary lists are walked through their object references (a reference loop counts as too deep).
// libplist also copies a binary object for every reference to it, so a few shared levels expand
// to billions of values: a binary list is refused when it would expand beyond what the largest
// XML configuration can hold.

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ferrovane {

class FVPlistNesting {
public:
    // Far beyond any configuration, far below what the stack holds.
    static constexpr int kLimit = 64;
    static constexpr uint64_t kMaximumValues = uint64_t{1} << 21;

    // Why the bytes, XML or binary, must not reach libplist; nothing when they may.
    static std::optional<std::string> refusal(std::string_view bytes);

private:
    static std::optional<std::string> xmlRefusal(std::string_view xml);
    static std::optional<std::string> binaryRefusal(std::string_view bytes);
};

}  // namespace ferrovane
