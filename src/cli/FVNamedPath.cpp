#include "cli/FVNamedPath.h"

#include "fs/FVText.h"

#include <limits.h>
#include <stdlib.h>

#include <filesystem>

namespace ferrovane::FVNamedPath {

std::string absolute(const std::string& path) {
    if (path.empty()) return path;
    return FVText::standardizedPath(path.front() == '/' ? path : std::filesystem::current_path().string() + "/" + path);
}

std::string resolved(const std::string& path) {
    std::string existing = path, rest;
    char buffer[PATH_MAX];
    while (!realpath(existing.c_str(), buffer)) {
        if (existing == "/") return path;
        rest = "/" + FVText::lastPathComponent(existing) + rest;
        existing = FVText::deletingLastPathComponent(existing);
    }
    std::string base = buffer;
    return base == "/" && !rest.empty() ? rest : base + rest;
}

}  // namespace ferrovane::FVNamedPath
