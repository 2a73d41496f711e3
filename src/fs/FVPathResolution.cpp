#include "fs/FVPathResolution.h"

#include <limits.h>
#include <stdlib.h>

#include <filesystem>
#include <system_error>

namespace ferrovane::FVPathResolution {

bool realPath(const char* path, std::string& resolved) {
    char buffer[PATH_MAX];
    if (!::realpath(path, buffer)) return false;
    resolved = buffer;
    return true;
}

std::string absolute(const char* path) {
    std::error_code error;
    std::filesystem::path folder = *path == '/' ? std::filesystem::path() : std::filesystem::current_path(error);
    return folder.empty() ? std::string(path) : (folder / path).string();
}

}  // namespace ferrovane::FVPathResolution
