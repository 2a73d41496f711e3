#include "search/FVSearchText.h"

#include "fs/FVText.h"

#include <fmt/format.h>

#include <locale.h>
#include <wctype.h>

namespace ferrovane::FVSearchText {

namespace {

// A fixed locale for case mapping, independent of the user's; null means ASCII only.
locale_t caseMappingLocale() {
    static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t(0));
    return locale;
}

void appendEscaped(std::string& out, std::string_view bytes) {
    for (unsigned char c : bytes) out += fmt::format("\\x{:02x}", c);
}

}  // namespace

std::string lowercased(std::string_view text) {
    locale_t locale = caseMappingLocale();
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        char32_t code = 0;
        size_t length = FVText::decodeUTF8(text, i, code);
        if (length <= 1 || !locale) {
            out += (c >= 'A' && c <= 'Z') ? static_cast<char>(c + ('a' - 'A')) : static_cast<char>(c);
            ++i;
            continue;
        }
        FVText::appendUTF8(out, static_cast<char32_t>(towlower_l(static_cast<wint_t>(code), locale)));
        i += length;
    }
    return out;
}

std::string printable(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        char32_t code = 0;
        size_t length = FVText::decodeUTF8(text, i, code);
        if (length == 0) {
            appendEscaped(out, text.substr(i, 1));
            ++i;
            continue;
        }
        if (code < 0x20 || code == 0x7F || (code >= 0x80 && code < 0xA0)) appendEscaped(out, text.substr(i, length));
        else if (code == '\\') out += "\\\\";
        else out.append(text.substr(i, length));
        i += length;
    }
    return out;
}

}  // namespace ferrovane::FVSearchText
