#include "search/FVSearchText.h"

#include <fmt/format.h>

#include <locale.h>
#include <wctype.h>

namespace ferrovane::FVSearchText {

namespace {

// Length of the well-formed UTF-8 sequence at s[i] (1 for ASCII), or 0 when malformed.
size_t decodeUTF8(std::string_view s, size_t i, char32_t& code) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    size_t length;
    char32_t min;
    if (c < 0x80) return code = c, 1;
    if (c >= 0xC2 && c <= 0xDF) length = 2, min = 0x80, code = c & 0x1F;
    else if (c >= 0xE0 && c <= 0xEF) length = 3, min = 0x800, code = c & 0x0F;
    else if (c >= 0xF0 && c <= 0xF4) length = 4, min = 0x10000, code = c & 0x07;
    else return 0;
    if (i + length > s.size()) return 0;
    for (size_t k = 1; k < length; ++k) {
        unsigned char d = static_cast<unsigned char>(s[i + k]);
        if ((d & 0xC0) != 0x80) return 0;
        code = (code << 6) | (d & 0x3F);
    }
    if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return 0;
    return length;
}

void appendUTF8(std::string& out, char32_t code) {
    if (code < 0x80) {
        out += static_cast<char>(code);
    } else if (code < 0x800) {
        out += static_cast<char>(0xC0 | (code >> 6));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        out += static_cast<char>(0xE0 | (code >> 12));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (code >> 18));
        out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (code & 0x3F));
    }
}

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
        size_t length = decodeUTF8(text, i, code);
        if (length <= 1 || !locale) {
            out += (c >= 'A' && c <= 'Z') ? static_cast<char>(c + ('a' - 'A')) : static_cast<char>(c);
            ++i;
            continue;
        }
        appendUTF8(out, static_cast<char32_t>(towlower_l(static_cast<wint_t>(code), locale)));
        i += length;
    }
    return out;
}

std::string printable(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        char32_t code = 0;
        size_t length = decodeUTF8(text, i, code);
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
