#include "engine/config/FVMirrorLayout.h"

#include "engine/config/FVDestinationNames.h"
#include "fs/FVDestinationProbe.h"
#include "fs/FVText.h"

#include <fmt/format.h>

#include <algorithm>

namespace ferrovane {

namespace {

// The name as a case-insensitive destination compares it.
std::string foldedCase(std::string_view text) { return FVDestinationNames::folded(text); }

// The reserved name that name stands for on this destination, if any.
std::optional<std::string> reservedName(const std::string& name, bool caseInsensitive) {
    const std::string compared = caseInsensitive ? foldedCase(name) : name;
    for (const char* reserved : {FVMirrorLayout::kChangedFolder, FVMirrorLayout::kRemovedFolder,
                                 FVMirrorLayout::kRunsFolder, FVMirrorLayout::kConfigurationName})
        if (compared == (caseInsensitive ? foldedCase(reserved) : std::string(reserved))) return reserved;
    if (compared.starts_with(caseInsensitive ? foldedCase(FVMirrorLayout::kTemporaryPrefix)
                                             : std::string(FVMirrorLayout::kTemporaryPrefix))) return FVMirrorLayout::kTemporaryPrefix;
    return std::nullopt;
}

std::string firstComponent(std::string_view relative) {
    if (relative.starts_with('/')) relative.remove_prefix(1);
    return std::string(relative.substr(0, relative.find('/')));
}

// Whether relative lies inside (or is) folder; "" is the destination root and holds everything.
bool holds(std::string_view folder, std::string_view relative) {
    return folder.empty() || FVText::isPathWithin(relative, folder);
}

}  // namespace

FVMirrorLayout::FVMirrorLayout(std::string destination, bool folderPerSource, std::vector<std::string> sources,
                               std::vector<std::string> exclusions)
    : destination_(std::move(destination)), folderPerSource_(folderPerSource), sources_(std::move(sources)),
      exclusions_(std::move(exclusions)) {
    while (destination_.size() > 1 && destination_.back() == '/') destination_.pop_back();
}

FVMirrorLayout FVMirrorLayout::archivesOf(std::string destination) {
    return FVMirrorLayout(std::move(destination), true, {});
}

FVMirrorLayout FVMirrorLayout::fromItems(std::string destination, bool folderPerSource,
                                         const std::vector<FVSourceItemPtr>& items) {
    std::vector<std::string> sources, exclusions;
    for (const FVSourceItemPtr& item : items) {
        if (item->mode() == FVSourceMode::Backup) sources.push_back(item->sourcePath());
        else if (item->mode() == FVSourceMode::ExcludePath) exclusions.push_back(item->sourcePath());
    }
    return FVMirrorLayout(std::move(destination), folderPerSource, std::move(sources), std::move(exclusions));
}

bool FVMirrorLayout::isReservedName(std::string_view name) {
    for (const char* reserved : {kChangedFolder, kRemovedFolder, kRunsFolder, kConfigurationName, kProbeFolder})
        if (name == reserved) return true;
    return isTemporaryName(name);
}

bool FVMirrorLayout::isTemporaryName(std::string_view name) {
    const std::string_view prefix = kTemporaryPrefix;
    if (name.size() != prefix.size() + 16 || !name.starts_with(prefix)) return false;
    return std::all_of(name.begin() + static_cast<std::ptrdiff_t>(prefix.size()), name.end(),
                       [](char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); });
}

bool FVMirrorLayout::isNormalizedAbsolutePath(std::string_view path) {
    if (path == "/") return true;
    if (!path.starts_with('/') || path.ends_with('/')) return false;
    size_t at = 1;
    while (at <= path.size()) {
        size_t end = std::min(path.find('/', at), path.size());
        std::string_view part = path.substr(at, end - at);
        if (part.empty() || part == "." || part == "..") return false;
        at = end + 1;
    }
    return true;
}

std::string FVMirrorLayout::mirrorRelativePath(const std::string& source) const {
    if (source == "/") return "";
    if (folderPerSource_) return "/" + FVText::lastPathComponent(source);
    return source.starts_with('/') ? source : "/" + source;
}

std::string FVMirrorLayout::destinationPath(std::string_view relative) const {
    if (destination_ == "/") return relative.empty() ? "/" : std::string(relative);
    return destination_ + std::string(relative);
}

std::string FVMirrorLayout::mirrorPath(const std::string& source) const {
    return destinationPath(mirrorRelativePath(source));
}

std::string FVMirrorLayout::archiveRoot(FVArchiveKind kind) const {
    return fmt::format("{}/{}", destination_ == "/" ? "" : destination_,
                       kind == FVArchiveKind::Changed ? kChangedFolder : kRemovedFolder);
}

std::string FVMirrorLayout::archiveFolder(FVArchiveKind kind, std::string_view stamp) const {
    return fmt::format("{}/{}", archiveRoot(kind), stamp);
}

std::string FVMirrorLayout::archivePath(FVArchiveKind kind, std::string_view stamp, std::string_view relative) const {
    return archiveFolder(kind, stamp) + std::string(relative);
}

