#include "fs/FVText.h"

#include <vector>

namespace ferrovane::FVText {

std::string validUTF8(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    size_t i = 0;
    while (i < s.size()) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        size_t length = 0;
        unsigned min = 0;
        if (c < 0x80) length = 1;
        else if (c >= 0xC2 && c <= 0xDF) length = 2, min = 0x80;
        else if (c >= 0xE0 && c <= 0xEF) length = 3, min = 0x800;
        else if (c >= 0xF0 && c <= 0xF4) length = 4, min = 0x10000;
        bool ok = length > 0 && i + length <= s.size();
        unsigned code = length == 1 ? c : (length == 2 ? c & 0x1F : length == 3 ? c & 0x0F : c & 0x07);
        for (size_t k = 1; ok && k < length; ++k) {
            unsigned char d = static_cast<unsigned char>(s[i + k]);
            if ((d & 0xC0) != 0x80) ok = false;
            code = (code << 6) | (d & 0x3F);
        }
        if (ok && length > 1 && (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))) ok = false;
        if (ok) {
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
