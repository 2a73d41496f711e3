#include "engine/FVVersionCatalog.h"

#include "engine/FVConfigurationFile.h"
#include "fs/FVConfinedDirectory.h"
#include "fs/FVText.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

namespace ferrovane {

namespace {

// The placement of the mirror; the one option a restore needs.
bool mirrorsByLastComponent(const PlistDict& settings) { return FVOptionTable::read(settings).options.syncMode != 0; }

std::vector<std::string> folderNames(const std::string& path) {
    std::vector<std::string> names;
    DIR* folder = opendir(path.c_str());
    if (!folder) return names;
    while (const dirent* entry = readdir(folder))
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            names.emplace_back(entry->d_name);
    closedir(folder);
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
    std::vector<std::string> sources;
    for (const FVSourceItemPtr& item : read.configuration.sources)
        if (item->mode() == FVSourceMode::Backup) sources.push_back(item->sourcePath());
    return FVVersionCatalog(FVText::standardizedPath(destination), std::move(sources),
                            mirrorsByLastComponent(*read.configuration.settings));
}

FVVersionCatalog::FVVersionCatalog(std::string destination, std::vector<std::string> sources, bool syncMode)
    : destination_(std::move(destination)), sources_(std::move(sources)), syncMode_(syncMode) {}

std::string FVVersionCatalog::sourceMirrorPath(const std::string& source) const {
    std::string path = FVText::standardizedPath(source);
    if (path == "/") return "";
    return syncMode_ ? "/" + FVText::lastPathComponent(path) : path;
}

std::optional<std::string> FVVersionCatalog::mirrorPath(const std::string& named) const {
    std::string path = FVText::standardizedPath(named);
    if (FVText::isPathWithin(path, destination_)) {
        std::string relative = destination_ == "/" ? path : path.substr(destination_.size());
        if (relative == "/") relative.clear();
        for (const char* archive : {kChangedFolder, kRemovedFolder}) {
            std::string prefix = std::string("/") + archive + "/";
            if (!relative.starts_with(prefix)) continue;
            size_t stampEnd = relative.find('/', prefix.size());
            return stampEnd == std::string::npos ? "" : relative.substr(stampEnd);
        }
        return relative;
    }
    // The longest configured source that holds the path places it.
    const std::string* best = nullptr;
    for (const std::string& source : sources_)
        if (FVText::isPathWithin(path, FVText::standardizedPath(source)) && (!best || source.size() > best->size()))
            best = &source;
    if (!best) return std::nullopt;
    std::string source = FVText::standardizedPath(*best);
    std::string below = source == "/" ? path : path.substr(source.size());
    if (below == "/") below.clear();
    return sourceMirrorPath(source) + below;
}

std::optional<std::string> FVVersionCatalog::sourceHolding(const std::string& mirrorPath) const {
    const std::string* best = nullptr;
    std::string bestMirror;
    for (const std::string& source : sources_) {
        std::string mirror = sourceMirrorPath(source);
        bool holds = mirror.empty() || mirrorPath == mirror || mirrorPath.starts_with(mirror + "/");
        if (holds && (!best || mirror.size() > bestMirror.size())) {
            best = &source;
            bestMirror = mirror;
        }
    }
    if (!best) return std::nullopt;
    return FVText::standardizedPath(*best);
}

std::optional<std::string> FVVersionCatalog::originalPath(const std::string& mirrorPath) const {
    std::optional<std::string> holder = sourceHolding(mirrorPath);
    if (!holder) return std::nullopt;
    const std::string& source = *holder;
    std::string below = mirrorPath.substr(sourceMirrorPath(source).size());
    if (source == "/") return below.empty() ? "/" : below;
    return source + below;
}

std::optional<std::time_t> FVVersionCatalog::stampTime(const std::string& stamp) {
    struct tm parts {};
    const char* end = strptime(stamp.c_str(), "%Y-%m-%d %H.%M.%S %z", &parts);
    if (!end || *end != '\0') return std::nullopt;
    long offset = parts.tm_gmtoff;
    return timegm(&parts) - offset;
}

std::vector<FVItemVersion> FVVersionCatalog::versions(const std::string& mirrorPath) const {
    std::vector<FVItemVersion> found;
    std::string root = destination_ == "/" ? "" : destination_;
    const FVConfinedDirectory confined(destination_);
    if (auto current = versionAt(confined, mirrorPath.empty() ? destination_ : root + mirrorPath))
        found.push_back(std::move(*current));
    std::vector<FVItemVersion> archived;
    for (auto [folder, kind] : {std::pair{kChangedFolder, FVVersionKind::Changed},
                                std::pair{kRemovedFolder, FVVersionKind::Removed}}) {
        std::string archive = root + "/" + folder;
        for (const std::string& stamp : folderNames(archive)) {
            std::optional<std::time_t> time = stampTime(stamp);
            if (!time) continue;
            auto version = versionAt(confined, archive + "/" + stamp + mirrorPath);
            if (!version) continue;
            version->stamp = stamp;
            version->kind = kind;
            version->stampTime = *time;
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
