#include "cli/FVJsonText.h"

#include "fs/FVText.h"

#include <fmt/format.h>

namespace ferrovane::FVJsonText {

std::string quoted(std::string_view bytes) {
    std::string text = FVText::validUTF8(bytes);
    std::string out = "\"";
    for (unsigned char c : text) {
        if (c == '"' || c == '\\') out += fmt::format("\\{}", static_cast<char>(c));
        else if (c < 0x20 || c == 0x7f) out += fmt::format("\\u{:04x}", c);
        else out += static_cast<char>(c);
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

}  // namespace ferrovane::FVJsonText
