#pragma once
// The string table shared by the engine and the window: localization key -> English text.

#include <fmt/format.h>

#include <string>
#include <string_view>

namespace ferrovane::FVStrings {

// The text for key; the key itself when the table has no such entry.
const std::string& localized(std::string_view key);
bool contains(std::string_view key);

// The text for key with its {} placeholders filled; a malformed entry yields the bare text.
template <class... Args>
std::string format(std::string_view key, Args&&... args) {
    const std::string& text = localized(key);
    try {
        return fmt::format(fmt::runtime(text), std::forward<Args>(args)...);
    } catch (const fmt::format_error&) {
        return text;
    }
}

// A count in words: the entry "key.one" when count is 1 and the table has it, else key itself.
// The count is the first argument; the other forms may refer to it as {0}.
template <class... Args>
std::string formatPlural(std::string_view key, long long count, Args&&... args) {
    std::string one = std::string(key) + ".one";
    return format(count == 1 && contains(one) ? std::string_view(one) : key, count, std::forward<Args>(args)...);
}

}  // namespace ferrovane::FVStrings
