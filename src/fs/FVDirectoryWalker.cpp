#include "fs/FVDirectoryWalker.h"

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <algorithm>
#include <cstring>

namespace ferrovane {

namespace {

constexpr int kFolderFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;

// Deep trees would otherwise hold one descriptor per level; folders further up than this are
// closed on the way down and opened again through ".." on the way back.
constexpr size_t kOpenFolderLimit = 64;

}  // namespace

struct FVDirectoryWalker::Folder {
    FVFd fd;
    dev_t device = 0;
    ino_t inode = 0;
    // Without the trailing "/"; "" for a root of "/".
    std::string path;
    // The entries, each its d_type byte, its name and a NUL: one allocation per folder, however
    // many entries it holds.
    std::string names;
    size_t offset = 0;
};

FVDirectoryWalker::FVDirectoryWalker(std::string root) : root_(std::move(root)) {
    size_t base = root_.size();
    while (base > 0 && root_[base - 1] == '/') --base;
    baseLength_ = base;
}

FVDirectoryWalker::FVDirectoryWalker(std::string root, FVFd rootParent) : FVDirectoryWalker(std::move(root)) {
    rootParent_ = std::move(rootParent);
    const size_t slash = root_.find_last_of('/', baseLength_ > 0 ? baseLength_ - 1 : 0);
    const size_t start = slash == std::string::npos ? 0 : slash + 1;
    rootName_ = root_.substr(start, baseLength_ - start);
}

FVDirectoryWalker::~FVDirectoryWalker() = default;

const FVDirectoryWalker::Entry* FVDirectoryWalker::next() {
    if (!started_) {
        started_ = true;
        entry_ = Entry{};
        entry_.path = root_;
        size_t slash = root_.find_last_of('/', baseLength_ > 0 ? baseLength_ - 1 : 0);
        entry_.nameOffset = slash == std::string::npos ? 0 : slash + 1;
        entry_.relativeOffset = root_.size();
        const int found = rootParent_.valid()
                              ? fstatat(rootParent_.get(), rootName_.c_str(), &entry_.st, AT_SYMLINK_NOFOLLOW)
                              : FVLongPath::lstat(root_, &entry_.st);
        if (found != 0) {
            entry_.error = errno;
            return &entry_;
        }
        rootDevice_ = entry_.st.st_dev;
        descendPending_ = S_ISDIR(entry_.st.st_mode);
        return &entry_;
    }
    if (descendPending_) {
        descendPending_ = false;
        if (!enterPendingFolder()) return &entry_;
    }
    while (!stack_.empty()) {
        Folder& top = stack_.back();
        if (top.offset >= top.names.size()) {
            Folder left = std::move(top);
            stack_.pop_back();
            if (!stack_.empty() && !stack_.back().fd.valid() && !reopenAfterLeaving(left)) return &entry_;
            continue;
        }
        const auto type = static_cast<unsigned char>(top.names[top.offset]);
        const char* name = top.names.data() + top.offset + 1;
        const size_t length = std::strlen(name);
        top.offset += length + 2;

        entry_.path.assign(top.path).append("/").append(name, length);
        entry_.nameOffset = top.path.size() + 1;
        entry_.relativeOffset = baseLength_;
        entry_.level = stack_.size();
        entry_.parentFd = top.fd.get();
        entry_.error = 0;
        if (typesOnly_ && type != DT_UNKNOWN && type != DT_DIR) {
            entry_.st = {};
            entry_.st.st_mode = DTTOIF(type);
            descendPending_ = false;
            return &entry_;
        }
        if (fstatat(top.fd.get(), name, &entry_.st, AT_SYMLINK_NOFOLLOW) != 0) {
            entry_.error = errno;
            return &entry_;
        }
        // A folder on another file system is a mount point: it is returned, never entered.
        descendPending_ = S_ISDIR(entry_.st.st_mode) && entry_.st.st_dev == rootDevice_;
        return &entry_;
    }
    return nullptr;
}

// Enters the folder in entry_. False when it could not be entered: entry_ then reports why.
bool FVDirectoryWalker::enterPendingFolder() {
    int fd = !stack_.empty()       ? openat(stack_.back().fd.get(), entry_.nameCString(), kFolderFlags)
             : rootParent_.valid() ? openat(rootParent_.get(), rootName_.c_str(), kFolderFlags)
                                   : FVLongPath::open(root_, kFolderFlags);
    if (fd < 0) {
        entry_.error = errno;
        return false;
    }
    Folder folder;
    folder.fd.reset(fd);
    struct stat st {};
    if (fstat(fd, &st) != 0) {
        entry_.error = errno;
        return false;
    }
    // Something mounted over the folder since it was examined: stay on the root's file system.
    if (st.st_dev != rootDevice_) return true;
    folder.device = st.st_dev;
    folder.inode = st.st_ino;
    folder.path = stack_.empty() ? root_.substr(0, baseLength_) : entry_.path;
    int listError = readNames(folder);
    stack_.push_back(std::move(folder));
    if (stack_.size() > kOpenFolderLimit) stack_[stack_.size() - 1 - kOpenFolderLimit].fd.reset();
    if (listError != 0) {
        // What could be listed is still walked; the folder is reported once.
        entry_.error = listError;
        return false;
    }
    return true;
}

int FVDirectoryWalker::readNames(Folder& folder) {
    alignas(8) char buffer[32768];
    for (;;) {
        ssize_t count = getdents64(folder.fd.get(), buffer, sizeof buffer);
        if (count == 0) return 0;
        if (count < 0) {
            if (errno == EINTR) continue;
            return errno;
        }
        for (ssize_t offset = 0; offset < count;) {
            const auto* record = reinterpret_cast<const dirent64*>(buffer + offset);
            offset += record->d_reclen;
            const char* name = record->d_name;
            if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
            folder.names.push_back(static_cast<char>(record->d_type));
            folder.names.append(name).push_back('\0');
        }
    }
}

// The folder now on top had its descriptor closed on the way down. It is opened again from the
// child just left, or else by its path, and must be the same folder; if it is not (it was moved
// meanwhile), the rest of its entries are given up and the folder is reported.
bool FVDirectoryWalker::reopenAfterLeaving(Folder& left) {
    Folder& folder = stack_.back();
    auto sameFolder = [&folder](int fd) {
        struct stat st {};
        return fd >= 0 && fstat(fd, &st) == 0 && st.st_dev == folder.device && st.st_ino == folder.inode;
    };
    folder.fd.reset(left.fd.valid() ? openat(left.fd.get(), "..", kFolderFlags) : -1);
    if (sameFolder(folder.fd.get())) return true;
    const std::string path = folder.path.empty() ? "/" : folder.path;
    folder.fd.reset(FVLongPath::open(path, kFolderFlags));
    int error = folder.fd.valid() ? ENOENT : errno;
    if (sameFolder(folder.fd.get())) return true;
    folder.fd.reset();
    folder.offset = folder.names.size();
    entry_ = Entry{};
    entry_.path = path;
    entry_.level = stack_.size() - 1;
    entry_.error = error;
    entry_.relativeOffset = std::min(baseLength_, entry_.path.size());
    return false;
}

}  // namespace ferrovane
