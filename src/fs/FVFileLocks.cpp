#include "fs/FVFileLocks.h"

#include <sys/file.h>

namespace ferrovane::FVFileLocks {

int flock(int fd, int operation) { return ::flock(fd, operation); }

}  // namespace ferrovane::FVFileLocks
