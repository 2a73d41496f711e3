#pragma once
// Making new entries that are neither files nor links: folders and special files. -1 with errno.

#include <sys/types.h>

#include <string>

namespace ferrovane::FVItemCreation {

int mkdir(const char* path, mode_t mode);
int mkdirat(int dirFd, const char* name, mode_t mode);
int mknodat(int dirFd, const char* name, mode_t mode, dev_t device);
// The folder that holds path and every missing folder above it; failures are left to the use
// of the folder to report.
void makeParentFolders(const std::string& path);

}  // namespace ferrovane::FVItemCreation
