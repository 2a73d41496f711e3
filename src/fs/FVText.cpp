#include "fs/FVText.h"

#include <vector>

namespace ferrovane::FVText {

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

std::string validUTF8(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size();) {
        char32_t code;
        if (size_t length = decodeUTF8(s, i, code)) {
            out.append(s.substr(i, length));
            i += length;
        } else {
            out.append("\xEF\xBF\xBD");
            ++i;
        }
    }
    return out;
}

std::string lastPathComponent(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    if (path == "/") return "/";
    auto slash = path.find_last_of('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string deletingLastPathComponent(std::string_view path) {
    while (path.size() > 1 && path.back() == '/') path.remove_suffix(1);
    auto slash = path.find_last_of('/');
    if (slash == std::string_view::npos) return "";
    if (slash == 0) return "/";
    return std::string(path.substr(0, slash));
}

std::string appendingPathComponent(std::string_view base, std::string_view component) {
    if (component.starts_with('/')) component.remove_prefix(1);
    std::string path(base);
    if (component.empty()) return path;
    if (!path.empty() && path.back() != '/') path += '/';
    path += component;
    return path;
}

bool isPathWithin(std::string_view path, std::string_view folder) {
    if (folder.empty() || !path.starts_with(folder)) return false;
    return path.size() == folder.size() || folder.back() == '/' || path[folder.size()] == '/';
}

std::string standardizedPath(std::string_view path) {
    std::vector<std::string_view> parts;
    size_t i = 0;
    while (i < path.size()) {
        size_t end = path.find('/', i);
        if (end == std::string_view::npos) end = path.size();
        std::string_view part = path.substr(i, end - i);
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        i = end + 1;
    }
    bool absolute = !path.empty() && path.front() == '/';
    std::string out = absolute ? "/" : "";
    for (size_t k = 0; k < parts.size(); ++k) {
        if (k) out += '/';
        out += parts[k];
    }
    return out.empty() ? (absolute ? "/" : ".") : out;
}

}  // namespace ferrovane::FVText
