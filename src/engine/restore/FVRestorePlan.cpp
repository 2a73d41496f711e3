#include "engine/restore/FVRestorePlan.h"

#include "engine/analysis/FVChangeDecision.h"
#include "engine/config/FVConfigurationFile.h"
#include "engine/copy/FVFileCopyWorker.h"
#include "engine/record/FVPointInTime.h"
#include "engine/record/FVRunRecords.h"
#include "engine/record/FVVersionCatalog.h"
#include "fs/FVDestinationProbe.h"
#include "fs/FVDirectoryWalker.h"
#include "fs/FVLinks.h"
#include "fs/FVMountTable.h"
#include "fs/FVText.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <optional>

namespace ferrovane {

namespace {

// The text of a link; the folder holding it is passed (or, for paths longer than PATH_MAX,
// reached) by descriptor.
std::string linkText(int folderFd, const std::string& name) {
    std::string text(4096, '\0');
    ssize_t n = FVLinks::readlinkat(folderFd, name.c_str(), text.data(), text.size());
    text.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return text;
}

// The folder holding an item inside the destination, reached without following links, and the
// item's name; an invalid descriptor (errno in *error) when it cannot be reached.
FVFd confinedParent(const FVConfinedDirectory& destination, const std::string& path, std::string& name, int* error) {
    std::optional<std::string> relative = destination.relativePath(path);
    if (!relative || relative->empty()) {
        *error = EINVAL;
        return FVFd();
    }
    const size_t slash = relative->rfind('/');
    name = slash == std::string::npos ? *relative : relative->substr(slash + 1);
    return destination.openFolder(slash == std::string::npos ? "" : std::string_view(*relative).substr(0, slash), false,
                                  error);
}

int examineConfined(const FVConfinedDirectory& destination, const std::string& path, struct stat* st) {
    std::optional<std::string> relative = destination.relativePath(path);
    return relative ? destination.statItem(*relative, st) : EINVAL;
}

}  // namespace

int FVRestorePlan::examine(const std::string& destination, const std::string& path, struct stat* st) {
    return examineConfined(FVConfinedDirectory(destination), path, st);
}

FVRestorePlan::FVRestorePlan(std::string destination, std::string from, std::string to, std::string root,
                             const std::vector<std::string>& parentMirrors)
    : destination_(std::move(destination)), from_(std::move(from)), to_(std::move(to)), root_(std::move(root)),
      profile_(FVDestinationProbe::defaultsForType(FVMountTable::fileSystemTypeAtPath(root_))) {
    const FVConfinedDirectory versions(destination_);
    std::string name;
    int error = 0;
    // The destination itself (the mirror of the source "/") is opened as the user named it.
    FVFd parent = from_ == destination_ ? FVFd() : confinedParent(versions, from_, name, &error);
    if (from_ != destination_ && !parent.valid()) {
        problems_.push_back(fmt::format("Could not read {} ({})", from_, std::strerror(error)));
        return;
    }
    addMissingParents(versions, parentMirrors);
    FVDirectoryWalker walker(from_, std::move(parent));
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
        std::string link;
        if (S_ISLNK(entry->st.st_mode) && entry->level > 0) {
            link = linkText(entry->parentFd, std::string(entry->name()));
        } else if (S_ISLNK(entry->st.st_mode)) {
            FVFd folder = confinedParent(versions, from_, name, &error);
            if (folder.valid()) link = linkText(folder.get(), name);
        }
        if (S_ISLNK(entry->st.st_mode) && link.empty()) link = recordedLinkText(entry->path, entry->st);
        add(entry->path, entry->st, target, link);
    }
}

std::string FVRestorePlan::recordedLinkText(const std::string& path, const struct stat& st) {
    // The record is read once, for the links at or below what is restored: a lookup per link
    // would read the whole record again for each. It tells of the mirror as that run left it,
    // not of archived versions.
    if (!newestRun_) {
        newestRun_.emplace();
        std::string problem;
        std::optional<FVRunRecord> newest = FVRunRecords(destination_).newestClosed();
        std::optional<FVPointInTime> run = newest ? FVPointInTime::open(destination_, *newest, &problem) : std::nullopt;
        std::optional<std::string> below;
        if (run && !run->layout().archiveStampOfDestinationPath(from_))
            below = run->layout().relativePathOfDestinationPath(from_);
        const std::string root = destination_ == "/" ? std::string() : destination_;
        if (below)
            run->forEachAtOrBelow(*below, [&](const FVManifestEntry& entry) {
                if (entry.type == FVManifestEntryType::Link && !entry.failed)
                    (*newestRun_)[root + entry.path] = entry.linkTarget;
            }, &problem);
    }
    auto recorded = newestRun_->find(path);
    if (recorded == newestRun_->end() || recorded->second.size() != static_cast<uint64_t>(st.st_size)) return {};
    recordedLinks_[path] = recorded->second;
    return recorded->second;
}

