#pragma once
// The source side of an analysis: walks one source folder on a thread of its own and hands its
// entries over in walk order, in batches, while the analysis compares earlier ones with the
// mirror. What depends on the source alone is settled here: which entries are passed over or
// excluded, which folders cannot be entered, and each entry's attribute signature where the
// mirror may hold the entry (so the comparison only has to read the mirror's).

#include "manifest/FVManifestEntry.h"

#include <sys/stat.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace ferrovane {

class FVSourceExclusions;

class FVSourceListing {
public:
    struct Entry {
        enum class Kind {
            Item,               // a folder, file or symbolic link to compare
            Error,              // could not be examined or listed (error)
            Excluded,           // matches an exclusion; a folder is not entered
            DestinationInside,  // the destination folder itself, inside the source
            UnreadableFolder,   // a folder that cannot be listed (error); not entered
            Unmirrorable,       // a name the destination cannot hold as its own (reason); not entered
        };
        Kind kind = Kind::Item;
        std::string path;
        struct stat st {};
        uint32_t level = 0;
        uint32_t nameOffset = 0;
        uint32_t relativeOffset = 0;
        int error = 0;
        // The source's attribute signature, read ahead where the mirror holds the entry's folder.
        std::optional<std::string> signature;
        // The source's attributes for the run's record, read ahead for folders and for links whose
        // folder the mirror holds (the others are copied, and read as they are; a current file's
        // come from the last record).
        std::optional<FVManifestAttributes> attributes;
        std::string reason;  // why an Unmirrorable entry is

        std::string_view name() const { return std::string_view(path).substr(nameOffset); }
        const char* nameCString() const { return path.c_str() + nameOffset; }
        std::string_view relativePath() const { return std::string_view(path).substr(relativeOffset); }
    };

    struct Rules {
        std::function<bool(const std::string& path)> isExcluded;
        // What the options leave out below the root (patterns, cache folders, nodump), if anything.
        const FVSourceExclusions* exclusions = nullptr;
        dev_t destinationDevice = 0;
        ino_t destinationInode = 0;
        // The signature of a source path (relative to the thread's working folder, or whole), or
        // nothing when attributes are not compared.
        std::function<std::string(const std::string& path)> signature;
        // The attributes of a source path (as for the signature) for the run's record, or nothing
        // when the run is not recorded.
        std::function<FVManifestAttributes(const std::string& path)> attributes;
        // Why the destination cannot hold an entry's name (see FVDestinationNames), or "".
        std::function<std::string(uint32_t level, std::string_view name, int folderFd)> refusedName;
    };

    // Starts the walk of sourceRoot, whose mirror is targetRoot.
    FVSourceListing(std::string sourceRoot, std::string targetRoot, Rules rules);
    // Stops the walk where it is and waits for its thread.
    ~FVSourceListing();
    FVSourceListing(const FVSourceListing&) = delete;
    FVSourceListing& operator=(const FVSourceListing&) = delete;

    // The next batch of entries in walk order; false once the walk is over.
    bool next(std::vector<Entry>& batch);

private:
    void walk();
    void deliver(std::vector<Entry>& batch);

    const std::string sourceRoot_;
    const std::string targetRoot_;
    const Rules rules_;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::vector<Entry>> batches_;
    bool finished_ = false;
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};

}  // namespace ferrovane
