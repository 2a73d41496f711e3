#pragma once
// The program's own text for the locale it runs in. In a locale without UTF-8 (C, POSIX, or
// LC_ALL/LC_CTYPE/LANG naming another character set) the typographic punctuation of its
// messages becomes ASCII: "..." for the ellipsis, straight quotes, "-" for dashes and the middle
// dot. Names of files are bytes and stay as they are.

#include <string>
#include <string_view>

namespace ferrovane::FVLocaleText {

// Whether the locale of the environment takes UTF-8; decided once, from LC_ALL, else LC_CTYPE,
// else LANG, as setlocale would.
bool utf8();
// Whether a locale name (as in LANG) takes UTF-8.
bool namesUTF8(std::string_view locale);
// The text as the locale can show it.
std::string shown(std::string_view text);
// The text with its typographic punctuation in ASCII.
std::string ascii(std::string_view text);

}  // namespace ferrovane::FVLocaleText
