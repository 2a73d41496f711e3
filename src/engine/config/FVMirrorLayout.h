#pragma once
// Where everything lives in a destination: each enabled source item's mirror, the archive folders
// of every run, and the names the destination keeps for itself. Every part of the program that
// turns a source path into a destination path, or back, asks this value; it is checked before
// a run, a restore or a change of the source list touches anything.
//
// Paths "relative to the mirror" begin with "/" ("" for the destination root itself): the current
// copy of an item is <destination><relative>, its archived versions are
// <destination>/__changed/<stamp><relative> and <destination>/__removed/<stamp><relative>.

#include "engine/config/FVSourceItem.h"
#include "fs/FVDestinationProfile.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ferrovane {

enum class FVArchiveKind { Changed, Removed };

class FVMirrorLayout {
public:
    static constexpr const char* kChangedFolder = "__changed";
    static constexpr const char* kRemovedFolder = "__removed";
    // Held for the records of each run; nothing may be mirrored there.
    static constexpr const char* kRunsFolder = "__runs";
    static constexpr const char* kConfigurationName = ".ferrovane.conf";
    // Files being written carry this prefix until they are complete.
    static constexpr const char* kTemporaryPrefix = ".ferrovane-tmp-";
    // The folder where a run tries out what the destination keeps, in its root.
    static constexpr const char* kProbeFolder = ".ferrovane-tmp-probe";

    // folderPerSource is the placement option (syncMode 1): each source in a folder named after
    // its last component; otherwise (0) at its full path below the destination. The source "/"
    // is the destination root in both. exclusions are the exclusion paths (not name patterns),
    // kept only to be validated.
    FVMirrorLayout(std::string destination, bool folderPerSource, std::vector<std::string> sources,
                   std::vector<std::string> exclusions = {});
    // For reading a destination's archives only, where no source and no placement matter.
    static FVMirrorLayout archivesOf(std::string destination);
    // From a source list: enabled items are mirrored, path exclusions are checked, the rest is
    // not part of the layout.
    static FVMirrorLayout fromItems(std::string destination, bool folderPerSource,
                                    const std::vector<FVSourceItemPtr>& items);

    const std::string& destination() const { return destination_; }
    bool folderPerSource() const { return folderPerSource_; }
    const std::vector<std::string>& sources() const { return sources_; }

    // Nothing when the layout holds; else one message naming the items and what to do.
    std::optional<std::string> validate(const FVDestinationProfile& profile) const;
    // The same against what the destination shows without a write into it (its type in the mount
    // table, its configuration's name looked up in another case), for the checks that precede
    // a change of the source list or a restore.
    std::optional<std::string> validateAsSeen() const;

    // Source item to destination.
    std::string mirrorRelativePath(const std::string& source) const;
    std::string mirrorPath(const std::string& source) const;
    // A path inside the destination from a path relative to the mirror.
    std::string destinationPath(std::string_view relative) const;
    // <destination>/__changed or <destination>/__removed: one folder per run inside.
    std::string archiveRoot(FVArchiveKind kind) const;
    std::string archiveFolder(FVArchiveKind kind, std::string_view stamp) const;
    std::string archivePath(FVArchiveKind kind, std::string_view stamp, std::string_view relative) const;

    // A path inside the destination (mirror or archive) to its path relative to the mirror;
    // nothing outside the destination. An archive folder itself gives "".
    std::optional<std::string> relativePathOfDestinationPath(const std::string& path) const;
    // The stamp of the run whose archive folder holds a path inside the destination; nothing for
    // the mirror and for paths outside the destination.
    std::optional<std::string> archiveStampOfDestinationPath(const std::string& path) const;
    // An original path to its path relative to the mirror, placed by the deepest source that holds it.
    std::optional<std::string> relativePathOfOriginal(const std::string& path) const;
    // The configured source whose mirror holds a relative path, and the original path there.
    std::optional<std::string> sourceHolding(const std::string& relative) const;
    std::optional<std::string> originalPath(const std::string& relative) const;

    // Names the destination keeps for itself at its root (compared as given), the probe folder
    // and temporary files included.
    static bool isReservedName(std::string_view name);
    // Exactly the names the program gives files while it writes them: the prefix and 16 lowercase
    // hexadecimal digits. A user's ".ferrovane-tmp-notes" is none.
    static bool isTemporaryName(std::string_view name);
    // Absolute, no empty, "." or ".." component, no trailing slash ("/" itself is fine).
    static bool isNormalizedAbsolutePath(std::string_view path);

private:
    // A source inside the destination, or one whose mirror begins with a reserved name.
    std::optional<std::string> placementProblem(const std::string& source, const FVDestinationProfile& profile) const;
    // Two sources with one mirror, or one inside the other's.
    std::optional<std::string> collision(const std::string& a, const std::string& b,
                                         const FVDestinationProfile& profile) const;

    std::string destination_;
    bool folderPerSource_;
    std::vector<std::string> sources_;
    std::vector<std::string> exclusions_;
};

}  // namespace ferrovane
