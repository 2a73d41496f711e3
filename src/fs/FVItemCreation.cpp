#include "fs/FVItemCreation.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <filesystem>
#include <system_error>

namespace ferrovane::FVItemCreation {

int mkdir(const char* path, mode_t mode) { return ::mkdir(path, mode); }
int mkdirat(int dirFd, const char* name, mode_t mode) { return ::mkdirat(dirFd, name, mode); }
int mknodat(int dirFd, const char* name, mode_t mode, dev_t device) { return ::mknodat(dirFd, name, mode, device); }

void makeParentFolders(const std::string& path) {
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
}

}  // namespace ferrovane::FVItemCreation
