#include "engine/archive/FVHardLinkWriter.h"

#include "engine/analysis/FVChangeDecision.h"
#include "engine/copy/FVTemporaryEntry.h"
#include "fs/FVFileStatus.h"
#include "fs/FVLinks.h"
#include "fs/FVText.h"
#include "fs/FVTimestamps.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fmt/format.h>

namespace ferrovane {

std::vector<FVHardLinkWriter::CopyPair> FVHardLinkWriter::run(const std::vector<FVHardLinkGroups::Request>& requests) {
    std::vector<CopyPair> copies;
    std::string lastFolder;
    for (const FVHardLinkGroups::Request& request : requests) {
        if (status_.isCancelled()) break;
        if (settings_.dryRun) {
            reportWouldLink(request);
            continue;
        }
        if (link(request) != Outcome::CopySeparately || request.destinationCurrent) continue;
        std::string folder = FVText::deletingLastPathComponent(request.source->path());
        if (folder != lastFolder)
            copies.emplace_back(std::make_shared<FVFileSystemItem>(folder), std::make_shared<FVFileSystemItem>(
                                    FVText::deletingLastPathComponent(request.destination->path())));
        lastFolder = std::move(folder);
        copies.emplace_back(request.source, request.destination);
    }
    return copies;
}

void FVHardLinkWriter::reportWouldLink(const FVHardLinkGroups::Request& request) {
    status_.planned("Would link: " + request.source->path());
    status_.tally.add(FVItemChange::Copied);
    if (settings_.options.moveChangedFiles && request.destination->fileExists() && !request.destinationCurrent) {
        status_.planned("Would archive: " + request.destination->path());
        status_.tally.add(FVItemChange::Archived);
    }
}

void FVHardLinkWriter::reportError(const std::string& message) {
    status_.report(FVRunError::item("linking", 0, {}, message));
}

int FVHardLinkWriter::folderAt(OpenFolder& cache, const std::string& path) {
    if (cache.path != path || !cache.fd.valid()) {
        cache.path = path;
        cache.fd = destination_.openFolder(path, false, &cache.error);
    }
    return cache.fd.valid() ? cache.fd.get() : -1;
}

FVHardLinkWriter::Outcome FVHardLinkWriter::link(const FVHardLinkGroups::Request& request) {
    const std::string& path = request.destination->path();
    const std::string& firstPath = request.firstDestinationPath;
    const std::string firstName = FVText::lastPathComponent(firstPath);
    const int firstFolder = folderAt(firstFolder_, FVText::deletingLastPathComponent(firstPath));
    int error = firstFolder < 0 ? firstFolder_.error : 0;
    struct stat first {};
    if (firstFolder >= 0 && FVFileStatus::fstatat(firstFolder, firstName.c_str(), &first, AT_SYMLINK_NOFOLLOW) != 0) error = errno;
    // The first name's copy failed (and said so): this name waits for it, as it is, until a later run.
    FVFileSystemItem firstItem(firstPath, first);
    if (error != 0 || FVChangeDecision::decide(FVChangeDecision::sideOf(*request.source),
                                               FVChangeDecision::sideOf(firstItem), nullptr,
                                               FVChangeDecision::Tolerance::of(settings_.destinationProfile)) !=
                             FVChangeDecision::Reason::Unchanged) {
        status_.log(fmt::format("NOTE: Not linking {} to {}, which holds no copy of it yet.", path, firstPath));
        return Outcome::Done;
    }
    const int folder = folderAt(folder_, FVText::deletingLastPathComponent(path));
    if (folder < 0) {
        reportError(fmt::format("Could not link {} ({})", path, std::strerror(folder_.error)));
        return Outcome::Done;
    }
    const std::string name = FVText::lastPathComponent(path);
    struct stat old {};
    const bool exists = FVFileStatus::fstatat(folder, name.c_str(), &old, AT_SYMLINK_NOFOLLOW) == 0;
    if (exists && old.st_dev == first.st_dev && old.st_ino == first.st_ino) return Outcome::Done;

    status_.verboseLog(fmt::format("Linking {} to {}", path, firstPath));
    // The folder keeps the dates the copy gave it.
    struct stat folderSt {};
    const bool folderDated = FVFileStatus::fstat(folder, &folderSt) == 0;
    Outcome outcome = replaceWithLink(request, firstFolder, firstName, folder, name, exists ? &old : nullptr);
    if (folderDated) {
        timespec times[2] = {folderSt.st_atim, folderSt.st_mtim};
        FVTimestamps::futimens(folder, times);
    }
    return outcome;
}

FVHardLinkWriter::Outcome FVHardLinkWriter::replaceWithLink(const FVHardLinkGroups::Request& request, int firstFolder,
                                                            const std::string& firstName, int folder,
                                                            const std::string& name, const struct stat* old) {
    const std::string& path = request.destination->path();
    FVTemporaryEntry entry(folder);
    if (entry.create([&](const char* temporary) {
            return FVLinks::linkat(firstFolder, firstName.c_str(), folder, temporary, 0);
        }) != 0) {
        const int error = errno;
        if (status_.stopOnFatalDestinationError(error, "linking", path)) return Outcome::Done;
        status_.log(fmt::format("WARNING: Could not link {} to {} ({}); it is backed up as a file of its own.", path,
                                request.firstDestinationPath, std::strerror(error)));
        return Outcome::CopySeparately;
    }
    // An old entry that already held this version is not archived again: the link holds it.
    if (old && !request.destinationCurrent) {
        FVFileSystemItem oldItem(path, *old);
        if (!archive_.archiveBeforeOverwrite(oldItem)) return Outcome::Done;
    }
    if (entry.publish(name, -1) != FVTemporaryEntry::Published::Done) {
        const int error = errno;
        if (!status_.stopOnFatalDestinationError(error, "linking", path))
            reportError(fmt::format("Could not link {} to {} ({})", path, request.firstDestinationPath,
                                    std::strerror(error)));
        return Outcome::Done;
    }
    status_.changed(FVItemChange::Copied, request.source->path());
    return Outcome::Done;
}

}  // namespace ferrovane
