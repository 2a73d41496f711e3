// The walk of one source item: decides entry by entry what the destination lacks and hands it
// to the copy worker while the walk goes on.

#include "engine/FVAdditions.h"
#include "engine/FVExclusionRules.h"
#include "engine/FVSyncingBackup.h"
#include "engine/FVText.h"

#include <dirent.h>
#include <fts.h>
#include <sys/stat.h>

#include <cerrno>
#include <fmt/format.h>

namespace ferrovane {

namespace {

bool pathExists(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0;
}

bool startsWith(const std::string& s, const std::string& prefix) {
    return s.size() >= prefix.size() && s.compare(0, prefix.size(), prefix) == 0;
}

// Whether a folder has at least one entry; an unreadable folder has none.
bool hasEntries(const std::string& path) {
    DIR* dir = opendir(path.c_str());
    if (!dir) return false;
    bool found = false;
    while (dirent* e = readdir(dir)) {
        if (std::string_view(e->d_name) != "." && std::string_view(e->d_name) != "..") {
            found = true;
            break;
        }
    }
    closedir(dir);
    return found;
}

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
    if (!hasEntries(sourceRoot)) return;

    char* roots[] = {const_cast<char*>(sourceRoot.c_str()), nullptr};
    FTS* fts = fts_open(roots, FTS_NOCHDIR | FTS_PHYSICAL | FTS_XDEV, nullptr);
    if (!fts) return;

    const size_t rootLength = sourceRoot.size();
    std::string newDirectoryPrefix;
    // The folders from the root down to the entry in hand, by walk level, with whether each was
    // found unchanged and has not been queued again since.
    std::vector<std::pair<std::string, bool>> unchangedAncestors;
    while (FTSENT* entry = fts_read(fts)) {
        switch (entry->fts_info) {
        case FTS_D:
        case FTS_F:
        case FTS_SL:
        case FTS_SLNONE:
            break;
        case FTS_DNR:
        case FTS_ERR:
        case FTS_NS: {
            std::string message = fmt::format("ERROR: Could not analyse {} (Error: {})", entry->fts_path,
                                              entry->fts_errno);
            logLine(message);
            addError(message);
            continue;
        }
        default:
            continue;
        }
        std::string path(entry->fts_path, entry->fts_pathlen);
        ++currentTotalFilesCount_;
        if (reportProgressAlong) {
            analyseProgressStatus_ =
                static_cast<float>(currentTotalFilesCount()) * 100.0f / static_cast<float>(estimatedItemFilecount_);
            reportProgress();
        }
        if (isCancelled()) break;

        std::string destinationPath = targetRoot + path.substr(rootLength);
        auto source = std::make_shared<FVFileSystemItem>(path, *entry->fts_statp);

        if (isExcluded(path, &sourceRoot)) {
            verboseLog("Excluded:" + path);
            --currentTotalFilesCount_;
            if (entry->fts_info == FTS_D) fts_set(fts, entry, FTS_SKIP);
            continue;
        }
        if (willPerformCleanup_) sourcePathsCache_.insert(path);
        if (excludeSymlinks_ && source->fileType() == FVFileType::SymbolicLink) {
            verboseLog("Skipping symbolic link:" + path);
            --currentTotalFilesCount_;
            continue;
        }
        // Everything below a folder the destination lacks is new as well.
        if (!newDirectoryPrefix.empty() && startsWith(path, newDirectoryPrefix)) {
            handToWorker(source, std::make_shared<FVFileSystemItem>(destinationPath));
            ++currentUpdateCount_;
            continue;
        }
        auto destination = std::make_shared<FVFileSystemItem>(destinationPath);
        bool newFolder = !destination->fileExists() && !source->isFile();
        bool needed = newFolder || itemNeedsBackup(*source, *destination);
        const auto level = static_cast<size_t>(entry->fts_level);
        if (entry->fts_info == FTS_D) {
            unchangedAncestors.resize(level);
            unchangedAncestors.emplace_back(path, !needed);
        }
        if (!needed) continue;
        // Writing an entry into a folder changes the folder's date: queue an unchanged folder
        // again so that its attributes are applied after the write.
        if ((source->isFile() || newFolder) && level > 0 && level <= unchangedAncestors.size() &&
            unchangedAncestors[level - 1].second) {
            unchangedAncestors[level - 1].second = false;
            handToWorker(std::make_shared<FVFileSystemItem>(unchangedAncestors[level - 1].first),
                         std::make_shared<FVFileSystemItem>(FVText::deletingLastPathComponent(destinationPath)));
        }
        if (newFolder) newDirectoryPrefix = path;
        handToWorker(source, destination);
        ++currentUpdateCount_;
    }
    fts_close(fts);
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
