#include "engine/analysis/FVSourceAnalysis.h"

#include "engine/analysis/FVAttributeSignature.h"
#include "engine/analysis/FVChangeDecision.h"
#include "engine/analysis/FVExclusionRules.h"
#include "engine/analysis/FVMirrorFolders.h"
#include "engine/analysis/FVSourceListing.h"
#include "engine/config/FVDestinationNames.h"
#include "engine/record/FVRunRecorder.h"
#include "engine/run/FVNumber.h"
#include "fs/FVExtendedAttributes.h"
#include "fs/FVFileDescriptor.h"
#include "fs/FVFileStatus.h"
#include "fs/FVFolderContents.h"
#include "fs/FVText.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <fmt/format.h>

namespace ferrovane {

namespace {

const char* reasonText(FVChangeDecision::Reason reason) {
    using R = FVChangeDecision::Reason;
    switch (reason) {
    case R::DestinationMissing: return "destination item missing";
    case R::TypeMismatch: return "type mismatch";
    case R::SizeMismatch: return "filesize mismatch";
    case R::DateMismatch: return "mod date mismatch";
    case R::XattrMismatch: return "xattr mismatch";
    case R::LinkTargetMismatch: return "link target mismatch";
    case R::ModeOrOwnerMismatch: return "mode or owner mismatch";
    case R::Unchanged: break;
    }
    return "";
}

}  // namespace

FVSourceAnalysis::FVSourceAnalysis(const FVRunSettings& settings, FVRunFindings& findings, FVRunStatus& status,
                                   HandOver handOver, FVRunRecorder* recorder)
    : settings_(settings),
      findings_(findings),
      status_(status),
      handOver_(std::move(handOver)),
      recorder_(recorder),
      tolerance_(FVChangeDecision::Tolerance::of(settings.destinationProfile)),
      exclusions_(settings.options),
      hardLinks_(settings.destinationProfile.hardLinks) {}

void FVSourceAnalysis::analyse(const std::string& sourcePath, int64_t estimatedFileCount) {
    estimatedFileCount_ = estimatedFileCount;
    addFixedPatterns(sourcePath);
    status_.restartProgress(1);
    status_.reportProgress();
    walk(sourcePath, settings_.itemTargetPath(sourcePath));
    if (digestsToTake_ > 0)
        status_.log(fmt::format("Recording: {} of {} {} no recorded digest yet; their backups are read once "
                                "to record it.", FVNumber::counted(digestsToTake_, "file"), sourcePath,
                                digestsToTake_ == 1 ? "has" : "have"));
}

void FVSourceAnalysis::recordCurrent(const std::string& relative, const FVFileSystemItemPtr& source,
                                     const FVFileSystemItemPtr& destination, const FVManifestAttributes* attributes) {
    if (!recorder_ || recorder_->recordCurrent(relative, source->path(), source->statBuffer(), attributes)) return;
    ++digestsToTake_;
    handOver_(source, destination, Work::Digest);
}

void FVSourceAnalysis::reportUnreadableSource(const std::string& path, int error) {
    findings_.unreadableSourcePaths.push_back(path);
    status_.report(FVRunError::item("analysing", error, path,
                                    fmt::format("Could not analyse {} ({}); its backup is kept as it is.", path,
                                                std::strerror(error)))
                       .listedWithLevel());
}

bool FVSourceAnalysis::isExcluded(const std::string& path, const std::string& sourceRoot) const {
    return FVExclusionRules::fileShouldBeExcluded(path, findings_.excludedFiles, &sourceRoot);
}

void FVSourceAnalysis::addFixedPatterns(const std::string& sourcePath) {
    std::vector<std::string>& excluded = findings_.excludedFiles;
    for (const auto& named : FVExclusionRules::perItemNamePatterns())
        if (FVFileStatus::pathExists(FVText::appendingPathComponent(sourcePath, named.testedName)))
            excluded.push_back(named.pattern);
    if (sourcePath != "/") return;
    status_.log("macOS clone detected and configured.");
    for (const std::string& name : FVExclusionRules::rootCloneConditionalNames())
        if (FVFileStatus::pathExists("/" + name)) excluded.push_back(name);
    for (const std::string& pattern : FVExclusionRules::rootClonePatterns()) excluded.push_back(pattern);
}

void FVSourceAnalysis::handOver(FVFileSystemItemPtr source, FVFileSystemItemPtr destination, Work work) {
    handOver_(std::move(source), std::move(destination), work);
    ++status_.updateCount;
}

// What one walk of a source item keeps from entry to entry.
struct FVSourceAnalysis::Walk {
    const std::string& sourceRoot;
    const std::string& targetRoot;
    const std::string relativeRoot;
    const bool excludeSymlinks;
    const bool includeACL;
    const bool compareAttributes;
    FVMirrorFolders mirrorFolders;
    // Everything below a folder the destination lacks is new as well.
    std::string newDirectoryPrefix;
    // The folders from the root down to the entry in hand, by walk level, with whether each was
    // found unchanged and has not been queued again since.
    std::vector<std::pair<FVFileSystemItemPtr, bool>> unchangedAncestors;
};

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
    const FVOptions& options = settings_.options;
    if (options.excludeSymlinks && root->fileType() == FVFileType::SymbolicLink) {
        status_.verboseLog("Skipping symbolic link:" + sourceRoot);
        return;
    }
    Walk walk{sourceRoot,
              targetRoot,
              settings_.layout().mirrorRelativePath(sourceRoot),
              options.excludeSymlinks,
              !options.disableACLClone,
              !options.ignoreFileFlagChanges && tolerance_.comparesAttributes,
              FVMirrorFolders(settings_.willPerformCleanup),
              {},
              {}};
    if (root->isFile()) return walkSingleFile(walk, root);
    // An empty folder is neither compared nor created at the destination; an unreadable one
    // keeps its mirror exactly as it is.
    std::optional<bool> hasEntries = FVFolderContents::folderHasEntries(sourceRoot);
    if (!hasEntries) {
        reportUnreadableSource(sourceRoot, errno);
        return;
    }
    if (!*hasEntries) {
        // Whatever its mirror holds, the source lacks.
        if (settings_.willPerformCleanup) findings_.mirrorFoldersToClean[sourceRoot].push_back("");
        return;
    }

