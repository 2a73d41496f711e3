#pragma once
// The destination's own configuration: ".ferrovane.conf" in its root, a property list
// {"settings": options, "sources": [items]}.

#include "engine/FVPlist.h"
#include "engine/FVSourceItem.h"

#include <string>
#include <utility>
#include <vector>

namespace ferrovane {

namespace FVOptionKey {
inline constexpr const char* syncMode = "syncMode";
inline constexpr const char* maxThreads = "maxThreads";
inline constexpr const char* moveDeletedFiles = "moveDeletedFiles";
inline constexpr const char* moveChangedFiles = "moveChangedFiles";
inline constexpr const char* purgeRemovedArchive = "purgeRemovedArchive";
inline constexpr const char* purgeRemovedArchiveDays = "purgeRemovedArchiveDays";
inline constexpr const char* purgeChangedArchive = "purgeChangedArchive";
inline constexpr const char* purgeChangedArchiveDays = "purgeChangedArchiveDays";
inline constexpr const char* ignoreFileFlagChanges = "ignoreFileFlagChanges";
inline constexpr const char* disableACLClone = "disableACLClone";
inline constexpr const char* preallocate = "preallocate";
inline constexpr const char* excludeSymlinks = "excludeSymlinks";
inline constexpr const char* performExtendedLogging = "performExtendedLogging";
inline constexpr const char* isSuperuserBackup = "isSuperuserBackup";
inline constexpr const char* UUID = "UUID";
inline constexpr const char* automationEnabled = "automationEnabled";
inline constexpr const char* automationTimeHours = "automationTimeHours";
inline constexpr const char* automationTimeMinutes = "automationTimeMinutes";
inline constexpr const char* automationWeekdaySelection = "automationWeekdaySelection";
inline constexpr const char* automationIntervalSelection = "automationIntervalSelection";
}  // namespace FVOptionKey

struct FVConfiguration {
    std::vector<FVSourceItemPtr> sources;
    PlistDictPtr settings = std::make_shared<PlistDict>();
};

enum class FVConfigurationReadStatus {
    Ok,
    Unavailable,     // missing, or not readable
    NotPropertyList, // unparsable, or a root that is not a dictionary
    Malformed,       // a property list whose "sources" or "settings" cannot be used
};

struct FVConfigurationReadResult {
    FVConfigurationReadStatus status = FVConfigurationReadStatus::Unavailable;
    std::string problem;  // what was wrong, for a message on standard error
    FVConfiguration configuration;
};

namespace FVConfigurationFile {

inline constexpr const char* fileName = ".ferrovane.conf";
inline constexpr const char* legacyFileName = "ferrovane.settings";
// Larger files are refused rather than parsed: no real configuration comes near this.
inline constexpr size_t maximumFileSize = 32 * 1024 * 1024;

// The path the window uses: the name joined as a path component ("/" gives "/.ferrovane.conf").
std::string currentPath(const std::string& destination);
// The path the writer and the command line use: "<destination>/.ferrovane.conf" ("//..." for "/").
std::string formattedPath(const std::string& destination);
std::string legacyPath(const std::string& destination);

// Renames "ferrovane.settings" to ".ferrovane.conf" when only the legacy file exists.
// Returns whether a rename happened.
bool convertLegacyFile(const std::string& destination);

// Reads a configuration. Items that are dictionaries with a "sourcePath" become shared items;
// anything else makes the result Malformed (with the reason), so that a caller never writes
// back a file it could not represent.
FVConfigurationReadResult read(const std::string& path);
// The same for the bytes of a file; path only names it in the problem text.
FVConfigurationReadResult parse(std::string_view bytes, const std::string& path);

// The one writer: removes "sizeInMB" from the live items, then writes {"settings", "sources"}
// as an XML property list atomically (temporary file in the same folder, fsync, rename).
// Returns false with a reason on failure; the old file then stays as it was.
bool writeSettingsForSourceConfiguration(const std::vector<FVSourceItemPtr>& items,
                                         const PlistDict& options, const std::string& path,
                                         std::string* error = nullptr);

// The eight defaults, in the order in which they are filled in.
const std::vector<std::pair<const char*, int64_t>>& defaultOptions();
// Adds each missing default; present keys keep their stored values.
void applyDefaultOptions(PlistDict& options);

}  // namespace FVConfigurationFile

}  // namespace ferrovane
