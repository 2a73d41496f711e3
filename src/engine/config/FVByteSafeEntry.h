#pragma once
// Paths are bytes, XML property lists hold text: a source entry's string that is not valid
// UTF-8, or holds a character XML cannot carry (control characters but tab and newline, a
// carriage return that readers turn into a newline, U+FFFE and U+FFFF), is written as its
// readable form under its own key (every such byte or character as U+FFFD) and its exact bytes
// as <data> under the key with "Bytes" appended, e.g. "sourcePath" and "sourcePathBytes". Any
// property-list reader parses such a file; this program reads the bytes back, unless the text
// was edited since (it no longer matches the bytes), in which case the edited text counts.

#include "engine/config/FVPlist.h"

#include <string>
#include <string_view>

namespace ferrovane {

class FVByteSafeEntry {
public:
    static constexpr std::string_view kBytesSuffix = "Bytes";

    // The entry as it is written: each unsafe string in its readable form beside its bytes.
    static PlistDict encoded(const PlistDict& entry);
    // The entry as read: each string whose bytes are stored beside it is those bytes again.
    static void decode(PlistDict& entry);

    // Whether text goes into XML as it is.
    static bool isSafe(std::string_view text);
    // The text with what XML cannot carry replaced by U+FFFD.
    static std::string readable(std::string_view text);
};

}  // namespace ferrovane