    FVDestinationNames names(settings_.destinationProfile);
    FVSourceListing listing(sourceRoot, targetRoot, listingRules(walk, names));
    std::vector<FVSourceListing::Entry> batch;
    while (!status_.isCancelled() && listing.next(batch)) {
        for (FVSourceListing::Entry& entry : batch) {
            walk.mirrorFolders.leaveBelow(entry.level);
            if (!isComparable(walk, entry)) continue;
            if (status_.isCancelled()) break;
            compare(walk, entry);
        }
    }
    if (status_.isCancelled()) return;
    std::vector<std::string> foldersToClean = walk.mirrorFolders.finish();
    if (settings_.willPerformCleanup && !foldersToClean.empty()) {
        std::vector<std::string>& list = findings_.mirrorFoldersToClean[sourceRoot];
        list.insert(list.end(), std::make_move_iterator(foldersToClean.begin()),
                    std::make_move_iterator(foldersToClean.end()));
    }
}

void FVSourceAnalysis::walkSingleFile(const Walk& walk, const FVFileSystemItemPtr& root) {
    auto target = std::make_shared<FVFileSystemItem>(walk.targetRoot);
    std::function<bool()> xattrsIdentical;
    if (walk.compareAttributes)
        xattrsIdentical = [&] {
            return FVAttributeSignature::xattrIdentialforFileAtPath(walk.sourceRoot, walk.targetRoot, walk.includeACL);
        };
    FVChangeDecision::Reason reason = decide(*root, *target, xattrsIdentical, walk.relativeRoot, {});
    const bool inPlace = reason == FVChangeDecision::Reason::ModeOrOwnerMismatch;
    ++status_.totalFilesCount;
    if (reason != FVChangeDecision::Reason::Unchanged) handOver(root, target, inPlace ? Work::ModeAndOwner : Work::Copy);
    if (reason == FVChangeDecision::Reason::Unchanged || inPlace) recordCurrent(walk.relativeRoot, root, target);
}

