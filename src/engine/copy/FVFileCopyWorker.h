#pragma once
// The copy engine of one sync job: a fixed-width pool of threads takes (source, destination)
// pairs off a bounded first-in first-out queue while the analysis is still adding them, clones
// each item with its metadata, and applies directory metadata once the queue is closed and every
// copy is done.

#include "engine/config/FVMirrorLayout.h"
#include "engine/copy/FVCopyPair.h"
#include "engine/record/FVCopyRecord.h"
#include "engine/run/FVCurrentCopy.h"
#include "engine/run/FVRunError.h"
#include "engine/run/FVFileSystemItem.h"
#include "fs/FVDestinationProfile.h"
#include "manifest/FVContentHash.h"
#include "manifest/FVManifestEntry.h"

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace ferrovane {

// Files are written under a hidden name beginning so in their destination folder and renamed
// over the destination last. A crashed run leaves such names behind; the next run removes them
// and never archives or reports them.
inline constexpr const char* kTemporaryFilePrefix = FVMirrorLayout::kTemporaryPrefix;

struct FVFileCopyWorkerImpl;

// Callbacks arrive on worker threads, never on the main thread.
class FVFileCopyWorkerDelegate {
public:
    virtual ~FVFileCopyWorkerDelegate() = default;
    // Capabilities, asked once per copy session.
    virtual bool respondsToWillOverwriteDestination() const { return false; }
    virtual bool respondsToProgressDidChange() const { return false; }
    // Before a file is copied (whether or not the destination exists), and before a
    // non-directory that stands where a directory must go is removed. False keeps the
    // destination exactly as it is: the item is then not copied in this run.
    virtual bool copyWorkerWillOverwriteDestination(FVFileSystemItem& destination) { return true; }
    virtual void copyWorkerProgressDidChange(float fraction) {}
    // Data of a file written (bytes since the last call for it), after every chunk on the
    // copying thread, before the copy is published.
    virtual void copyWorkerDidWriteData(const std::string& sourcePath, uint64_t bytes) {}
    // The target of a source link that will not be read back (sshfs refuses one that leaves its
    // folder), as the record of the run that made it keeps it; nothing when it is not known.
    virtual std::optional<std::string> copyWorkerRecordedLinkTarget(const std::string& sourcePath) {
        return std::nullopt;
    }
    // A line for the run log that is neither an error nor a warning.
    virtual void copyWorkerDidGenerateMessage(const std::string& message) {}
    // An item's warning or error, or, once per session, the fatal error of a read-only, full or
    // failing destination that stopped it. Never of the kind RetryOnce: the worker retries those.
    virtual void copyWorkerDidFail(const FVRunError& error) {}
    // Each copy of a file, link or special file once it stands under its name; bytes is its size.
    virtual void copyWorkerDidPublishItem(const std::string& sourcePath, uint64_t bytes) {}
    // After each item copied or failed, and each digest taken, when the worker records copies.
    virtual void copyWorkerDidRecordItem(const FVCopyRecord& record) {}
    virtual void copyWorkerDidFinishCopy() {}
    virtual void copyWorkerDidCancel() {}
};

// The delegate gets exactly one end step per session: copyWorkerDidFinishCopy once the queue was
// closed and every pair copied, or copyWorkerDidCancel once a cancel stopped every thread (which
// may come before the queue is closed).
// An owner that would rather wait on its own thread calls finishCopySession.
class FVFileCopyWorker final : public FVCurrentCopy {
public:
    // The pairs come from this queue, which its owner fills and closes. Without one the worker
    // keeps a queue of its own, filled through the add methods and closed by endCopySession.
    explicit FVFileCopyWorker(std::shared_ptr<FVCopyPairs> pairs = nullptr);
    // Stops and waits for its threads (so never from a callback); no callback arrives afterwards.
    ~FVFileCopyWorker() override;
    FVFileCopyWorker(const FVFileCopyWorker&) = delete;
    FVFileCopyWorker& operator=(const FVFileCopyWorker&) = delete;

    void setDelegate(FVFileCopyWorkerDelegate* delegate);
    void setVerboseLogging(bool verbose);
    // 1 to 15; anything else logs an error to the system log and uses 2.
    void setMaxThreads(int64_t n);
    void setDisableACLClone(bool disable);
    void setPreallocate(bool preallocate);
    // What the destination can hold: what it cannot is not tried per item.
    void setDestinationProfile(const FVDestinationProfile& profile);
    // Every change below this folder is made relative to descriptors reached from it without
    // following symbolic links; destination paths outside it are refused. "/" when not set.
    // Set before startCopySession, like the other settings.
    void setDestinationRoot(const std::string& root);
    // Sources below this folder are read through descriptors reached from it without following
    // symbolic links, so a folder swapped for a link mid-run is never read through. Optional.
    void setSourceRoot(const std::string& root);
    // Called on the copying thread after every chunk (at most 1 MiB) of a file's data, with the
    // source path and the bytes copied so far; tests use it to act at a known point of a copy.
    // Copies through a buffer and hashes the bytes on the way (copy_file_range never shows
    // them), and reports each item to copyWorkerDidRecordItem.
    void setRecordsCopies(bool records);
    void setChunkHook(std::function<void(const std::string& sourcePath, uint64_t bytesCopied)> hook);

    // Starts the threads, which wait for pairs.
    void startCopySession();
    // Waits while many pairs are pending; a pair added after the session ended or was cancelled
    // is dropped. modeAndOwnerOnly: the destination item's data is current; only its mode, owner and group
    // are brought in line with the source, in place (never for a folder, whose pair does that).
    void addCopyItemFromSource(FVFileSystemItemPtr source, FVFileSystemItemPtr destination,
                               bool modeAndOwnerOnly = false);
    // The destination item is current: only the digest of its bytes is taken, for the record.
    void addDigestItem(FVFileSystemItemPtr source, FVFileSystemItemPtr destination);
    // Closes the queue of pairs to copy: the threads copy what is left and end.
    void endCopySession();
    // Ends the session and waits for its end step (the folders' metadata is then applied);
    // false when the session was cancelled.
    bool finishCopySession();
    void cancel() override;

    bool isCancelled() const;
    uint64_t requestedFiles() const;
    uint64_t copiedFiles() const;
    uint64_t totalBytesCopied() const override;

private:
    void addPair(FVCopyPair pair);

    std::unique_ptr<FVFileCopyWorkerImpl> impl_;
};

}  // namespace ferrovane
