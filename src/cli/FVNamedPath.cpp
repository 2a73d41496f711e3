#include "cli/FVNamedPath.h"

#include "fs/FVPathResolution.h"
#include "fs/FVText.h"

namespace ferrovane::FVNamedPath {

std::string absolute(const std::string& path) {
    if (path.empty()) return path;
    return FVText::standardizedPath(FVPathResolution::absolute(path.c_str()));
}

std::string resolved(const std::string& path) {
    std::string existing = path, rest;
    std::string base;
    while (!FVPathResolution::realPath(existing.c_str(), base)) {
        if (existing == "/") return path;
        rest = "/" + FVText::lastPathComponent(existing) + rest;
        existing = FVText::deletingLastPathComponent(existing);
    }
    return base == "/" && !rest.empty() ? rest : base + rest;
}

}  // namespace ferrovane::FVNamedPath
