#include "fs/FVAtomicFile.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <vector>

namespace ferrovane::FVAtomicFile {

namespace {

std::string parentOf(const std::string& path) {
    auto slash = path.find_last_of('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

// Temporary files are named "<file>.<writer's pid>.<random>", so that a later writer can tell
// the leftovers of a writer that was killed from the file of one that is still at work.
void removeAbandonedTemporaryFiles(const std::string& path) {
    std::string folder = parentOf(path);
    std::string prefix = path.substr(path.find_last_of('/') + 1) + ".";
    DIR* dir = opendir(folder.c_str());
    if (!dir) return;
    while (dirent* entry = readdir(dir)) {
        std::string_view name = entry->d_name;
        if (name.size() <= prefix.size() || name.substr(0, prefix.size()) != prefix) continue;
        std::string_view rest = name.substr(prefix.size());
        size_t dot = rest.find('.');
        if (dot == 0 || dot == std::string_view::npos || rest.size() - dot - 1 != 6) continue;
        pid_t pid = 0;
        auto [end, ec] = std::from_chars(rest.data(), rest.data() + dot, pid);
        if (ec != std::errc() || end != rest.data() + dot || pid <= 0) continue;
        if (kill(pid, 0) == 0 || errno != ESRCH) continue;
        unlinkat(dirfd(dir), entry->d_name, 0);
    }
    closedir(dir);
}

// Keeps errno.
bool ownedByUs(int fd) {
    const int saved = errno;
    struct stat st {};
    const bool ours = fstat(fd, &st) == 0 && st.st_uid == geteuid();
    errno = saved;
    return ours;
}

bool fail(std::string* error, const std::string& what) {
    if (error) *error = what + ": " + std::strerror(errno);
    return false;
}

}  // namespace

bool write(const std::string& path, std::string_view bytes, std::string* error) {
    removeAbandonedTemporaryFiles(path);
    std::string tmpl = path + "." + std::to_string(getpid()) + ".XXXXXX";
    std::vector<char> name(tmpl.begin(), tmpl.end());
    name.push_back('\0');
    int fd = mkostemp(name.data(), O_CLOEXEC);
    if (fd < 0) return fail(error, "cannot create a temporary file beside " + path);
    std::string tmp(name.data());

    auto abandon = [&](const std::string& what) {
        int saved = errno;
        close(fd);
        unlink(tmp.c_str());
        errno = saved;
        return fail(error, what);
    };

    struct stat old {};
    mode_t mode;
    if (stat(path.c_str(), &old) == 0) {
        mode = old.st_mode & 07777;
    } else {
        mode_t mask = umask(0);
        umask(mask);
        mode = 0666 & ~mask;
    }
    // A file system without modes refuses the call (FAT through FUSE; exFAT mounted for another
    // owner refuses even a file just made, which it shows as that owner's): the file keeps the
    // mode the file system gives it. A file of our own refused a mode is a real failure.
    if (fchmod(fd, mode) != 0 && errno != ENOSYS && errno != EOPNOTSUPP &&
        (errno != EPERM || ownedByUs(fd)))
        return abandon("cannot set the mode of " + tmp);

    const char* p = bytes.data();
    size_t left = bytes.size();
    while (left > 0) {
        ssize_t n = ::write(fd, p, left);
        if (n < 0) {
            if (errno == EINTR) continue;
            return abandon("cannot write " + tmp);
        }
        p += n;
        left -= static_cast<size_t>(n);
    }
    if (fsync(fd) != 0) return abandon("cannot flush " + tmp);
    if (close(fd) != 0) {
        int saved = errno;
        unlink(tmp.c_str());
        errno = saved;
        return fail(error, "cannot close " + tmp);
    }
    if (rename(tmp.c_str(), path.c_str()) != 0) {
        int saved = errno;
        unlink(tmp.c_str());
        errno = saved;
        return fail(error, "cannot replace " + path);
    }
    // Make the rename itself durable.
    int dir = open(parentOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir >= 0) {
        fsync(dir);
        close(dir);
    }
    return true;
}

bool read(const std::string& path, size_t maxSize, std::string& out, std::string* error,
          bool* tooLarge, bool* notRegular) {
    if (tooLarge) *tooLarge = false;
    if (notRegular) *notRegular = false;
    // Without blocking: opening a FIFO for reading would otherwise wait for a writer for ever.
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) return fail(error, "cannot open " + path);
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        int saved = errno;
        close(fd);
        errno = saved;
        return fail(error, "cannot read " + path);
    }
    if (S_ISDIR(st.st_mode)) {
        close(fd);
        errno = EISDIR;
        return fail(error, "cannot read " + path);
    }
    if (!S_ISREG(st.st_mode)) {
        close(fd);
        if (notRegular) *notRegular = true;
        if (error) *error = path + " is not a regular file";
        return false;
    }
    out.clear();
    char buffer[65536];
    for (;;) {
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) continue;
            int saved = errno;
            close(fd);
            errno = saved;
            return fail(error, "cannot read " + path);
        }
        if (n == 0) break;
        if (out.size() + static_cast<size_t>(n) > maxSize) {
            close(fd);
            if (tooLarge) *tooLarge = true;
            if (error) *error = path + " is larger than " + std::to_string(maxSize) + " bytes";
            return false;
        }
        out.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return true;
}

}  // namespace ferrovane::FVAtomicFile
