#include "engine/record/FVVersionCatalog.h"

#include "engine/config/FVConfigurationFile.h"
#include "fs/FVConfinedDirectory.h"
#include "fs/FVDirectoryEntries.h"
#include "fs/FVText.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

namespace ferrovane {

namespace {

// The names in a folder inside the destination, reached from its root without following a link.
std::vector<std::string> folderNames(const FVConfinedDirectory& destination, const std::string& path) {
    std::vector<std::string> names;
    std::optional<std::string> relative = destination.relativePath(path);
    int error = 0;
    FVFd folder = relative ? destination.openFolder(*relative, false, &error) : FVFd();
    if (!folder.valid()) return names;
    DIR* listing = FVDirectoryEntries::fdopendir(folder.get());
    if (!listing) return names;
    folder.release();
    while (const dirent* entry = FVDirectoryEntries::readdir(listing))
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            names.emplace_back(entry->d_name);
    FVDirectoryEntries::closedir(listing);
    return names;
}

// The version at path, reached from the destination's root without following a link: a link
// planted in an archive path never lists (nor lets a restore read) what lies outside.
std::optional<FVItemVersion> versionAt(const FVConfinedDirectory& destination, const std::string& path) {
    std::optional<std::string> relative = destination.relativePath(path);
    struct stat st {};
    if (!relative || destination.statItem(*relative, &st) != 0) return std::nullopt;
    FVFileSystemItem item(path, st);
    FVItemVersion version;
    version.path = path;
    version.type = item.fileType();
    version.size = item.fileSize();
    version.modificationTime = item.fileModificationDate();
    return version;
}

}  // namespace

const char* versionKindName(FVVersionKind kind) {
    switch (kind) {
    case FVVersionKind::Current: return "current";
    case FVVersionKind::Changed: return "changed";
    case FVVersionKind::Removed: return "removed";
    }
    return "";
}

std::optional<FVVersionCatalog> FVVersionCatalog::open(const std::string& destination, std::string* problem) {
    FVConfigurationReadResult read = FVConfigurationFile::read(FVConfigurationFile::formattedPath(destination));
    if (read.status != FVConfigurationReadStatus::Ok) {
        *problem = read.problem.empty() ? "the destination has no readable configuration" : read.problem;
        return std::nullopt;
    }
    // The placement of the mirror is the one option a restore needs.
    return FVVersionCatalog(FVMirrorLayout::fromItems(FVText::standardizedPath(destination),
                                                      FVOptionTable::read(*read.configuration.settings).options.syncMode != 0,
                                                      read.configuration.sources));
}

std::string FVVersionCatalog::sourceMirrorPath(const std::string& source) const {
    return layout_.mirrorRelativePath(FVText::standardizedPath(source));
}

std::optional<std::string> FVVersionCatalog::mirrorPath(const std::string& named) const {
    std::string path = FVText::standardizedPath(named);
    if (auto inside = layout_.relativePathOfDestinationPath(path)) return inside;
    return layout_.relativePathOfOriginal(path);
}

std::optional<std::string> FVVersionCatalog::sourceHolding(const std::string& mirrorPath) const {
    return layout_.sourceHolding(mirrorPath);
}

std::optional<std::string> FVVersionCatalog::originalPath(const std::string& mirrorPath) const {
    return layout_.originalPath(mirrorPath);
}

std::optional<std::time_t> FVVersionCatalog::stampTime(const std::string& stamp) {
    struct tm parts {};
    const char* end = strptime(stamp.c_str(), "%Y-%m-%d %H.%M.%S %z", &parts);
    if (!end || *end != '\0') return std::nullopt;
    long offset = parts.tm_gmtoff;
    return timegm(&parts) - offset;
}

std::vector<FVVersionCatalog::ArchiveStamp> FVVersionCatalog::stamps(FVArchiveKind kind) const {
    std::vector<ArchiveStamp> found;
    for (std::string& name : folderNames(FVConfinedDirectory(layout_.destination()), layout_.archiveRoot(kind)))
        if (std::optional<std::time_t> time = stampTime(name)) found.push_back({std::move(name), *time});
    return found;
}

std::vector<FVItemVersion> FVVersionCatalog::versions(const std::string& mirrorPath) const {
    std::vector<FVItemVersion> found;
    const FVConfinedDirectory confined(layout_.destination());
    if (auto current = versionAt(confined, layout_.destinationPath(mirrorPath))) found.push_back(std::move(*current));
    std::vector<FVItemVersion> archived;
    for (auto [archiveKind, kind] : {std::pair{FVArchiveKind::Changed, FVVersionKind::Changed},
                                     std::pair{FVArchiveKind::Removed, FVVersionKind::Removed}}) {
        for (ArchiveStamp& stamp : stamps(archiveKind)) {
            auto version = versionAt(confined, layout_.archivePath(archiveKind, stamp.name, mirrorPath));
            if (!version) continue;
            version->stamp = std::move(stamp.name);
            version->kind = kind;
            version->stampTime = stamp.time;
            archived.push_back(std::move(*version));
        }
    }
    std::stable_sort(archived.begin(), archived.end(), [](const FVItemVersion& a, const FVItemVersion& b) {
        return a.stampTime != b.stampTime ? a.stampTime > b.stampTime : a.stamp > b.stamp;
    });
    found.insert(found.end(), std::make_move_iterator(archived.begin()), std::make_move_iterator(archived.end()));
    return found;
}

}  // namespace ferrovane