FVSourceListing::Rules FVSourceAnalysis::listingRules(const Walk& walk, FVDestinationNames& names) const {
    FVSourceListing::Rules rules;
    rules.isExcluded = [this, &walk](const std::string& path) { return isExcluded(path, walk.sourceRoot); };
    rules.exclusions = &exclusions_;
    rules.destinationDevice = settings_.destinationDevice;
    rules.destinationInode = settings_.destinationInode;
    rules.refusedName = [&names](uint32_t level, std::string_view name, int folderFd) {
        return names.refusal(level, name, folderFd);
    };
    if (walk.compareAttributes)
        rules.signature = [includeACL = walk.includeACL](const std::string& path) {
            return FVAttributeSignature::xattrNameAndDataStringForFileAtPath(path, includeACL);
        };
    if (recorder_)
        rules.attributes = [](const std::string& path) { return FVRunRecorder::attributesOf(FVExtendedAttributes(path)); };
    return rules;
}

bool FVSourceAnalysis::isComparable(const Walk& walk, const FVSourceListing::Entry& entry) {
    using Kind = FVSourceListing::Entry::Kind;
    const std::string& path = entry.path;
    const size_t level = entry.level;
    switch (entry.kind) {
    case Kind::Error:
        // Gone between the listing and its examination: nothing is left to back up.
        if (entry.error == ENOENT && level > 0)
            status_.log(fmt::format("NOTE: Source item vanished while analysing: {}", path));
        else
            reportUnreadableSource(path, entry.error);
        return false;
    case Kind::Excluded:
        status_.verboseLog("Excluded:" + path);
        return false;
    case Kind::DestinationInside:
        // A destination inside a source would be copied into itself, one level deeper each run.
        status_.verboseLog("Skipping the destination inside the source: " + path);
        findings_.destinationSourcePaths.push_back(path);
        return false;
    case Kind::UnreadableFolder:
        // Not entered: its mirror stays as it is.
        ++status_.totalFilesCount;
        reportUnreadableSource(path, entry.error);
        if (recorder_) recorder_->recordNotUpdated(walk.relativeRoot + std::string(entry.relativePath()), path, entry.st);
        return false;
    case Kind::Unmirrorable: {
        // Not copied, and no match of its folder's mirror names: whatever the mirror holds
        // under a name like it belongs to the entry that is backed up.
        status_.report(FVRunError::item("analysing", 0, path, fmt::format("Cannot back up {}: {}.", path, entry.reason)));
        return false;
    }
    case Kind::Item: break;
    }
    const mode_t type = entry.st.st_mode & S_IFMT;
    ++status_.totalFilesCount;
    status_.setAnalyseProgress(static_cast<float>(status_.totalFilesCount.load()) * 100.0f /
                               static_cast<float>(estimatedFileCount_));
    status_.reportProgress();
    if (status_.isCancelled()) return true;
    if (walk.excludeSymlinks && type == S_IFLNK) {
        status_.verboseLog("Skipping symbolic link:" + path);
        --status_.totalFilesCount;
        return false;
    }
    if (type == S_IFLNK && !settings_.destinationProfile.symbolicLinks) {
        status_.report(FVRunError::item(
            "analysing", 0, path,
            fmt::format("Cannot back up {}: the destination ({}) cannot hold symbolic links.", path,
                        settings_.destinationProfile.fileSystemType)));
        return false;
    }
    return true;
}

