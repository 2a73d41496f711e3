// The walk of one source item: decides entry by entry what the destination lacks and hands it
// to the copy worker while the walk goes on.

#include "engine/FVAdditions.h"
#include "fs/FVDirectoryWalker.h"
#include "engine/FVExclusionRules.h"
#include "engine/FVSyncingBackup.h"
#include "fs/FVText.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fmt/format.h>

namespace ferrovane {

namespace {

bool pathExists(const std::string& path) { return FVFileSystemItem(path).fileExists(); }

// The destination folders that mirror the walk's current folders, one descriptor per level, so
// that each destination entry is examined relative to its folder rather than by its whole path.
// Levels without one (a missing folder, or deeper than the limit) fall back to the path.
class DestinationFolders {
public:
    FVFileSystemItemPtr item(const FVDirectoryWalker::Entry& entry, const std::string& path) const {
        const size_t level = entry.level;
        if (level == 0 || level > folders_.size() || !folders_[level - 1].valid())
            return std::make_shared<FVFileSystemItem>(path);
        struct stat st {};
        if (fstatat(folders_[level - 1].get(), entry.nameCString(), &st, AT_SYMLINK_NOFOLLOW) == 0)
            return std::make_shared<FVFileSystemItem>(path, st);
        if (errno == ENOENT) return FVFileSystemItem::missingItem(path);
        return std::make_shared<FVFileSystemItem>(path);
    }

