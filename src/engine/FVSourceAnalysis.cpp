#include "engine/FVSourceAnalysis.h"

#include "engine/FVAdditions.h"
#include "engine/FVChangeDecision.h"
#include "fs/FVDirectoryWalker.h"
#include "engine/FVExclusionRules.h"
#include "fs/FVText.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fmt/format.h>

namespace ferrovane {

namespace {

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

const char* reasonText(FVChangeDecision::Reason reason) {
    using R = FVChangeDecision::Reason;
    switch (reason) {
    case R::DestinationMissing: return "destination item missing";
    case R::TypeMismatch: return "type mismatch";
    case R::SizeMismatch: return "filesize mismatch";
    case R::DateMismatch: return "mod date mismatch";
    case R::XattrMismatch: return "xattr mismatch";
    case R::Unchanged: break;
    }
    return "";
}

}  // namespace

FVSourceAnalysis::FVSourceAnalysis(const FVRunSettings& settings, FVRunFindings& findings, FVRunStatus& status,
                                   HandOver handOver)
    : settings_(settings), findings_(findings), status_(status), handOver_(std::move(handOver)) {}

void FVSourceAnalysis::analyse(const std::string& sourcePath, int64_t estimatedFileCount) {
    estimatedFileCount_ = estimatedFileCount;
    addFixedPatterns(sourcePath);
    status_.restartProgress(1);
    status_.reportProgress();
    walk(sourcePath, settings_.itemTargetPath(sourcePath));
}

void FVSourceAnalysis::reportUnreadableSource(const std::string& path, int error) {
    findings_.unreadableSourcePaths.push_back(path);
    std::string message = fmt::format("ERROR: Could not analyse {} ({}); its backup is kept as it is.", path,
                                      std::strerror(error));
    status_.log(message);
    status_.addError(message);
}

bool FVSourceAnalysis::isExcluded(const std::string& path, const std::string& sourceRoot) const {
    return FVExclusionRules::fileShouldBeExcluded(path, findings_.excludedFiles, &sourceRoot);
}

void FVSourceAnalysis::addFixedPatterns(const std::string& sourcePath) {
    std::vector<std::string>& excluded = findings_.excludedFiles;
    for (const auto& named : FVExclusionRules::perItemNamePatterns())
        if (FVFileManager::pathExists(FVText::appendingPathComponent(sourcePath, named.testedName)))
            excluded.push_back(named.pattern);
    if (sourcePath != "/") return;
    status_.log("macOS clone detected and configured.");
    for (const std::string& name : FVExclusionRules::rootCloneConditionalNames())
        if (FVFileManager::pathExists("/" + name)) excluded.push_back(name);
    for (const std::string& pattern : FVExclusionRules::rootClonePatterns()) excluded.push_back(pattern);
}

void FVSourceAnalysis::handOver(FVFileSystemItemPtr source, FVFileSystemItemPtr destination) {
    handOver_(std::move(source), std::move(destination), false);
    ++status_.updateCount;
}

void FVSourceAnalysis::walk(const std::string& sourceRoot, const std::string& targetRoot) {
    status_.updateCount = 0;
    status_.totalFilesCount = 0;
    if (isExcluded(sourceRoot, sourceRoot)) {
        status_.verboseLog("Excluded:" + sourceRoot);
        return;
    }
    auto root = std::make_shared<FVFileSystemItem>(sourceRoot);
    if (root->fileType() == FVFileType::Socket) {
        status_.verboseLog("Skipping socket file:" + sourceRoot);
        return;
    }
    const bool excludeSymlinks = settings_.options.excludeSymlinks;
    if (excludeSymlinks && root->fileType() == FVFileType::SymbolicLink) {
        status_.verboseLog("Skipping symbolic link:" + sourceRoot);
        return;
    }
    if (root->isFile()) {
        auto target = std::make_shared<FVFileSystemItem>(targetRoot);
        if (needsBackup(*root, *target)) {
            handOver(root, target);
            ++status_.totalFilesCount;
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
                status_.log(fmt::format("NOTE: Source item vanished while analysing: {}", entry->path));
            else
                reportUnreadableSource(entry->path, entry->error);
            continue;
        }
        // Sockets, FIFOs and devices are passed over.
        const mode_t type = entry->st.st_mode & S_IFMT;
        if (type != S_IFDIR && type != S_IFREG && type != S_IFLNK) continue;
        const std::string& path = entry->path;
        ++status_.totalFilesCount;
        status_.setAnalyseProgress(static_cast<float>(status_.totalFilesCount.load()) * 100.0f /
                                   static_cast<float>(estimatedFileCount_));
        status_.reportProgress();
        if (status_.isCancelled()) break;

        std::string destinationPath = targetRoot + std::string(entry->relativePath());
        auto source = std::make_shared<FVFileSystemItem>(path, entry->st);

        if (isExcluded(path, sourceRoot)) {
            status_.verboseLog("Excluded:" + path);
            --status_.totalFilesCount;
            if (type == S_IFDIR) walker.skipChildren();
            continue;
        }
        // A destination inside a source would be copied into itself, one level deeper each run.
        if (type == S_IFDIR && entry->st.st_dev == settings_.destinationDevice &&
            entry->st.st_ino == settings_.destinationInode) {
            status_.verboseLog("Skipping the destination inside the source: " + path);
            --status_.totalFilesCount;
            findings_.destinationSourcePaths.push_back(path);
            walker.skipChildren();
            continue;
        }
        if (settings_.willPerformCleanup) findings_.sourcePaths.insert(path);
        // A folder that cannot be listed is not entered, and its mirror stays as it is.
        if (type == S_IFDIR && entry->level > 0 &&
            faccessat(entry->parentFd, entry->nameCString(), R_OK | X_OK, AT_EACCESS) != 0) {
            reportUnreadableSource(path, errno);
            walker.skipChildren();
            continue;
        }
        if (excludeSymlinks && type == S_IFLNK) {
            status_.verboseLog("Skipping symbolic link:" + path);
            --status_.totalFilesCount;
            continue;
        }
        // Everything below a folder the destination lacks is new as well.
        if (FVText::isPathWithin(path, newDirectoryPrefix)) {
            auto destination = std::make_shared<FVFileSystemItem>(std::move(destinationPath));
            if (!hardLinks_.takeLaterName(source, destination, true)) handOver(source, destination);
            continue;
        }
        auto destination = destinationFolders.item(*entry, destinationPath);
        bool newFolder = !destination->fileExists() && type == S_IFDIR;
        bool needed = newFolder || needsBackup(*source, *destination);
        const size_t level = entry->level;
        if (type == S_IFDIR) {
            destinationFolders.enter(*entry, *destination);
            unchangedAncestors.resize(level);
            unchangedAncestors.emplace_back(source, !needed);
        }
        if (hardLinks_.takeLaterName(source, destination, needed)) continue;
        if (!needed) continue;
        // Writing an entry into a folder changes the folder's date: queue an unchanged folder
        // again so that its attributes are applied after the write.
        if ((type != S_IFDIR || newFolder) && level > 0 && level <= unchangedAncestors.size() &&
            unchangedAncestors[level - 1].second) {
            unchangedAncestors[level - 1].second = false;
            handOver_(unchangedAncestors[level - 1].first,
                      std::make_shared<FVFileSystemItem>(FVText::deletingLastPathComponent(destinationPath)), true);
        }
        if (newFolder) newDirectoryPrefix = path;
        handOver(source, destination);
    }
}

bool FVSourceAnalysis::needsBackup(FVFileSystemItem& source, FVFileSystemItem& target) const {
    std::function<bool()> xattrsIdentical;
    if (!settings_.options.ignoreFileFlagChanges)
        xattrsIdentical = [&] {
            return FVFileManager::xattrIdentialforFileAtPath(source.path(), target.path(),
                                                             !settings_.options.disableACLClone);
        };
    auto reason = FVChangeDecision::decide(FVChangeDecision::sideOf(source), FVChangeDecision::sideOf(target),
                                           xattrsIdentical);
    if (reason == FVChangeDecision::Reason::Unchanged) return false;
    status_.verboseLog(fmt::format("Item needs backup, {}. Source: {}  Destination: {}", reasonText(reason),
                                   source.path(), target.path()));
    return true;
}

}  // namespace ferrovane
