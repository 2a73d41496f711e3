#pragma once
// Every version a destination holds of one path: its copy in the mirror and the copies that runs
// moved into __changed/<stamp>/ and __removed/<stamp>/. Paths are named either as the original
// source path or as a path inside the destination; inside, every version sits at the same path
// relative to the mirror (the "mirror path", beginning with "/").

#include "engine/config/FVMirrorLayout.h"
#include "engine/config/FVPlist.h"
#include "engine/run/FVFileSystemItem.h"

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <vector>

namespace ferrovane {

enum class FVVersionKind { Current, Changed, Removed };

struct FVItemVersion {
    std::string stamp;  // the run's archive folder name; "" for the current copy
    FVVersionKind kind = FVVersionKind::Current;
    std::string path;   // where the version is inside the destination
    FVFileType type = FVFileType::None;
    uint64_t size = 0;
    int64_t modificationTime = 0;
    std::time_t stampTime = 0;

    std::string label() const { return stamp.empty() ? "current" : stamp; }
};

const char* versionKindName(FVVersionKind kind);

class FVVersionCatalog {
public:
    // Reads the destination's configuration; nothing, with the reason, when it cannot be used.
    static std::optional<FVVersionCatalog> open(const std::string& destination, std::string* problem);
    explicit FVVersionCatalog(FVMirrorLayout layout) : layout_(std::move(layout)) {}

    const std::string& destination() const { return layout_.destination(); }
    // The source items that are backed up, as configured.
    const std::vector<std::string>& sources() const { return layout_.sources(); }
    const FVMirrorLayout& layout() const { return layout_; }

    // The mirror path of a source item ("" for the source "/", mirrored at the destination).
    std::string sourceMirrorPath(const std::string& source) const;
    // The mirror path of what the user names: a path inside the destination (mirror or archive),
    // or an original path below a configured source. Nothing when it is neither.
    std::optional<std::string> mirrorPath(const std::string& named) const;
    // The configured source whose mirror holds a mirror path, and the original path there.
    std::optional<std::string> sourceHolding(const std::string& mirrorPath) const;
    std::optional<std::string> originalPath(const std::string& mirrorPath) const;
    // Newest first: the current copy, then the archived ones by the time in their stamp, which is
    // the order of the runs that archived them (a run never takes a stamp at or before one that
    // is already in the archives).
    std::vector<FVItemVersion> versions(const std::string& mirrorPath) const;

    struct ArchiveStamp {
        std::string name;
        std::time_t time = 0;
    };
    // The run folders of one archive, in no order, listed from the destination's root without
    // following a link; names that are no stamp are left out.
    std::vector<ArchiveStamp> stamps(FVArchiveKind kind) const;

    // The time an archive folder name stands for; nothing for a name that is not a stamp.
    static std::optional<std::time_t> stampTime(const std::string& stamp);

private:
    FVMirrorLayout layout_;
};

}  // namespace ferrovane
