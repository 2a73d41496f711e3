#include "engine/archive/FVDestinationTree.h"

#include "fs/FVFileStatus.h"
#include "fs/FVFileSystemFlush.h"
#include "fs/FVInodeFlags.h"
#include "fs/FVText.h"
#include "fs/FVTimestamps.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace ferrovane {

std::optional<std::string> FVDestinationTree::relative(const std::string& path) const {
    std::string folded;
    folded.reserve(path.size());
    for (char c : path)
        if (!(c == '/' && !folded.empty() && folded.back() == '/')) folded.push_back(c);
    return destination_.relativePath(folded);
}

int FVDestinationTree::moveItem(const std::string& from, const std::string& to) const {
    auto fromRelative = relative(from);
    auto toRelative = relative(to);
    // A failure to make the target's folders (a read-only or full destination) is then the
    // error the move reports.
    return fromRelative && toRelative ? destination_.moveItem(*fromRelative, *toRelative, true, true) : EXDEV;
}

int FVDestinationTree::removeItem(const std::string& path) const {
    auto below = relative(path);
    return below && !below->empty() ? destination_.removeItem(*below) : EXDEV;
}

int FVDestinationTree::removeUnlocking(const std::string& path) const {
    int error = removeItem(path);
    if (error == 0 || error == ENOENT) return error;
    unlock(path, true);
    return removeItem(path);
}

FVFd FVDestinationTree::openFolder(const std::string& path, bool createMissing, int* error) const {
    auto below = relative(path);
    if (below) return destination_.openFolder(*below, createMissing, error);
    *error = EXDEV;
    return FVFd();
}

void FVDestinationTree::unlock(const std::string& path, bool recursively) const {
    auto below = relative(path);
    if (!below) return;
    int error = 0;
    if (below->empty()) {
        FVFd root = destination_.openFolder("", false, &error);
        if (root.valid()) FVInodeFlags::unlockFileAt(root.get(), "");
        return;
    }
    FVFd parent = destination_.openFolder(FVText::deletingLastPathComponent(*below), false, &error);
    if (!parent.valid()) return;
    const std::string name = FVText::lastPathComponent(*below);
    if (recursively) FVInodeFlags::unlockRecursivelyAt(parent.get(), name);
    else FVInodeFlags::unlockFileAt(parent.get(), name);
}

// The copy pass has given the folder the source folder's dates; taking an entry out must not
// change them, or the mirror's folders would never match their sources.
void FVDestinationTree::keepingParentDates(const std::string& itemPath, const std::function<void()>& change) const {
    auto parentRelative = relative(FVText::deletingLastPathComponent(itemPath));
    int error = 0;
    FVFd parent = parentRelative ? destination_.openFolder(*parentRelative, false, &error) : FVFd();
    struct stat st {};
    bool known = parent.valid() && FVFileStatus::fstat(parent.get(), &st) == 0;
    change();
    if (!known) return;
    timespec times[2] = {st.st_atim, st.st_mtim};
    FVTimestamps::futimens(parent.get(), times);
}

int FVDestinationTree::flush() const {
    int error = 0;
    FVFd root = destination_.openFolder("", false, &error);
    if (!root.valid()) return error;
    return FVFileSystemFlush::syncfs(root.get()) == 0 ? 0 : errno;
}

}  // namespace ferrovane
