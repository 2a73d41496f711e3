#include "fs/FVFileModes.h"

#include <sys/stat.h>

namespace ferrovane::FVFileModes {

int chmod(const char* path, mode_t mode) { return ::chmod(path, mode); }
int fchmod(int fd, mode_t mode) { return ::fchmod(fd, mode); }

}  // namespace ferrovane::FVFileModes
