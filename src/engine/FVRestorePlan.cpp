#include "engine/FVRestorePlan.h"

#include "engine/FVConfigurationFile.h"
#include "fs/FVDirectoryWalker.h"
#include "engine/FVFileCopyWorker.h"
#include "fs/FVText.h"
#include "engine/FVVersionCatalog.h"

#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <cerrno>
#include <cstring>

namespace ferrovane {

namespace {

std::string linkText(const std::string& path) {
    std::string text(4096, '\0');
    ssize_t n = readlink(path.c_str(), text.data(), text.size());
    text.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return text;
}

}  // namespace

FVRestorePlan::FVRestorePlan(std::string destination, std::string from, std::string to, std::string root)
    : destination_(std::move(destination)), from_(std::move(from)), to_(std::move(to)), root_(std::move(root)) {
    FVDirectoryWalker walker(from_);
    while (const FVDirectoryWalker::Entry* entry = walker.next()) {
        std::string relative(entry->relativePath());
        if (entry->error != 0) {
            problems_.push_back(fmt::format("Could not read {} ({})", entry->path, std::strerror(entry->error)));
            continue;
        }
        std::string target = to_ == "/" ? (relative.empty() ? "/" : relative) : to_ + relative;
        if ((entry->level > 0 && isHousekeeping(relative, entry->name())) ||
            FVText::isPathWithin(target, destination_)) {
            walker.skipChildren();
            continue;
        }
        add(entry->path, entry->st, target);
    }
}

// The destination's own files never come back: its archives and configuration when the whole
// destination is the mirror (the source "/"), and files a crashed run left half-written.
bool FVRestorePlan::isHousekeeping(std::string_view relative, std::string_view name) const {
    if (name.starts_with(kTemporaryFilePrefix)) return true;
    if (from_ != destination_ || relative.find('/', 1) != std::string_view::npos) return false;
    return FVMirrorLayout::isReservedName(name) || name == FVConfigurationFile::legacyFileName;
}

void FVRestorePlan::add(const std::string& fromPath, const struct stat& st, const std::string& toPath) {
    auto pair = std::pair{std::make_shared<FVFileSystemItem>(fromPath, st), FVFileSystemItem::itemWithPath(toPath)};
    bool isFolder = S_ISDIR(st.st_mode);
    struct stat existing {};
    if (lstat(toPath.c_str(), &existing) != 0) {
        if (errno != ENOENT && errno != ENOTDIR) {
            problems_.push_back(fmt::format("Could not examine {} ({})", toPath, std::strerror(errno)));
            return;
        }
    } else if (isFolder && S_ISDIR(existing.st_mode)) {
        // An existing folder takes the version's contents and metadata; nothing in it is removed.
    } else if ((existing.st_mode & S_IFMT) != (st.st_mode & S_IFMT)) {
        conflicts_.push_back({toPath, S_ISDIR(existing.st_mode) ? "a folder is in the way" : "another kind of item is in the way"});
    } else if (S_ISLNK(st.st_mode) ? linkText(fromPath) == linkText(toPath)
                                   : existing.st_size == st.st_size && existing.st_mtim.tv_sec == st.st_mtim.tv_sec) {
        ++identical_;
        return;
    } else {
        conflicts_.push_back({toPath, "a different version is there"});
    }
    if (!isFolder) {
        ++files_;
        if (S_ISREG(st.st_mode)) bytes_ += static_cast<uint64_t>(st.st_size);
    }
    pairs_.push_back(std::move(pair));
}

}  // namespace ferrovane