void FVSourceAnalysis::compare(Walk& walk, const FVSourceListing::Entry& entry) {
    const std::string& path = entry.path;
    const size_t level = entry.level;
    const mode_t type = entry.st.st_mode & S_IFMT;
    std::string destinationPath = walk.targetRoot + std::string(entry.relativePath());
    auto source = std::make_shared<FVFileSystemItem>(path, entry.st);
    // Everything below a folder the destination lacks is new as well. Its mirror item is
    // missing by definition: looked up by path it could be read through a mirror link
    // that the folder is about to replace.
    if (FVText::isPathWithin(path, walk.newDirectoryPrefix)) {
        auto destination = FVFileSystemItem::missingItem(std::move(destinationPath));
        if (hardLinks_.takeLaterName(source, destination, true)) return;
        handOver(source, destination);
        // A folder is recorded as the walk meets it; the copy threads record the rest.
        if (type == S_IFDIR)
            recordCurrent(walk.relativeRoot + std::string(entry.relativePath()), source, destination,
                          entry.attributes ? &*entry.attributes : nullptr);
        return;
    }
    auto destination = walk.mirrorFolders.item(level, entry.nameCString(), destinationPath);
    if (destination->fileExists()) walk.mirrorFolders.countMatch(level);
    // A folder where the mirror has anything else is new with all it holds: nothing below
    // it is compared through a mirror link.
    bool newFolder = type == S_IFDIR && destination->fileType() != FVFileType::Directory;
    std::function<bool()> xattrsIdentical;
    if (walk.compareAttributes)
        xattrsIdentical = [&] {
            if (!entry.signature) return FVAttributeSignature::xattrIdentialforFileAtPath(path, destinationPath, walk.includeACL);
            return *entry.signature == walk.mirrorFolders.signature(level, entry.nameCString(), destinationPath, walk.includeACL);
        };
    const FVChangeDecision::Reason reason =
        newFolder ? FVChangeDecision::Reason::TypeMismatch
                  : decide(*source, *destination, xattrsIdentical, walk.relativeRoot, entry.relativePath());
    bool needed = reason != FVChangeDecision::Reason::Unchanged;
    if (type == S_IFDIR) {
        walk.mirrorFolders.enter(level, entry.nameCString(), std::string(entry.relativePath()), *destination);
        walk.unchangedAncestors.resize(level);
        walk.unchangedAncestors.emplace_back(source, !needed);
    }
    const size_t linkRequests = hardLinks_.requests().size();
    if (hardLinks_.takeLaterName(source, destination, needed)) {
        // A later name an earlier run linked is current; one to be linked is recorded once it is.
        if (hardLinks_.requests().size() == linkRequests)
            recordCurrent(walk.relativeRoot + std::string(entry.relativePath()), source, destination,
                          entry.attributes ? &*entry.attributes : nullptr);
        return;
    }
    // A folder's pair applies its mode and owner anyway.
    const bool inPlace = reason == FVChangeDecision::Reason::ModeOrOwnerMismatch && type != S_IFDIR;
    if (type == S_IFDIR || !needed || inPlace)
        recordCurrent(walk.relativeRoot + std::string(entry.relativePath()), source, destination,
                      entry.attributes ? &*entry.attributes : nullptr);
    if (!needed) return;
    // Writing an entry into a folder changes the folder's date: queue an unchanged folder
    // again so that its attributes are applied after the write.
    if ((type != S_IFDIR || newFolder) && level > 0 && level <= walk.unchangedAncestors.size() &&
        walk.unchangedAncestors[level - 1].second) {
        walk.unchangedAncestors[level - 1].second = false;
        handOver_(walk.unchangedAncestors[level - 1].first,
                  std::make_shared<FVFileSystemItem>(FVText::deletingLastPathComponent(destinationPath)),
                  Work::FolderDates);
    }
    if (newFolder) walk.newDirectoryPrefix = path;
    handOver(source, destination, inPlace ? Work::ModeAndOwner : Work::Copy);
}

bool FVSourceAnalysis::linkTargetsAgree(FVFileSystemItem& source, FVFileSystemItem& target,
                                        std::string_view relativeRoot, std::string_view relative) const {
    const std::string mirrored = FVLongPath::readLink(target.path());
    // No link has an empty target: the mirror would not show it. sshfs will not read back a link
    // that leaves its folder; the record of the run that published it then vouches for it.
    if (mirrored.empty())
        return recorder_ && recorder_->recordedLinkCurrent(std::string(relativeRoot) + std::string(relative),
                                                            source.statBuffer());
    return FVLongPath::readLink(source.path()) == mirrored;
}

FVChangeDecision::Reason FVSourceAnalysis::decide(FVFileSystemItem& source, FVFileSystemItem& target,
                                                  const std::function<bool()>& xattrsIdentical,
                                                  std::string_view relativeRoot, std::string_view relative) const {
    auto reason = FVChangeDecision::decide(FVChangeDecision::sideOf(source), FVChangeDecision::sideOf(target),
                                           xattrsIdentical, tolerance_);
    // Without link dates, a link pointed elsewhere with a target of the same length shows only in
    // its text.
    if (reason == FVChangeDecision::Reason::Unchanged && !tolerance_.comparesLinkTimes &&
        source.fileType() == FVFileType::SymbolicLink && !linkTargetsAgree(source, target, relativeRoot, relative))
        reason = FVChangeDecision::Reason::LinkTargetMismatch;
    if (reason != FVChangeDecision::Reason::Unchanged)
        status_.verboseLog(fmt::format("Item needs backup, {}. Source: {}  Destination: {}", reasonText(reason),
                                       source.path(), target.path()));
    return reason;
}

}  // namespace ferrovane
