#include "engine/record/FVRecordedBytes.h"

#include "engine/config/FVMirrorLayout.h"
#include "engine/record/FVPointInTime.h"
#include "engine/record/FVVersionCatalog.h"
#include "manifest/FVPathKey.h"

#include <algorithm>

namespace ferrovane {

FVRecordedBytes::Slot* FVRecordedBytes::find(uint64_t key) {
    auto at = std::lower_bound(slots_.begin(), slots_.end(), key,
                               [](const Slot& slot, uint64_t k) { return slot.pathKey < k; });
    return at != slots_.end() && at->pathKey == key ? &*at : nullptr;
}

const FVRecordedBytes::Slot* FVRecordedBytes::find(uint64_t key) const {
    return const_cast<FVRecordedBytes*>(this)->find(key);
}

std::optional<FVRecordedBytes> FVRecordedBytes::index(const std::string& destination,
                                                      const std::vector<FVRunRecord>& runs, size_t chosen,
                                                      const std::string& path, std::string* problem) {
    FVRecordedBytes bytes;
    auto pit = FVPointInTime::open("", runs.at(chosen), problem);
    if (!pit) return std::nullopt;
    if (!pit->forEachAtOrBelow(path, [&](const FVManifestEntry& entry) {
            if (entry.type != FVManifestEntryType::File) return;
            Slot slot;
            slot.pathKey = FVPathKey::of(entry.path);
            slot.hasDigest = entry.hash.has_value();
            if (entry.hash) slot.digest = *entry.hash;
            bytes.slots_.push_back(slot);
        }, problem))
        return std::nullopt;
    std::sort(bytes.slots_.begin(), bytes.slots_.end(),
              [](const Slot& a, const Slot& b) { return a.pathKey < b.pathKey; });
    bytes.chosenTime_ = runs[chosen].time;
    for (size_t k = chosen + 1; k < runs.size(); ++k) bytes.readLater(runs[k], path);
    const FVVersionCatalog catalog(FVMirrorLayout::archivesOf(destination));
    std::vector<std::pair<std::time_t, std::string>> folders;
    for (auto [kind, name] : {std::pair{FVArchiveKind::Changed, FVMirrorLayout::kChangedFolder},
                              std::pair{FVArchiveKind::Removed, FVMirrorLayout::kRemovedFolder}})
        for (const FVVersionCatalog::ArchiveStamp& stamp : catalog.stamps(kind))
            folders.emplace_back(stamp.time, std::string(name) + "/" + stamp.name);
    std::sort(folders.begin(), folders.end(), std::greater<>());
    for (auto& [time, place] : folders) bytes.archiveFolders_.push_back({time, std::move(place)});
    return bytes;
}

void FVRecordedBytes::readLater(const FVRunRecord& run, const std::string& path) {
    // A run whose summary is unreadable was killed or damaged: what it did is unknown, and the
    // places beyond the likeliest one cover it.
    if (!run.summary) return;
    std::string ignored;
    auto pit = FVPointInTime::open("", run, &ignored);
    if (!pit) return;
    laterStamps_.push_back(run.stamp);
    laterTimes_.push_back(run.time);
    const auto displacer = static_cast<uint32_t>(laterStamps_.size());
    for (Slot& slot : slots_) slot.seen = false;
    bool whole = pit->forEachAtOrBelow(path, [&](const FVManifestEntry& entry) {
        Slot* slot = find(FVPathKey::of(entry.path));
        if (!slot) return;
        slot->seen = true;
        if (slot->displacer) return;
        bool same = entry.type == FVManifestEntryType::File &&
                    (!slot->hasDigest || (entry.hash && *entry.hash == slot->digest));
        if (!same) slot->displacer = displacer;
    }, &ignored);
    // Only a complete run says that what it does not list is gone from the mirror.
    if (!whole || !run.complete()) return;
    for (Slot& slot : slots_)
        if (!slot.seen && !slot.displacer) slot.displacer = displacer;
}

std::string FVRecordedBytes::displacedBy(const std::string& path) const {
    const Slot* slot = find(FVPathKey::of(path));
    return slot && slot->displacer ? laterStamps_[slot->displacer - 1] : std::string();
}

std::vector<std::string> FVRecordedBytes::likeliestPlaces(const FVManifestEntry& entry) const {
    const Slot* slot = find(FVPathKey::of(entry.path));
    if (!slot || !slot->displacer) return {entry.path.substr(1)};
    const std::string& stamp = laterStamps_[slot->displacer - 1];
    const std::time_t after = slot->displacer == 1 ? chosenTime_ : laterTimes_[slot->displacer - 2];
    const std::time_t before = laterTimes_[slot->displacer - 1];
    std::vector<std::string> places;
    for (auto folder = archiveFolders_.rbegin(); folder != archiveFolders_.rend(); ++folder)
        if (folder->time > after && folder->time < before) places.push_back(folder->place + entry.path);
    places.push_back(std::string(FVMirrorLayout::kChangedFolder) + "/" + stamp + entry.path);
    places.push_back(std::string(FVMirrorLayout::kRemovedFolder) + "/" + stamp + entry.path);
    return places;
}

std::vector<std::string> FVRecordedBytes::otherPlaces(const FVManifestEntry& entry) const {
    const std::vector<std::string> tried = likeliestPlaces(entry);
    std::vector<std::string> found;
    auto add = [&](std::string place) {
        if (std::find(tried.begin(), tried.end(), place) == tried.end()) found.push_back(std::move(place));
    };
    add(entry.path.substr(1));
    for (const ArchiveFolder& folder : archiveFolders_) add(folder.place + entry.path);
    return found;
}

}  // namespace ferrovane
