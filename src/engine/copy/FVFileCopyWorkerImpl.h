#pragma once
// The worker's private state, shared by the worker and its collaborators: the destination
// folders, the item cloner and the directory-metadata finisher.

#include "engine/copy/FVCopyPair.h"
#include "engine/copy/FVDestinationFolders.h"
#include "engine/copy/FVDirectoryMetadataFinisher.h"
#include "engine/copy/FVFileCopyWorker.h"
#include "engine/copy/FVNewFileProfile.h"
#include "engine/copy/FVSourcePrefetch.h"
#include "fs/FVConfinedDirectory.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <atomic>
#include <memory>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ferrovane {

// What one copying thread keeps between items: consecutive pairs mostly share their folders.
struct FVCopyThreadState {
    std::unique_ptr<char[]> buffer;
    std::string lastDirectory;  // the folder last ensured, and its descriptor (invalid when
    FVFd lastDirectoryFd;       // it could not be reached)
    int lastDirectoryError = 0;
    FVNewFileProfile newFiles;  // what a file made in lastDirectory starts with
    std::string sourceFolder;  // the source folder last read from, relative to the source root,
    FVFd sourceFolderFd;       // and its descriptor, reached from the root without following links
    FVSourcePrefetch prefetch;  // sources of the run in hand, opened ahead of their copies
};

// How a source file is opened for its copy.
inline constexpr int kSourceFileFlags = O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_NOCTTY;

struct FVFileCopyWorkerImpl {
    // Settings, fixed before the session starts.
    FVFileCopyWorkerDelegate* delegate = nullptr;
    bool verboseLogging = false;
    bool disableACLClone = false;
    bool preallocate = false;
    bool recordsCopies = false;
    FVDestinationProfile destinationProfile;
    std::string destinationRoot = "/";
    std::unique_ptr<FVConfinedDirectory> destination;
    std::string sourceRoot;
    std::unique_ptr<FVConfinedDirectory> sourceTree;
    std::function<void(const std::string&, uint64_t)> chunkHook;

    std::atomic<bool> delegateSupportsWillOverwriteDestination{false};
    std::atomic<bool> delegateSupportsProgressDidChange{false};
    std::atomic<bool> cancelled{false};
    std::atomic<bool> destinationFailureReported{false};
    std::atomic<bool> destroying{false};
    std::atomic<uint64_t> totalBytesCopied{0};

    // Its owner pushes, the copying threads take; its owner's close or a cancel ends the session.
    std::shared_ptr<FVCopyPairs> pairsToCopy;
    std::atomic<uint64_t> copiedFiles{0};
    std::mutex progressMutex;
    float lastReportedProgress = 0;

    // The pool lock: width, running threads and the session's end.
    std::mutex poolMutex;
    int64_t maxThreads = 2;
    int activeWorkers = 0;
    // The session's one report was made (with sessionCancelled when it was a cancel);
    // finishCopySession waits on sessionEnded for it.
    bool sessionFinished = false;
    bool sessionCancelled = false;
    std::condition_variable sessionEnded;
    std::vector<std::thread> threads;

    FVDestinationFolders folders{*this};
    FVDirectoryMetadataFinisher directoryMetadata{*this};

    // Queue and threads.
    void startThreads();
    // Closes the queue to the analysis and stops the threads after their current pairs.
    void stop();
    // The next pairs in queue order: a folder's pair alone, or a run of files of one destination
    // folder, so that two threads seldom create entries in the same folder at once (each
    // creation holds the folder's lock in the kernel, and the other thread would wait on it).
    bool nextRun(std::vector<FVCopyPair>& run);
    void reportProgress();
    void workerBody();
    void workerEnded();
    void sendMessage(const std::string& message);
    // An item's warning or error; a fatal one stops the session (see stopOnDestinationFailure).
    void report(FVRunError error);
    // A copy now stands under its name in the mirror.
    void published(const std::string& sourcePath, uint64_t bytes);
    // A read-only, full or failing destination stops the session, reported once however many
    // threads meet it.
    void stopOnDestinationFailure(const FVRunError& failure);
    // Asks the delegate before a destination item is replaced; false keeps it.
    bool mayOverwrite(FVFileSystemItem& destination);
    void copyPair(FVCopyPair& pair, FVCopyThreadState& state);
    // The digest of a current destination file, read through the thread's buffer.
    void digestDestination(FVCopyPair& pair, FVCopyThreadState& state);
    void recordItem(const FVCopyRecord& record);

    // open(2) of a source item; below the source root no symbolic link is followed. With a
    // thread's state, the item's folder is kept open for the next item of the same folder.
    int openSource(const std::string& path, int flags, FVCopyThreadState* state = nullptr) const;
};

}  // namespace ferrovane
