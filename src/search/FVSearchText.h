#pragma once
// Names in a destination are bytes that are usually, but not always, UTF-8. The search compares
// them without regard to case and prints them without letting a name drive the terminal.

#include <string>
#include <string_view>

namespace ferrovane::FVSearchText {

// Unicode simple lower case of the valid UTF-8 parts; other bytes are kept as they are, so
// invalid names are still matched on their bytes.
std::string lowercased(std::string_view text);
// The text for a terminal: bytes that are not valid UTF-8 and control characters (C0, DEL,
// C1) become \xNN, and a backslash becomes \\ so that the escapes are unambiguous.
std::string printable(std::string_view text);

}  // namespace ferrovane::FVSearchText
