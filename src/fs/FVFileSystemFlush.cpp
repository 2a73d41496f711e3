#include "fs/FVFileSystemFlush.h"

#include <unistd.h>

namespace ferrovane::FVFileSystemFlush {

int fsync(int fd) { return ::fsync(fd); }
int syncfs(int fd) { return ::syncfs(fd); }

}  // namespace ferrovane::FVFileSystemFlush
