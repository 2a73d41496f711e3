#pragma once
// Cloning one non-directory item to its destination path, by kind: a regular file with its data,
// a symbolic link, or a node (FIFO, socket, device) made anew. Each kind is built under a
// temporary name and published by the same last step. Every attempt ends in a result whose error
// is made at the call that failed; an error of the kind RetryOnce is tried once more, and a
// read-only, full or failing destination stops the session.

#include "engine/run/FVFileSystemItem.h"
#include "engine/run/FVRunError.h"
#include "manifest/FVManifestEntry.h"

#include <sys/stat.h>

#include <optional>
#include <string>
#include <string_view>

namespace ferrovane {

class FVCopyContext;
class FVDestinationFolders;
struct FVCopyThreadState;
class FVTemporaryEntry;
struct FVStartingState;

class FVItemCloner {
public:
    FVItemCloner(FVCopyContext& context, FVDestinationFolders& folders, FVCopyThreadState& state)
        : context_(context), folders_(folders), state_(state) {}

    // Clones source to destinationPath and reports the outcome to the worker's delegate.
    void clone(FVFileSystemItem& source, const std::string& destinationPath);
    // Gives the item at destinationPath the source's mode, owner and group (and attributes) where
    // it is, without touching its data.
    void updateModeAndOwner(FVFileSystemItem& source, const std::string& destinationPath);

private:
    // What an attempt came to: done, cancelled, the source gone since the analysis, or the error
    // made at the call that failed, whose kind says whether the attempt is worth repeating.
    struct Result {
        enum class Outcome { Done, Cancelled, Vanished, Failed } outcome = Outcome::Done;
        FVRunError error{};
    };
    struct Item {
        const std::string& sourcePath;
        const std::string& destinationPath;
        std::string name;      // the destination's name in its folder
        const char* typeName;  // for the messages
        int dirFd;             // the destination folder, or -1 with its errno in folderError
        int folderError;
    };

    static Result done() { return {Result::Outcome::Done}; }
    static Result failed(FVRunError error) { return {Result::Outcome::Failed, std::move(error)}; }
    // The source could not be opened or read: gone, unreadable, or failed in a way a second try
    // may pass.
    static Result sourceFailure(const Item& item, int error);
    // A failed change of the destination: a read-only, full or failing one ends the session,
    // anything else the item, of the kind given. step says what was done, for the fatal line.
    static Result destinationFailure(std::string_view step, int error, const Item& item, std::string message,
                                     FVRunError::Kind otherwise);
    // The data could not be written: worth a second try unless the disk failed.
    static Result notWritten(const Item& item, int error);
    // "Copy failed: ..." with what failed and why.
    static std::string copyFailed(const Item& item, const std::string& what, int error);
    // Reports a failure that leaves the attempt going on; one of the destination disk ends the
    // attempt instead, as fatal: false then.
    bool goesOnAfter(FVRunError failure, Result& fatal);
    // A metadata step the copy could do without: a warning in the log; the copy is still published.
    bool goesOnAfterUnkeptMetadata(const Item& item, int error, std::string message, Result& fatal);

    Result cloneRegular(const Item& item);
    // Copies the data of in, whose fstat is st, again and again while the source changes during
    // its copy (at most twice more). st ends as the fstat the last copy began with; false in
    // *settled when the source changed during that copy as well. With a hasher, it ends holding
    // the last copy's bytes, and hashedWhole_ says whether it saw all of them.
    Result copyData(const Item& item, int in, int out, struct stat& st, bool* settled, FVContentHasher* hasher);
    // The copy's owner, mode, attributes and times, before it is published; false when the
    // destination failed (fatal then says how). A metadata the copy lacks dates it before st.
    bool cloneMetadata(const Item& item, int in, int out, struct stat& st, const FVStartingState* start, Result& fatal);
    // The times again where a rename stamps them, then the inode flags.
    void finishPublished(const Item& item, int in, int out, const struct stat& st);
    Result cloneLink(const Item& item);
    Result cloneNode(const Item& item, mode_t kind);
    // The shared last step: the entry, complete under its temporary name, replaces the destination.
    Result publish(FVTemporaryEntry& entry, const Item& item, int dataFd, off_t size);
    // Owner, mode, attributes and times of a link or node, through O_PATH descriptors; false
    // with the first errno in error.
    bool clonePathOnlyMetadata(int sourceFd, const struct stat& st, const FVTemporaryEntry& entry, int dirFd,
                               bool cloneACL, int* error);
    // Tells the worker what became of the item: nothing when done or cancelled.
    void report(const Result& result, const Item& item);
    // Tells the worker's delegate what the mirror holds at the item's path now.
    void record(const Result& result, const Item& item, const struct stat& walked);

    FVCopyContext& context_;
    FVDestinationFolders& folders_;
    FVCopyThreadState& state_;
    // What the last attempt published, for the record.
    struct stat published_ {};
    std::optional<FVContentHash> digest_;
    std::optional<FVManifestAttributes> attributes_;
    std::string linkTarget_;
    bool hashedWhole_ = false;
};

}  // namespace ferrovane
