#pragma once
// The destination's own configuration: ".ferrovane.conf" in its root, a property list
// {"settings": options, "sources": [items]}.

#include "engine/config/FVMirrorLayout.h"
#include "engine/config/FVOptions.h"
#include "engine/config/FVPlist.h"
#include "engine/config/FVSourceItem.h"

#include <string>
#include <utility>
#include <vector>

namespace ferrovane {

struct FVConfiguration {
    std::vector<FVSourceItemPtr> sources;
    PlistDictPtr settings = std::make_shared<PlistDict>();
};

enum class FVConfigurationReadStatus {
    Ok,
    Unavailable,     // missing, or not readable
    NotPropertyList, // not a regular file, unparsable, or a root that is not a dictionary
    Malformed,       // a property list whose "sources" or "settings" cannot be used
};

struct FVConfigurationReadResult {
    FVConfigurationReadStatus status = FVConfigurationReadStatus::Unavailable;
    std::string problem;  // what was wrong, for a message on standard error
    FVConfiguration configuration;
    // One line for each source item that was left out because it cannot be used (not a
    // dictionary, or no "sourcePath"); the writers keep such items in the file as they are.
    std::vector<std::string> skippedItems;
};

namespace FVConfigurationFile {

inline constexpr const char* fileName = FVMirrorLayout::kConfigurationName;
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
// any other item is skipped with a line in skippedItems. A "sources" that is not an array or a
// "settings" that is not a dictionary makes the result Malformed (with the reason), so that a
// caller never writes back a file it could not represent.
FVConfigurationReadResult read(const std::string& path);
// The same for the bytes of a file; path only names it in the problem text.
FVConfigurationReadResult parse(std::string_view bytes, const std::string& path);

// The one writer: removes "sizeInMB" from the live items, then writes {"settings", "sources"}
// as an XML property list atomically (temporary file in the same folder, fsync, rename). Source
// items of the file at path that could not be read are kept as they are, at their places.
// Returns false with a reason on failure; the old file then stays as it was.
bool writeSettingsForSourceConfiguration(const std::vector<FVSourceItemPtr>& items,
                                         const PlistDict& options, const std::string& path,
                                         std::string* error = nullptr);

// The write-back of a finished run: reads the file as it is on disk now and changes only what
// the run owns (the run result keys of the items whose "sourcePath" is that of an item the run
// backed up), so that changes made to the file during the run are kept. Returns false with a
// reason when the file can no longer be read or written; it is then left as it is.
bool writeRunResults(const std::vector<FVSourceItemPtr>& backedUpItems, const std::string& path,
                     std::string* error = nullptr);

// True only when the destination definitely has neither file (not when it cannot be looked at).
bool isNewDestination(const std::string& destination);

// The window's defaults from the option table, in the order in which they are filled in.
const std::vector<std::pair<const char*, int64_t>>& defaultOptions();
// Adds each missing default; present keys keep their stored values.
void applyDefaultOptions(PlistDict& options);
// The options a destination starts with when its configuration is first created: the window's
// defaults plus those that only new destinations get (archiving changed files, retention, the
// free-space rule). Existing files never get these: what they store keeps its meaning.
PlistDictPtr newDestinationOptions();

}  // namespace FVConfigurationFile

}  // namespace ferrovane
