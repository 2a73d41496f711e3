#pragma once
// The worker's private state, shared by the worker and its collaborators: the destination
// folders, the item cloner and the directory-metadata finisher.

#include "engine/copy/FVDestinationFolders.h"
#include "engine/copy/FVDirectoryMetadataFinisher.h"
#include "engine/copy/FVFileCopyWorker.h"
#include "engine/copy/FVNewFileProfile.h"
#include "fs/FVConfinedDirectory.h"

#include <sys/stat.h>

#include <atomic>
#include <memory>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace ferrovane {

struct CopyPair {
    FVFileSystemItemPtr source;
    FVFileSystemItemPtr destination;
    bool modeAndOwnerOnly = false;
    bool digestOnly = false;
};

// First in, first out, in a ring that only grows (by doubling) when the analysis runs ahead of
// the copies, so a long run does not reallocate again and again.
class FVPairQueue {
public:
    explicit FVPairQueue(size_t capacity) : slots_(capacity) {}
    void push(CopyPair pair);
    bool pop(CopyPair& pair);
    CopyPair* front() { return count_ == 0 ? nullptr : &slots_[head_]; }
    bool empty() const { return count_ == 0; }
    size_t size() const { return count_; }

private:
    std::vector<CopyPair> slots_;
    size_t head_ = 0;
    size_t count_ = 0;
};

// What one copying thread keeps between items: consecutive pairs mostly share their folders.
struct FVCopyThreadState {
    std::unique_ptr<char[]> buffer;
    std::string lastDirectory;  // the folder last ensured, and its descriptor (invalid when
    FVFd lastDirectoryFd;       // it could not be reached)
    int lastDirectoryError = 0;
    FVNewFileProfile newFiles;  // what a file made in lastDirectory starts with
    std::string sourceFolder;  // the source folder last read from, relative to the source root,
    FVFd sourceFolderFd;       // and its descriptor, reached from the root without following links
};

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
    std::atomic<bool> copySessionRunning{false};
    std::atomic<bool> destroying{false};
    std::atomic<uint64_t> totalBytesCopied{0};

    // The queue lock: the pending pairs, the counters and the progress report.
    std::mutex filesMutex;
    // Idle threads wait on it between polls, so that a new pair or the end of the session
    // wakes them at once instead of after the poll interval.
    std::condition_variable pairsOrEnd;
    // The analysis waits on it while the queue is full, so that memory stays flat when the walk
    // runs far ahead of the copies (a first run of millions of small files).
    std::condition_variable roomInQueue;
    FVPairQueue filesToCopy{4096};
    std::atomic<uint64_t> requestedFiles{0};
    std::atomic<uint64_t> copiedFiles{0};
    float lastReportedProgress = 0;

    // The pool lock: width, running threads and the batch's finish step; taken before filesMutex.
    std::mutex poolMutex;
    int64_t maxThreads = 2;
    int activeWorkers = 0;
    bool finishPending = false;
    std::vector<std::thread> threads;

    FVDestinationFolders folders{*this};
    FVDirectoryMetadataFinisher directoryMetadata{*this};

    // Queue and threads.
    void startCopies();
    // The next pairs in queue order: a folder's pair alone, or a run of files of one destination
    // folder, so that two threads seldom create entries in the same folder at once (each
    // creation holds the folder's lock in the kernel, and the other thread would wait on it).
    bool nextRun(std::vector<CopyPair>& run);
    void reportProgress();
    void workerBody();
    void workerEnded();
    void sendMessage(const std::string& message, FVMessageLevel level);
    // A copy now stands under its name in the mirror.
    void published(const std::string& sourcePath, uint64_t bytes);
    // A read-only, full or failing destination stops the session, reported once however many
    // threads meet it; false for an error of the item alone.
    bool stopOnDestinationFailure(const FVDestinationFailure& failure);
    // Asks the delegate before a destination item is replaced; false keeps it.
    bool mayOverwrite(FVFileSystemItem& destination);
    void copyPair(CopyPair& pair, FVCopyThreadState& state);
    // The digest of a current destination file, read through the thread's buffer.
    void digestDestination(CopyPair& pair, FVCopyThreadState& state);
    void recordItem(const FVCopyRecord& record);

    // open(2) of a source item; below the source root no symbolic link is followed. With a
    // thread's state, the item's folder is kept open for the next item of the same folder.
    int openSource(const std::string& path, int flags, FVCopyThreadState* state = nullptr) const;
};

}  // namespace ferrovane