    // Called for every source folder the walk may enter, with its destination counterpart.
    void enter(const FVDirectoryWalker::Entry& entry, FVFileSystemItem& destination) {
        const size_t level = entry.level;
        folders_.resize(level);
        FVFd folder;
        if (level < kLevelLimit && destination.fileExists() && destination.fileType() == FVFileType::Directory) {
            constexpr int flags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
            if (level == 0)
                folder.reset(FVLongPath::open(destination.path(), flags));
            else if (folders_[level - 1].valid())
                folder.reset(openat(folders_[level - 1].get(), entry.nameCString(), flags));
        }
        folders_.push_back(std::move(folder));
    }

private:
    static constexpr size_t kLevelLimit = 64;
    std::vector<FVFd> folders_;
};

std::string joinPath(const std::string& folder, const std::string& name) {
    if (folder.empty() || folder.back() == '/') return folder + name;
    return folder + "/" + name;
}

}  // namespace

void FVSyncingBackup::reportUnreadableSource(const std::string& path, int error) {
    unreadableSourcePaths_.push_back(path);
    std::string message = fmt::format("ERROR: Could not analyse {} ({}); its backup is kept as it is.", path,
                                      std::strerror(error));
    logLine(message);
    addError(message);
}

bool FVSyncingBackup::isExcluded(const std::string& path, const std::string* currentSourceItemPath) const {
    return FVExclusionRules::fileShouldBeExcluded(path, excludedFiles_, currentSourceItemPath);
}

std::string FVSyncingBackup::itemTargetPath(const std::string& sourcePath) const {
    if (sourcePath == "/") return targetPath_;
    if (syncMode_) return joinPath(targetPath_, FVText::lastPathComponent(sourcePath));
    std::string relative = sourcePath;
    while (!relative.empty() && relative.front() == '/') relative.erase(0, 1);
    return joinPath(targetPath_, relative);
}

void FVSyncingBackup::addFixedPatterns(const std::string& sourcePath) {
    for (const auto& named : FVExclusionRules::perItemNamePatterns())
        if (pathExists(joinPath(sourcePath, named.testedName))) excludedFiles_.push_back(named.pattern);
    if (sourcePath != "/") return;
    logLine("macOS clone detected and configured.");
    for (const std::string& name : FVExclusionRules::rootCloneConditionalNames())
        if (pathExists("/" + name)) excludedFiles_.push_back(name);
    for (const std::string& pattern : FVExclusionRules::rootClonePatterns()) excludedFiles_.push_back(pattern);
}

void FVSyncingBackup::updateTargetPathFromSourcePath(const std::string& sourcePath,
                                                     std::optional<int64_t> fileCountEstimation) {
    auto worker = std::make_shared<FVFileCopyWorker>();
    worker->setDelegate(this);
    worker->setVerboseLogging(verboseLogging_);
    worker->setMaxThreads(maxThreads_);
    worker->setDisableACLClone(disableACLClone_);
    worker->setPreallocate(preallocate_);
    worker->setDestinationRoot(targetPath_);
    worker->setSourceRoot(sourcePath);
    {
        std::lock_guard lock(workerMutex_);
        if (backupCopyWorker_) retiredWorkers_.push_back(std::move(backupCopyWorker_));
        backupCopyWorker_ = worker;
    }
    currentUpdateCount_ = 0;
    currentTotalFilesCount_ = 0;

    if (!pathExists(sourcePath)) {
        logLine(fmt::format("Source: {} (UNAVAILABLE AND NOT UPDATED).", sourcePath));
        observer_->updateTargetDidFinish(*this);
        return;
    }
    // A stored count of 0 would make the analysis share infinite.
    estimatedItemFilecount_ = fileCountEstimation && *fileCountEstimation > 0 ? *fileCountEstimation : 2000000;
    currentSourcePath_ = sourcePath;
    logLine(fmt::format("Source started analysing: {}", sourcePath));
    queue_.async([this, sourcePath] { analyse(sourcePath); });
}

void FVSyncingBackup::analyse(const std::string& sourcePath) {
    addFixedPatterns(sourcePath);
    copyProgressStatus_ = 0;
    lastReportedProgress_ = 0;
    analyseProgressStatus_ = 1;
    reportProgress();
    auto worker = backupCopyWorker();
    worker->startCopySession();
    buildSourceFilesToUpdate(sourcePath, itemTargetPath(sourcePath), true);
    if (!isCancelled())
        logLine(fmt::format("Source finished analysing: {} ({} items changed).", sourcePath,
                            static_cast<int>(currentUpdateCount())));
    analyseProgressStatus_ = 100;
    reportProgress();
    worker->endCopySession();
}

void FVSyncingBackup::handToWorker(FVFileSystemItemPtr source, FVFileSystemItemPtr destination) {
    backupCopyWorker()->addCopyItemFromSource(std::move(source), std::move(destination));
}

void FVSyncingBackup::buildSourceFilesToUpdate(const std::string& sourceRoot, const std::string& targetRoot,
                                               bool reportProgressAlong) {
    if (reportProgressAlong) {
        currentUpdateCount_ = 0;
        currentTotalFilesCount_ = 0;
    }
    if (isExcluded(sourceRoot, &sourceRoot)) {
        verboseLog("Excluded:" + sourceRoot);
        return;
    }
    auto root = std::make_shared<FVFileSystemItem>(sourceRoot);
    if (root->fileType() == FVFileType::Socket) {
        verboseLog("Skipping socket file:" + sourceRoot);
        return;
    }
    if (excludeSymlinks_ && root->fileType() == FVFileType::SymbolicLink) {
        verboseLog("Skipping symbolic link:" + sourceRoot);
        return;
    }
    if (root->isFile()) {
        auto target = std::make_shared<FVFileSystemItem>(targetRoot);
        if (itemNeedsBackup(*root, *target)) {
            handToWorker(root, target);
            ++currentUpdateCount_;
            ++currentTotalFilesCount_;
        }
        return;
    }
    // An empty folder is neither compared nor created at the destination; an unreadable one
    // keeps its mirror exactly as it is.
    std::optional<bool> hasEntries = FVFileManager::folderHasEntries(sourceRoot);
    if (!hasEntries) {
        reportUnreadableSource(sourceRoot, errno);
        return;
    }
    if (!*hasEntries) return;

    FVDirectoryWalker walker(sourceRoot);
    DestinationFolders destinationFolders;
    std::string newDirectoryPrefix;
    // The folders from the root down to the entry in hand, by walk level, with whether each was
    // found unchanged and has not been queued again since.
    std::vector<std::pair<FVFileSystemItemPtr, bool>> unchangedAncestors;
    while (const FVDirectoryWalker::Entry* entry = walker.next()) {
        if (entry->error != 0) {
            // Gone between the listing and its examination: nothing is left to back up.
            if (entry->error == ENOENT && entry->level > 0)
                logLine(fmt::format("NOTE: Source item vanished while analysing: {}", entry->path));
            else
                reportUnreadableSource(entry->path, entry->error);
            continue;
        }
        // Sockets, FIFOs and devices are passed over.
        const mode_t type = entry->st.st_mode & S_IFMT;
        if (type != S_IFDIR && type != S_IFREG && type != S_IFLNK) continue;
        const std::string& path = entry->path;
        ++currentTotalFilesCount_;
        if (reportProgressAlong) {
            analyseProgressStatus_ =
                static_cast<float>(currentTotalFilesCount()) * 100.0f / static_cast<float>(estimatedItemFilecount_);
            reportProgress();
        }
        if (isCancelled()) break;

        std::string destinationPath = targetRoot + std::string(entry->relativePath());
        auto source = std::make_shared<FVFileSystemItem>(path, entry->st);

        if (isExcluded(path, &sourceRoot)) {
            verboseLog("Excluded:" + path);
            --currentTotalFilesCount_;
            if (type == S_IFDIR) walker.skipChildren();
            continue;
        }
        // A destination inside a source would be copied into itself, one level deeper each run.
        if (type == S_IFDIR && entry->st.st_dev == destinationDevice_ && entry->st.st_ino == destinationInode_) {
            verboseLog("Skipping the destination inside the source: " + path);
            --currentTotalFilesCount_;
            destinationSourcePaths_.push_back(path);
            walker.skipChildren();
            continue;
        }
        if (willPerformCleanup_) sourcePathsCache_.insert(path);
        // A folder that cannot be listed is not entered, and its mirror stays as it is.
        if (type == S_IFDIR && entry->level > 0 &&
            faccessat(entry->parentFd, entry->nameCString(), R_OK | X_OK, AT_EACCESS) != 0) {
            reportUnreadableSource(path, errno);
            walker.skipChildren();
            continue;
        }
        if (excludeSymlinks_ && type == S_IFLNK) {
            verboseLog("Skipping symbolic link:" + path);
            --currentTotalFilesCount_;
            continue;
        }
        // Everything below a folder the destination lacks is new as well.
        if (FVText::isPathWithin(path, newDirectoryPrefix)) {
            handToWorker(source, std::make_shared<FVFileSystemItem>(std::move(destinationPath)));
            ++currentUpdateCount_;
            continue;
        }
        auto destination = destinationFolders.item(*entry, destinationPath);
        bool newFolder = !destination->fileExists() && type == S_IFDIR;
        bool needed = newFolder || itemNeedsBackup(*source, *destination);
        const size_t level = entry->level;
        if (type == S_IFDIR) {
            destinationFolders.enter(*entry, *destination);
            unchangedAncestors.resize(level);
            unchangedAncestors.emplace_back(source, !needed);
        }
        if (!needed) continue;
        // Writing an entry into a folder changes the folder's date: queue an unchanged folder
        // again so that its attributes are applied after the write.
        if ((type != S_IFDIR || newFolder) && level > 0 && level <= unchangedAncestors.size() &&
            unchangedAncestors[level - 1].second) {
            unchangedAncestors[level - 1].second = false;
            handToWorker(unchangedAncestors[level - 1].first,
                         std::make_shared<FVFileSystemItem>(FVText::deletingLastPathComponent(destinationPath)));
        }
        if (newFolder) newDirectoryPrefix = path;
        handToWorker(source, destination);
        ++currentUpdateCount_;
    }
}

bool FVSyncingBackup::itemNeedsBackup(FVFileSystemItem& source, FVFileSystemItem& target) {
    if (!target.fileExists()) {
        verboseLog(fmt::format("Item needs backup, destination item missing. Source: {}  Destination: {}",
                               source.path(), target.path()));
        return true;
    }
    // An existing link is never replaced; a folder or file where the source now has a link is.
    if (source.fileType() == FVFileType::SymbolicLink) {
        if (target.fileType() == FVFileType::SymbolicLink) return false;
        verboseLog(fmt::format("Item needs backup, type mismatch. Source: {}  Destination: {}", source.path(),
                               target.path()));
        return true;
    }
    if (source.fileType() == FVFileType::Regular && source.fileSize() != target.fileSize()) {
        verboseLog(fmt::format("Item needs backup, filesize mismatch. Source: {}  Destination: {}", source.path(),
                               target.path()));
        return true;
    }
    int64_t difference = source.fileModificationDate() - target.fileModificationDate();
    if (difference > 10 || difference < -10) {
        verboseLog(fmt::format("Item needs backup, mod date mismatch. Source: {}  Destination: {}", source.path(),
                               target.path()));
        return true;
    }
    if (ignoreFileFlagChanges_) return false;
    if (!FVFileManager::xattrIdentialforFileAtPath(source.path(), target.path(), !disableACLClone_)) {
        verboseLog(fmt::format("Item needs backup, xattr mismatch. Source: {}  Destination: {}", source.path(),
                               target.path()));
        return true;
    }
    return false;
}

}  // namespace ferrovane
