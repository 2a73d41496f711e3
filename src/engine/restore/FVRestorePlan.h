#pragma once
// What one restored item takes: every (version, target) pair of its tree in walk order (folders
// before their contents), the existing target items it would replace, and the folder the copy
// is confined to. Planning only reads; nothing is written.

#include "engine/run/FVFileSystemItem.h"
#include "fs/FVConfinedDirectory.h"
#include "fs/FVDestinationProfile.h"

#include <cstdint>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace ferrovane {

class FVRestorePlan {
public:
    struct Conflict {
        std::string target;
        std::string reason;
    };

    // from: a version inside the destination (a file or a folder); to: where it goes, at or
    // below root, an existing folder that the copy never leaves and below which it follows no
    // symbolic link. Items inside the destination are neither read from its archives and
    // configuration nor written. The version is reached from the destination's root without
    // following any symbolic link, so nothing outside the destination is ever read.
    // parentMirrors: the mirror folders (inside the destination) that the folders above to
    // stand for, nearest first; those of them that are missing are made again with the
    // metadata of their backed-up folder (the mirror's, else the one in the version's archive).
    FVRestorePlan(std::string destination, std::string from, std::string to, std::string root,
                  const std::vector<std::string>& parentMirrors = {});

    // What is at path inside the destination, reached from its root without following links:
    // 0 and its status, or the errno why it cannot be examined.
    static int examine(const std::string& destination, const std::string& path, struct stat* st);

    const std::string& from() const { return from_; }
    const std::string& to() const { return to_; }
    const std::string& confinementRoot() const { return root_; }
    const std::vector<std::pair<FVFileSystemItemPtr, FVFileSystemItemPtr>>& pairs() const { return pairs_; }
    const std::vector<Conflict>& conflicts() const { return conflicts_; }
    // Items that could not be examined, as messages.
    const std::vector<std::string>& problems() const { return problems_; }
    uint64_t fileCount() const { return files_; }
    uint64_t byteCount() const { return bytes_; }
    uint64_t identicalCount() const { return identical_; }
    // What the target's file system keeps, by the mount table's word alone: a restore writes
    // nothing but what it restores.
    const FVDestinationProfile& targetProfile() const { return profile_; }
    // Whether the item at a target path already is the version: the same type, size and
    // modification time, to the precision the target keeps.
    bool holdsVersion(FVFileSystemItem& version, const std::string& path, const struct stat& target) const;
    // The target of a link in the mirror that will not be read back (sshfs refuses one that
    // leaves its folder), as the newest record of a run keeps it; null when it is not known.
    const std::string* recordedLinkTarget(const std::string& versionPath) const;

private:
    void addMissingParents(const FVConfinedDirectory& versions, const std::vector<std::string>& parentMirrors);
    // versionLink: the text of the version when it is a symbolic link.
    void add(const std::string& fromPath, const struct stat& st, const std::string& toPath,
             const std::string& versionLink);
    bool isHousekeeping(std::string_view relative, std::string_view name) const;
    // The newest record's target for a link of the mirror at path whose size is st's; empty if none.
    std::string recordedLinkText(const std::string& path, const struct stat& st);

    std::string destination_, from_, to_, root_;
    FVDestinationProfile profile_;
    std::vector<std::pair<FVFileSystemItemPtr, FVFileSystemItemPtr>> pairs_;
    std::vector<Conflict> conflicts_;
    std::vector<std::string> problems_;
    std::unordered_map<std::string, std::string> recordedLinks_;   // by version path, for the copy
    // The newest record's links at or below from_, by path; read at the first link that needs it.
    std::optional<std::unordered_map<std::string, std::string>> newestRun_;
    uint64_t files_ = 0, bytes_ = 0, identical_ = 0;
};

}  // namespace ferrovane
