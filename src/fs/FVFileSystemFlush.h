#pragma once
// Getting written data onto the disk: one file, or the whole file system. -1 with errno.

namespace ferrovane::FVFileSystemFlush {

int fsync(int fd);
int syncfs(int fd);

}  // namespace ferrovane::FVFileSystemFlush