const std::string* FVRestorePlan::recordedLinkTarget(const std::string& versionPath) const {
    auto found = recordedLinks_.find(versionPath);
    return found == recordedLinks_.end() ? nullptr : &found->second;
}

// The destination's own files never come back: its archives and configuration when the whole
// destination is the mirror (the source "/"), and files a crashed run left half-written.
bool FVRestorePlan::isHousekeeping(std::string_view relative, std::string_view name) const {
    if (FVMirrorLayout::isTemporaryName(name)) return true;
    if (from_ != destination_ || relative.find('/', 1) != std::string_view::npos) return false;
    return FVMirrorLayout::isReservedName(name) || name == FVConfigurationFile::legacyFileName;
}

// A parent the restore makes again gets its backed-up folder's mode, owner and times, like every
// folder the restore copies, instead of those of a new folder.
void FVRestorePlan::addMissingParents(const FVConfinedDirectory& versions, const std::vector<std::string>& parentMirrors) {
    std::vector<std::pair<FVFileSystemItemPtr, FVFileSystemItemPtr>> missing;
    std::string target = to_, version = from_;
    for (const std::string& mirror : parentMirrors) {
        target = FVText::deletingLastPathComponent(target);
        version = FVText::deletingLastPathComponent(version);
        struct stat st {};
        if (target == root_ || !FVText::isPathWithin(target, root_) || FVLongPath::lstat(target, &st) == 0 ||
            errno != ENOENT)
            break;
        const std::string* backedUp = nullptr;
        for (const std::string* candidate : {&mirror, static_cast<const std::string*>(&version)})
            if (FVText::isPathWithin(*candidate, destination_) && examineConfined(versions, *candidate, &st) == 0 &&
                S_ISDIR(st.st_mode)) {
                backedUp = candidate;
                break;
            }
        if (backedUp)
            missing.emplace_back(std::make_shared<FVFileSystemItem>(*backedUp, st), FVFileSystemItem::itemWithPath(target));
    }
    pairs_.insert(pairs_.end(), std::make_move_iterator(missing.rbegin()), std::make_move_iterator(missing.rend()));
}

void FVRestorePlan::add(const std::string& fromPath, const struct stat& st, const std::string& toPath,
                        const std::string& versionLink) {
    auto pair = std::pair{std::make_shared<FVFileSystemItem>(fromPath, st), FVFileSystemItem::itemWithPath(toPath)};
    bool isFolder = S_ISDIR(st.st_mode);
    struct stat existing {};
    if (FVLongPath::lstat(toPath, &existing) != 0) {
        if (errno != ENOENT && errno != ENOTDIR) {
            problems_.push_back(fmt::format("Could not examine {} ({})", toPath, std::strerror(errno)));
            return;
        }
    } else if (isFolder && S_ISDIR(existing.st_mode)) {
        // An existing folder takes the version's contents and metadata; nothing in it is removed.
    } else if ((existing.st_mode & S_IFMT) != (st.st_mode & S_IFMT)) {
        conflicts_.push_back({toPath, S_ISDIR(existing.st_mode) ? "a folder is in the way" : "another kind of item is in the way"});
    } else if (S_ISLNK(st.st_mode) ? versionLink == FVLongPath::readLink(toPath)
                                   : holdsVersion(*pair.first, toPath, existing)) {
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

bool FVRestorePlan::holdsVersion(FVFileSystemItem& version, const std::string& path, const struct stat& target) const {
    FVFileSystemItem existing(path, target);
    // Mode and owner alone are no other version: the contents are the same.
    switch (FVChangeDecision::decide(FVChangeDecision::sideOf(version), FVChangeDecision::sideOf(existing), nullptr,
                                     FVChangeDecision::Tolerance::of(profile_))) {
    case FVChangeDecision::Reason::Unchanged:
    case FVChangeDecision::Reason::ModeOrOwnerMismatch: return true;
    default: return false;
    }
}

}  // namespace ferrovane
