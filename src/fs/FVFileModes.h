#pragma once
// Setting an item's permission bits. -1 with errno.

#include <sys/types.h>

namespace ferrovane::FVFileModes {

int chmod(const char* path, mode_t mode);
int fchmod(int fd, mode_t mode);

}  // namespace ferrovane::FVFileModes
