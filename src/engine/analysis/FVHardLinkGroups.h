#pragma once
// The files (and symbolic links) of one source item that have more than one name, met during its
// walk. The first name met is compared and copied like any file; each later name becomes a
// request to link its mirror to the first name's mirror once the copies are done, unless it
// already is that link.

#include "engine/run/FVFileSystemItem.h"

#include <sys/types.h>

#include <string>
#include <unordered_map>
#include <vector>

namespace ferrovane {

class FVHardLinkGroups {
public:
    struct Request {
        FVFileSystemItemPtr source;       // the later name
        FVFileSystemItemPtr destination;  // its mirror as the walk found it
        std::string firstDestinationPath;
        // Its mirror, compared as a file of its own, already holds the source's version.
        bool destinationCurrent = false;
    };

    // Called for an entry after it was compared with its mirror (needed: it differs); true when it
    // is a later name, which is then not handed to the copy.
    bool takeLaterName(const FVFileSystemItemPtr& source, const FVFileSystemItemPtr& destination, bool needed);
    const std::vector<Request>& requests() const { return requests_; }

private:
    struct Inode {
        dev_t device;
        ino_t inode;
        bool operator==(const Inode&) const = default;
    };
    struct InodeHash {
        size_t operator()(const Inode& key) const { return std::hash<ino_t>()(key.inode) ^ key.device; }
    };
    struct FirstName {
        std::string destinationPath;
        Inode mirror;  // its mirror's inode as found, {0, 0} when there was none
    };

    std::unordered_map<Inode, FirstName, InodeHash> firstNames_;
    std::vector<Request> requests_;
};

}  // namespace ferrovane
