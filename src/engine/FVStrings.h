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

}  // namespace ferrovane::FVStrings
