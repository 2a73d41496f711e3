#pragma once
// One entry of a destination's source list. Items are shared: the source list, a running
// backup and the configuration writer all hold the same object and see each other's changes,
// possibly from different threads, so every access goes through the item's lock.

#include "engine/config/FVPlist.h"

#include <memory>
#include <mutex>
#include <optional>
#include <string>

namespace ferrovane {

// The item's mode, stored under "enabled".
enum class FVSourceMode : int64_t { Disabled = 0, Backup = 1, ExcludePath = 2, ExcludeName = 3 };

namespace FVSourceKey {
inline constexpr const char* sourcePath = "sourcePath";
inline constexpr const char* enabled = "enabled";
inline constexpr const char* sourcePathComponent = "sourcePathComponent";
inline constexpr const char* lastBackupDate = "lastBackupDate";
inline constexpr const char* totalFilesCount = "totalFilesCount";
inline constexpr const char* updatedFilesCount = "updatedFilesCount";
inline constexpr const char* totalBytesCopied = "totalBytesCopied";
inline constexpr const char* sizeInMB = "sizeInMB";
inline constexpr const char* url = "url";
// Set by "ferrovane config DEST confirm-empty SOURCE": the user confirmed that the source folder
// really was emptied, so the next run may empty its mirror although archiving of removed items
// is off. The cleanup that has used it clears it.
inline constexpr const char* emptySourceConfirmed = "emptySourceConfirmed";
// When the latest run could not read the source at all (gone, or its folder refused): its mirror
// and the results above stay those of its last good backup. A good backup removes it.
inline constexpr const char* lastUnreadableDate = "lastUnreadableDate";

// What a run owns in an item: the write-back after a run changes these and nothing else.
inline constexpr const char* runResultKeys[] = {lastBackupDate, totalFilesCount, updatedFilesCount,
                                                totalBytesCopied, emptySourceConfirmed, lastUnreadableDate};
}  // namespace FVSourceKey

class FVSourceItem {
public:
    explicit FVSourceItem(PlistDict dict) : dict_(std::move(dict)) {}
    static std::shared_ptr<FVSourceItem> make(const std::string& sourcePath, FVSourceMode mode);

    std::string sourcePath() const;
    int64_t enabled() const;
    FVSourceMode mode() const { return static_cast<FVSourceMode>(enabled()); }
    std::optional<PlistValue> value(std::string_view key) const;
    int64_t integerValue(std::string_view key) const;
    void setValue(std::string key, PlistValue value);
    void removeValue(std::string_view key);
    // A copy of the whole dictionary, for writing or showing.
    PlistDict snapshot() const;

private:
    mutable std::mutex mutex_;
    PlistDict dict_;
};

using FVSourceItemPtr = std::shared_ptr<FVSourceItem>;

}  // namespace ferrovane
