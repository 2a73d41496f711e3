#pragma once
// JSON text for the commands' --json output. Names are bytes: a string carries their valid UTF-8
// reading, and a name that is not UTF-8 also goes out as its exact bytes in hex. The text is
// ASCII whatever the names hold (other characters go out as \u escapes), and every time is ISO
// 8601 local time with its offset.

#include <ctime>
#include <string>
#include <string_view>

namespace ferrovane::FVJsonText {

// A JSON string literal (quotes included) of the UTF-8 reading of the bytes.
std::string quoted(std::string_view bytes);
// "key": "..." and, for a name that is not valid UTF-8, , "keyHex": "<bytes in hex>".
std::string pathFields(std::string_view key, std::string_view path);
// Every JSON object a command prints starts with this field; the number grows when a field
// changes its meaning or goes away (new fields may come without it).
inline constexpr int kFormatVersion = 1;
// "\"formatVersion\": 1"
std::string formatVersionField();
// "2026-11-24T10:00:00+01:00", quoted; null for 0 (no time).
std::string time(std::time_t at);

}  // namespace ferrovane::FVJsonText
