#pragma once
// What the copy of one item needs from its copy session, shared by the copy threads and the
// worker's collaborators (the destination folders, the item cloner, the folders' metadata): the
// session's settings, the two trees, and where a copy reports. The pool of threads and its queue
// stay the worker's own.

#include "engine/copy/FVCopyPair.h"
#include "engine/record/FVCopyRecord.h"
#include "engine/run/FVFileSystemItem.h"
#include "engine/run/FVRunError.h"
#include "fs/FVConfinedDirectory.h"
#include "fs/FVDestinationProfile.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

namespace ferrovane {

class FVFileCopyWorkerDelegate;
struct FVCopyThreadState;

class FVCopyContext {
public:
    // Settings, fixed before the session starts.
    FVFileCopyWorkerDelegate* delegate = nullptr;
    bool verboseLogging = false;
    bool disableACLClone = false;
    bool preallocate = false;
    bool recordsCopies = false;
    FVDestinationProfile destinationProfile;
    std::string destinationRoot = "/";
    std::string sourceRoot;
    std::function<void(const std::string&, uint64_t)> chunkHook;
    // Its owner pushes, the copying threads take; its owner's close or a cancel ends the session.
    std::shared_ptr<FVCopyPairs> pairsToCopy;

    // The trees, reached without following links below their roots; made as the session starts.
    std::unique_ptr<FVConfinedDirectory> destination;
    std::unique_ptr<FVConfinedDirectory> sourceTree;

    std::atomic<bool> cancelled{false};
    std::atomic<uint64_t> totalBytesCopied{0};

    // Opens the trees and asks the delegate what it answers, once per session.
    void startSession();
    // Closes the queue to the analysis and stops the threads after their current pairs.
    void stop();
    bool isCancelled() const { return cancelled.load(std::memory_order_relaxed); }
    void sendMessage(const std::string& message);
    // An item's warning or error; a fatal one stops the session (see stopOnDestinationFailure).
    void report(FVRunError error);
    // A read-only, full or failing destination stops the session, reported once however many
    // threads meet it.
    void stopOnDestinationFailure(const FVRunError& failure);
    // A copy now stands under its name in the mirror.
    void published(const std::string& sourcePath, uint64_t bytes);
    // Asks the delegate before a destination item is replaced; false keeps it.
    bool mayOverwrite(FVFileSystemItem& destination);
    void recordItem(const FVCopyRecord& record);
    void progressDidChange(float fraction);
    // open(2) of a source item; below the source root no symbolic link is followed. With a
    // thread's state, the item's folder is kept open for the next item of the same folder.
    int openSource(const std::string& path, int flags, FVCopyThreadState* state = nullptr) const;

private:
    std::atomic<bool> delegateSupportsWillOverwriteDestination_{false};
    std::atomic<bool> delegateSupportsProgressDidChange_{false};
    std::atomic<bool> destinationFailureReported_{false};
};

}  // namespace ferrovane
