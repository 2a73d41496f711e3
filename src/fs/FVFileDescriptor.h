#pragma once
// An owned file descriptor, and opening of paths that may be longer than PATH_MAX (deep trees
// hold such paths; the kernel refuses them in a single call).

#include <sys/stat.h>
#include <sys/types.h>

#include <string>

namespace ferrovane {

class FVFd {
public:
    FVFd() = default;
    explicit FVFd(int fd) : fd_(fd) {}
    ~FVFd() { reset(); }
    FVFd(FVFd&& other) noexcept : fd_(other.release()) {}
    FVFd& operator=(FVFd&& other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    FVFd(const FVFd&) = delete;
    FVFd& operator=(const FVFd&) = delete;

    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }
    int release() {
        int fd = fd_;
        fd_ = -1;
        return fd;
    }
    // Keeps errno as it was, so that a failure can be reported after the cleanup.
    void reset(int fd = -1);

private:
    int fd_ = -1;
};

namespace FVLongPath {

// The folder that holds the last component of an absolute path (an O_PATH descriptor), and that
// component. Symbolic links in the folder part are followed, as a plain open would.
// Returns an invalid descriptor with errno set on failure.
FVFd openParent(const std::string& path, std::string& name);
// open(2) and lstat(2) for paths of any length; O_CLOEXEC is always added. -1/errno on failure.
int open(const std::string& path, int flags, mode_t mode = 0);
int lstat(const std::string& path, struct stat* st);
// The text of the symbolic link at path; empty when it cannot be read.
std::string readLink(const std::string& path);

}  // namespace FVLongPath

}  // namespace ferrovane
