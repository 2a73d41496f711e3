#pragma once
// Paths are bytes; some consumers (D-Bus, JSON-ish outputs) need valid UTF-8 text.

#include <string>
#include <string_view>

namespace ferrovane::FVText {

// Length of the well-formed UTF-8 sequence at bytes[pos] (1 for ASCII) with its code point in code,
// or 0 when no valid sequence starts there (overlong forms and surrogates are not UTF-8).
size_t decodeUTF8(std::string_view bytes, size_t pos, char32_t& code);
// Appends the UTF-8 form of code.
void appendUTF8(std::string& out, char32_t code);
// The text with every byte sequence that is not valid UTF-8 replaced by U+FFFD.
std::string validUTF8(std::string_view bytes);
// The last path component ("/" for the root, as a file manager shows it).
std::string lastPathComponent(std::string_view path);
// The path without its last component ("/" for a top-level item).
std::string deletingLastPathComponent(std::string_view path);
// The path of a component (or of a relative path, with or without its leading "/") inside base,
// with one separator between them; base itself when the component is empty.
std::string appendingPathComponent(std::string_view base, std::string_view component);
// Whether path is folder or lies inside it: a prefix of whole components, not of characters.
bool isPathWithin(std::string_view path, std::string_view folder);
// Lexical cleanup of an absolute path: doubled slashes, "." and ".." and a trailing slash go.
std::string standardizedPath(std::string_view path);

}  // namespace ferrovane::FVText
