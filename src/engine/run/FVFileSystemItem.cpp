#include "engine/run/FVFileSystemItem.h"

#include "fs/FVFileDescriptor.h"
#include "fs/FVFileStatus.h"
#include "fs/FVOpenFiles.h"

#include <fcntl.h>
#include <limits.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>

namespace ferrovane {

const char* fileTypeName(FVFileType type) {
    switch (type) {
    case FVFileType::None: return "none";
    case FVFileType::Regular: return "regular";
    case FVFileType::Directory: return "directory";
    case FVFileType::SymbolicLink: return "symbolic link";
    case FVFileType::Socket: return "socket";
    case FVFileType::CharacterSpecial: return "character special";
    case FVFileType::BlockSpecial: return "block special";
    case FVFileType::Unknown: return "unknown";
    }
    return "unknown";
}

namespace {

FVFileType typeOfMode(mode_t mode) {
    switch (mode & S_IFMT) {
    case S_IFREG: return FVFileType::Regular;
    case S_IFDIR: return FVFileType::Directory;
    case S_IFLNK: return FVFileType::SymbolicLink;
    case S_IFSOCK: return FVFileType::Socket;
    case S_IFCHR: return FVFileType::CharacterSpecial;
    case S_IFBLK: return FVFileType::BlockSpecial;
    default: return FVFileType::Unknown;  // FIFOs included
    }
}

}  // namespace

FVFileSystemItem::FVFileSystemItem(std::string path) : path_(std::move(path)) {}

FVFileSystemItem::FVFileSystemItem(std::string path, const struct stat& st)
    : path_(std::move(path)), st_(st), statLoaded_(true), exists_(true) {}

std::shared_ptr<FVFileSystemItem> FVFileSystemItem::itemWithPath(std::string path) {
    return std::make_shared<FVFileSystemItem>(std::move(path));
}

std::shared_ptr<FVFileSystemItem> FVFileSystemItem::missingItem(std::string path) {
    auto item = std::make_shared<FVFileSystemItem>(std::move(path));
    item->statLoaded_ = true;
    return item;
}

void FVFileSystemItem::loadStatAttributes() {
    if (statLoaded_) return;
    statLoaded_ = true;
    exists_ = FVLongPath::lstat(path_, &st_) == 0;
    if (!exists_) st_ = {};
}

bool FVFileSystemItem::fileExists() {
    loadStatAttributes();
    return exists_;
}

bool FVFileSystemItem::isReadable() {
    if (!readableLoaded_) {
        readableLoaded_ = true;
        readable_ = FVFileStatus::faccessat(AT_FDCWD, path_.c_str(), R_OK, AT_EACCESS) == 0;
        if (!readable_ && errno == ENAMETOOLONG) {
            int fd = FVLongPath::open(path_, O_RDONLY | O_NONBLOCK | O_NOCTTY);
            readable_ = fd >= 0;
            if (fd >= 0) FVOpenFiles::close(fd);
        }
    }
    return readable_;
}

bool FVFileSystemItem::isFile() { return fileType() != FVFileType::Directory; }

FVFileType FVFileSystemItem::fileType() {
    loadStatAttributes();
    return exists_ ? typeOfMode(st_.st_mode) : FVFileType::None;
}

int FVFileSystemItem::posixPermissions() {
    loadStatAttributes();
    return static_cast<int>(st_.st_mode & 07777);
}

int64_t FVFileSystemItem::fileModificationDate() {
    loadStatAttributes();
    return st_.st_mtim.tv_sec;
}

int64_t FVFileSystemItem::fileModificationTimeNs() {
    loadStatAttributes();
    return static_cast<int64_t>(st_.st_mtim.tv_sec) * 1'000'000'000 + st_.st_mtim.tv_nsec;
}

uint64_t FVFileSystemItem::fileSize() {
    loadStatAttributes();
    return exists_ ? static_cast<uint64_t>(st_.st_size) : 0;
}

std::optional<struct timespec> FVFileSystemItem::fileCreationDate() {
    struct statx stx {};
    int result;
    if (path_.size() < PATH_MAX) {
        result = FVFileStatus::statx(AT_FDCWD, path_.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME, &stx);
    } else {
        std::string name;
        FVFd parent = FVLongPath::openParent(path_, name);
        result = parent.valid() ? FVFileStatus::statx(parent.get(), name.c_str(), AT_SYMLINK_NOFOLLOW, STATX_BTIME, &stx) : -1;
    }
    if (result != 0 || !(stx.stx_mask & STATX_BTIME)) return std::nullopt;
    return timespec{stx.stx_btime.tv_sec, static_cast<long>(stx.stx_btime.tv_nsec)};
}

const struct stat& FVFileSystemItem::statBuffer() {
    loadStatAttributes();
    return st_;
}

std::string FVFileSystemItem::description() {
    return fmt::format("Cached FileSystemItem {} Loaded stat: {}", path_, statLoaded_ ? 1 : 0);
}

}  // namespace ferrovane
