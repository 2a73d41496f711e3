#pragma once
// The destination folders of a copy session: reaching a file's folder (created where missing),
// creating or replacing the folder of a directory pair, and the folders other threads are still
// replacing, so that a thread that finds a link or file where its folder must be waits for the
// folder's own pair instead of failing.

#include "engine/run/FVFileSystemItem.h"
#include "fs/FVFileDescriptor.h"

#include <condition_variable>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace ferrovane {

class FVCopyContext;
struct FVCopyThreadState;

class FVDestinationFolders {
public:
    explicit FVDestinationFolders(FVCopyContext& context) : context_(context) {}

    // A thread took the pair of this destination folder; called under the queue lock, so that
    // no later pair is taken before the folder counts as in flight.
    void markInFlight(const std::string& path);
    // The folder's pair is done (or dropped).
    void settle(const std::string& path);
    // The folder path as the thread's current folder (kept open between items of one folder).
    bool ensureFolder(FVCopyThreadState& state, const std::string& path);
    // The folder of a directory pair, replacing a non-directory in its way when the delegate agrees.
    void ensureDirectoryItem(FVCopyThreadState& state, FVFileSystemItem& destinationItem);

private:
    bool waitForFoldersAbove(std::string_view path);
    FVFd openFolderOnceSettled(const std::string& path, int* error, bool* created = nullptr);

    FVCopyContext& context_;
    std::mutex mutex_;  // taken after the queue lock, never before it
    std::vector<std::string> inFlight_;
    std::condition_variable settled_;
};

}  // namespace ferrovane
