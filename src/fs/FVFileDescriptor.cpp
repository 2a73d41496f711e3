#include "fs/FVFileDescriptor.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

namespace ferrovane {

void FVFd::reset(int fd) {
    if (fd_ >= 0) {
        int saved = errno;
        ::close(fd_);
        errno = saved;
    }
    fd_ = fd;
}

namespace FVLongPath {

FVFd openParent(const std::string& path, std::string& name) {
    size_t slash = path.find_last_of('/');
    if (slash == std::string::npos) {
        errno = EINVAL;
        return {};
    }
    name = path.substr(slash + 1);
    std::string_view folder = std::string_view(path).substr(0, slash == 0 ? 1 : slash);
    FVFd current;
    size_t pos = 0;
    while (pos < folder.size()) {
        size_t take = folder.size() - pos;
        if (take >= PATH_MAX) {
            size_t cut = folder.rfind('/', pos + PATH_MAX - 2);
            if (cut == std::string_view::npos || cut < pos) {
                errno = ENAMETOOLONG;
                return {};
            }
            take = cut == pos ? 1 : cut - pos;
        }
        std::string piece(folder.substr(pos, take));
        int fd = ::openat(current.valid() ? current.get() : AT_FDCWD, piece.c_str(),
                          O_PATH | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0) return {};
        current.reset(fd);
        pos += take;
        while (pos < folder.size() && folder[pos] == '/') ++pos;
    }
    return current;
}

int open(const std::string& path, int flags, mode_t mode) {
    if (path.size() < PATH_MAX) return ::open(path.c_str(), flags | O_CLOEXEC, mode);
    std::string name;
    FVFd parent = openParent(path, name);
    if (!parent.valid()) return -1;
    return ::openat(parent.get(), name.c_str(), flags | O_CLOEXEC, mode);
}

int lstat(const std::string& path, struct stat* st) {
    if (path.size() < PATH_MAX) return ::lstat(path.c_str(), st);
    std::string name;
    FVFd parent = openParent(path, name);
    if (!parent.valid()) return -1;
    return ::fstatat(parent.get(), name.c_str(), st, AT_SYMLINK_NOFOLLOW);
}

std::string readLink(const std::string& path) {
    std::string name;
    FVFd folder = openParent(path, name);
    if (!folder.valid()) return {};
    std::string text(4096, '\0');
    ssize_t n = readlinkat(folder.get(), name.c_str(), text.data(), text.size());
    text.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return text;
}

}  // namespace FVLongPath

}  // namespace ferrovane
