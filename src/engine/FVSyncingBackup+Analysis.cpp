// The walk of one source item: decides entry by entry what the destination lacks and hands it
// to the copy worker while the walk goes on.

#include "engine/FVAdditions.h"
#include "engine/FVDirectoryWalker.h"
#include "engine/FVExclusionRules.h"
#include "engine/FVSyncingBackup.h"
#include "engine/FVText.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
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
    // An empty or unreadable folder is neither compared nor created at the destination.
    if (!FVFileManager::folderHasEntries(sourceRoot).value_or(false)) return;

    FVDirectoryWalker walker(sourceRoot);
    DestinationFolders destinationFolders;
    std::string newDirectoryPrefix;
    // The folders from the root down to the entry in hand, by walk level, with whether each was
    // found unchanged and has not been queued again since.
    std::vector<std::pair<FVFileSystemItemPtr, bool>> unchangedAncestors;
    while (const FVDirectoryWalker::Entry* entry = walker.next()) {
        if (entry->error != 0) {
            std::string message = fmt::format("ERROR: Could not analyse {} (Error: {})", entry->path, entry->error);
            logLine(message);
            addError(message);
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
        if (willPerformCleanup_) sourcePathsCache_.insert(path);
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
    if (!FVFileManager::xattrIdentialforFileAtPath(source.path(), target.path())) {
        verboseLog(fmt::format("Item needs backup, xattr mismatch. Source: {}  Destination: {}", source.path(),
                               target.path()));
        return true;
    }
    return false;
}

}  // namespace ferrovane
