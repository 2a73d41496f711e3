#include "cli/FVJsonText.h"

#include "fs/FVText.h"

#include <fmt/format.h>

#include <algorithm>

namespace ferrovane::FVJsonText {

std::string quoted(std::string_view bytes) {
    const std::string text = FVText::validUTF8(bytes);
    std::string out = "\"";
    for (size_t i = 0; i < text.size();) {
        char32_t code = 0;
        const size_t length = std::max<size_t>(FVText::decodeUTF8(text, i, code), 1);
        i += length;
        if (code == '"' || code == '\\') out += fmt::format("\\{}", static_cast<char>(code));
        else if (code < 0x20 || code == 0x7f) out += fmt::format("\\u{:04x}", static_cast<unsigned>(code));
        else if (code < 0x80) out += static_cast<char>(code);
        else if (code < 0x10000) out += fmt::format("\\u{:04x}", static_cast<unsigned>(code));
        else  // a UTF-16 surrogate pair
            out += fmt::format("\\u{:04x}\\u{:04x}", 0xD800 + ((code - 0x10000) >> 10), 0xDC00 + ((code - 0x10000) & 0x3FF));
    }
    return out + "\"";
}

std::string pathFields(std::string_view key, std::string_view path) {
    std::string out = fmt::format("\"{}\": {}", key, quoted(path));
    if (FVText::validUTF8(path) == path) return out;
    std::string hex;
    for (unsigned char c : path) hex += fmt::format("{:02x}", c);
    return out + fmt::format(", \"{}Hex\": \"{}\"", key, hex);
}

std::string formatVersionField() { return fmt::format("\"formatVersion\": {}", kFormatVersion); }

std::string time(std::time_t at) {
    if (at == 0) return "null";
    struct tm local {};
    localtime_r(&at, &local);
    char text[40];
    std::string stamp(text, std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%z", &local));
    // strftime writes +0100; ISO 8601's extended form, which the rest of the stamp uses, is +01:00.
    if (stamp.size() >= 5) stamp.insert(stamp.size() - 2, ":");
    return "\"" + stamp + "\"";
}

}  // namespace ferrovane::FVJsonText
