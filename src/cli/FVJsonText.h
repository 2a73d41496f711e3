#pragma once
// JSON text for the commands' --json output. Names are bytes: a string carries their valid UTF-8
// reading, and a name that is not UTF-8 also goes out as its exact bytes in hex.

#include <string>
#include <string_view>

namespace ferrovane::FVJsonText {

// A JSON string literal (quotes included) of the UTF-8 reading of the bytes.
std::string quoted(std::string_view bytes);
// "key": "..." and, for a name that is not valid UTF-8, , "keyHex": "<bytes in hex>".
std::string pathFields(std::string_view key, std::string_view path);

}  // namespace ferrovane::FVJsonText