std::optional<std::string> FVMirrorLayout::relativePathOfDestinationPath(const std::string& path) const {
    if (!FVText::isPathWithin(path, destination_)) return std::nullopt;
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

std::optional<std::string> FVMirrorLayout::archiveStampOfDestinationPath(const std::string& path) const {
    if (!FVText::isPathWithin(path, destination_)) return std::nullopt;
    const std::string relative = destination_ == "/" ? path : path.substr(destination_.size());
    for (const char* archive : {kChangedFolder, kRemovedFolder}) {
        const std::string prefix = std::string("/") + archive + "/";
        if (relative.starts_with(prefix)) return relative.substr(prefix.size(), relative.find('/', prefix.size()) - prefix.size());
    }
    return std::nullopt;
}

std::optional<std::string> FVMirrorLayout::relativePathOfOriginal(const std::string& path) const {
    const std::string* best = nullptr;
    for (const std::string& source : sources_)
        if (FVText::isPathWithin(path, source) && (!best || source.size() > best->size())) best = &source;
    if (!best) return std::nullopt;
    std::string below = *best == "/" ? path : path.substr(best->size());
    if (below == "/") below.clear();
    return mirrorRelativePath(*best) + below;
}

std::optional<std::string> FVMirrorLayout::sourceHolding(const std::string& relative) const {
    const std::string* best = nullptr;
    std::string bestMirror;
    for (const std::string& source : sources_) {
        std::string mirror = mirrorRelativePath(source);
        if (holds(mirror, relative) && (!best || mirror.size() > bestMirror.size())) {
            best = &source;
            bestMirror = std::move(mirror);
        }
    }
    if (!best) return std::nullopt;
    return *best;
}

std::optional<std::string> FVMirrorLayout::originalPath(const std::string& relative) const {
    std::optional<std::string> source = sourceHolding(relative);
    if (!source) return std::nullopt;
    std::string below = relative.substr(mirrorRelativePath(*source).size());
    if (*source == "/") return below.empty() ? "/" : below;
    return *source + below;
}

std::optional<std::string> FVMirrorLayout::validate(const FVDestinationProfile& profile) const {
    for (const std::string& source : sources_)
        if (!isNormalizedAbsolutePath(source))
            return fmt::format("The source \"{}\" is not a plain absolute path (no \"..\", \".\", doubled or "
                               "trailing slash). Name the item by its plain full path instead.",
                               source);
    for (const std::string& exclusion : exclusions_)
        if (!isNormalizedAbsolutePath(exclusion))
            return fmt::format("The exclusion \"{}\" is not a plain absolute path (no \"..\", \".\", doubled or "
                               "trailing slash). Name the item by its plain full path instead.",
                               exclusion);
    for (const std::string& source : sources_)
        if (auto problem = placementProblem(source, profile)) return problem;
    for (size_t i = 0; i < sources_.size(); ++i)
        for (size_t j = i + 1; j < sources_.size(); ++j)
            if (auto problem = collision(sources_[i], sources_[j], profile)) return problem;
    return std::nullopt;
}

std::optional<std::string> FVMirrorLayout::validateAsSeen() const {
    FVDestinationProbe probe(destination_, kProbeFolder);
    return validate(probe.probeWithoutWriting(kConfigurationName));
}

std::optional<std::string> FVMirrorLayout::placementProblem(const std::string& source,
                                                            const FVDestinationProfile& profile) const {
    if (source != "/" && FVText::isPathWithin(source, destination_))
        return fmt::format("The source {} lies inside the destination {}, where the backup itself is kept. "
                           "Remove the source, or choose a destination outside it.",
                           source, destination_);
    const std::string relative = mirrorRelativePath(source);
    if (relative.empty()) return std::nullopt;
    std::optional<std::string> reserved = reservedName(firstComponent(relative), profile.caseInsensitive);
    if (!reserved) return std::nullopt;
    return fmt::format("The source {} would be mirrored at {}, but the destination keeps the name \"{}\" for "
                       "itself. {}",
                       source, destinationPath(relative), *reserved,
                       folderPerSource_ ? "Rename the item, or back up its enclosing folder instead."
                                        : "Back up its enclosing folder instead.");
}

std::optional<std::string> FVMirrorLayout::collision(const std::string& a, const std::string& b,
                                                     const FVDestinationProfile& profile) const {
    const bool folded = profile.caseInsensitive;
    auto key = [folded](const std::string& text) { return folded ? foldedCase(text) : text; };
    const std::string mirrorA = mirrorRelativePath(a), mirrorB = mirrorRelativePath(b);
    const std::string advice =
        a == "/" || b == "/" ? "A backup of / holds every other source already: remove or disable the other one."
        : folderPerSource_   ? "Remove or disable one of them, or mirror each source at its full path (option "
                               "syncMode 0, \"Rebuild source path\")."
                             : "Remove or disable one of them, or back up only the enclosing folder.";
    const char* caseNote = mirrorA == mirrorB || holds(mirrorA, mirrorB) || holds(mirrorB, mirrorA)
                               ? ""
                               : " (this destination does not tell upper and lower case apart)";
    if (key(mirrorA) == key(mirrorB))
        return fmt::format("The sources {} and {} would both be mirrored at {}{}, and each run would remove the "
                           "other's files. {}",
                           a, b, destinationPath(mirrorB), caseNote, advice);
    for (const auto& [outer, inner] : {std::pair{&a, &b}, std::pair{&b, &a}}) {
        const std::string outerMirror = mirrorRelativePath(*outer), innerMirror = mirrorRelativePath(*inner);
        if (holds(key(outerMirror), key(innerMirror)))
            return fmt::format("The source {} would be mirrored at {}, inside the mirror of the source {} ({}){}, "
                               "and each run would remove the other's files. {}",
                               *inner, destinationPath(innerMirror), *outer, destinationPath(outerMirror), caseNote,
                               advice);
    }
    return std::nullopt;
}

}  // namespace ferrovane
