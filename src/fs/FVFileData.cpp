#include "fs/FVFileData.h"

#include <fcntl.h>
#include <unistd.h>

namespace ferrovane::FVFileData {

ssize_t read(int fd, void* buffer, size_t size) { return ::read(fd, buffer, size); }
ssize_t write(int fd, const void* buffer, size_t size) { return ::write(fd, buffer, size); }
ssize_t pread(int fd, void* buffer, size_t size, off_t offset) { return ::pread(fd, buffer, size, offset); }
off_t lseek(int fd, off_t offset, int whence) { return ::lseek(fd, offset, whence); }
int ftruncate(int fd, off_t length) { return ::ftruncate(fd, length); }
int fallocate(int fd, int mode, off_t offset, off_t length) { return ::fallocate(fd, mode, offset, length); }
void adviseSequential(int fd) { posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL); }
void adviseWillNeed(int fd) { posix_fadvise(fd, 0, 0, POSIX_FADV_WILLNEED); }

}  // namespace ferrovane::FVFileData
