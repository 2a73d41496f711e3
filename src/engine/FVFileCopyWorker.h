#pragma once
// The copy engine of one sync job: a fixed-width pool of threads takes (source, destination)
// pairs off a first-in first-out queue while the analysis is still adding them, clones each
// item with its metadata, and applies directory metadata once all copies are done.

#include "engine/FVFileSystemItem.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace ferrovane {

inline constexpr const char* kLevelInfo = "INFO";
inline constexpr const char* kLevelWarning = "WARNING";
inline constexpr const char* kLevelError = "ERROR";

// Callbacks arrive on worker threads, never on the main thread.
class FVFileCopyWorkerDelegate {
public:
    virtual ~FVFileCopyWorkerDelegate() = default;
    // Capabilities, asked once per copy session.
    virtual bool respondsToWillOverwriteDestination() const { return false; }
    virtual bool respondsToProgressDidChange() const { return false; }
    // Before a file is copied (whether or not the destination exists), and before a
    // non-directory that stands where a directory must go is removed.
    virtual void copyWorkerWillOverwriteDestination(FVFileSystemItem& destination) {}
    virtual void copyWorkerProgressDidChange(float fraction) {}
    virtual void copyWorkerDidGenerateMessage(const std::string& message, const char* level) {}
    virtual void copyWorkerDidFinishCopy() = 0;
    virtual void copyWorkerDidCancel() = 0;
};

class FVFileCopyWorker {
public:
    FVFileCopyWorker();
    ~FVFileCopyWorker();  // waits for its threads
    FVFileCopyWorker(const FVFileCopyWorker&) = delete;
    FVFileCopyWorker& operator=(const FVFileCopyWorker&) = delete;

    void setDelegate(FVFileCopyWorkerDelegate* delegate);
    void setVerboseLogging(bool verbose);
    // 1 to 15; anything else logs an error to the system log and uses 2.
    void setMaxThreads(int64_t n);
    void setDisableACLClone(bool disable);
    void setPreallocate(bool preallocate);
    // Every change below this folder is made relative to descriptors reached from it without
    // following symbolic links. Set before startCopySession.
    void setDestinationRoot(const std::string& root);

    void startCopySession();
    void addCopyItemFromSource(FVFileSystemItemPtr source, FVFileSystemItemPtr destination);
    void endCopySession();
    void cancel();

    bool isCancelled() const;
    uint64_t requestedFiles() const;
    uint64_t copiedFiles() const;
    uint64_t totalBytesCopied() const;

private:
    struct Impl;
    Impl* impl_;
};

}  // namespace ferrovane
