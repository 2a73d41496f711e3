#pragma once
// What one run displaced into its archive folders (__changed/<stamp>, __removed/<stamp>): the
// entries the manifest before it records and its own records differently or not at all, and the
// folders above them, which the archive folders hold as well. Manifests never change once
// written, so the list is computed once, by comparing the two whole, and kept in the user's cache
// folder; later searches read only that list. A cache that cannot be written costs time, never
// a result; one that was damaged is computed again.

#include "manifest/FVManifestEntry.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace ferrovane {

class FVDisplacedIndex {
public:
    struct Item {
        std::string path;  // relative to the mirror
        FVManifestEntryType type = FVManifestEntryType::File;
    };

    // "" keeps nothing between searches.
    explicit FVDisplacedIndex(std::string cacheFolder) : cacheFolder_(std::move(cacheFolder)) {}
    // $XDG_CACHE_HOME/ferrovane/displaced, else ~/.cache/ferrovane/displaced; "" without a home.
    static std::string userCacheFolder();

    // What the run of the manifest after displaced, the manifest before being its predecessor's.
    // Nothing when stopped() turned true, or, with the reason, when either manifest is damaged.
    std::optional<std::vector<Item>> displaced(const std::string& before, const std::string& after,
                                               const std::function<bool()>& stopped, std::string* problem) const;

private:
    std::optional<std::vector<Item>> compute(const std::string& before, const std::string& after,
                                             const std::function<bool()>& stopped, std::string* problem) const;
    // The cache file of the pair; "" when there is no cache or a manifest cannot be read.
    std::string cachePath(const std::string& before, const std::string& after) const;
    static std::optional<std::vector<Item>> load(const std::string& path);
    static void store(const std::string& path, const std::vector<Item>& items);

    std::string cacheFolder_;
};

}  // namespace ferrovane
