#pragma once
// A file's bytes through its descriptor: reading, writing, its size and its room on the disk.
// Thin: each call answers as the kernel does (-1 with errno).

#include <sys/types.h>

#include <cstddef>

namespace ferrovane::FVFileData {

ssize_t read(int fd, void* buffer, size_t size);
ssize_t write(int fd, const void* buffer, size_t size);
ssize_t pread(int fd, void* buffer, size_t size, off_t offset);
off_t lseek(int fd, off_t offset, int whence);
int ftruncate(int fd, off_t length);
int fallocate(int fd, int mode, off_t offset, off_t length);
// A hint that the file is read from start to end; its failure changes nothing.
void adviseSequential(int fd);
// A hint that the whole file is read soon: its reads start now; its failure changes nothing.
void adviseWillNeed(int fd);

}  // namespace ferrovane::FVFileData
