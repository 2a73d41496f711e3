#pragma once
// One search of a destination by file name: a walk of the tree that reports every match, and
// then its end, to a delegate on the front end's main thread. The walk runs on a background
// worker; cancellation is cooperative and checked before every entry.

#include "engine/FVMainQueue.h"

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace ferrovane {

class FVDirectorySearchBlockOperationDelegate {
public:
    virtual ~FVDirectorySearchBlockOperationDelegate() = default;
    // The full path of one match, in walk order.
    virtual void didFindMatch(const std::string& path) = 0;
    // Once per walk, however it ended (completed, cancelled, or the folder could not be read).
    virtual void didFinish() = 0;
};

class FVDirectorySearchBlockOperation {
public:
    // The delegate is kept alive until its last message has been delivered; the main queue must
    // outlive the operation and the messages it posted.
    FVDirectorySearchBlockOperation(FVMainQueue& mainQueue, std::string searchFolderPath,
                                    std::string searchString,
                                    std::shared_ptr<FVDirectorySearchBlockOperationDelegate> delegate);
    FVDirectorySearchBlockOperation(const FVDirectorySearchBlockOperation&) = delete;
    FVDirectorySearchBlockOperation& operator=(const FVDirectorySearchBlockOperation&) = delete;

    // Runs the walk on the calling thread, then posts didFinish. Call once. A walk cancelled
    // before it starts posts only didFinish.
    void main();
    // Matches already posted but not yet delivered are dropped too, so that a new search on the
    // main thread never receives the old one's.
    void cancel() { cancelled_->store(true, std::memory_order_relaxed); }
    bool isCancelled() const { return cancelled_->load(std::memory_order_relaxed); }

    // The search string split at every single blank; doubled, leading and trailing blanks give
    // empty terms, which no name contains.
    static std::vector<std::string> searchTerms(std::string_view searchString);
    // Whether the lower-cased name contains every lower-cased term.
    static bool nameMatches(std::string_view name, const std::vector<std::string>& lowercasedTerms);

private:
    void walk();
    void report(std::string path);

    FVMainQueue& mainQueue_;
    const std::string searchFolderPath_;
    const std::vector<std::string> terms_;  // lower case
    std::shared_ptr<FVDirectorySearchBlockOperationDelegate> delegate_;
    // Shared with the posted matches, which may outlive the operation.
    std::shared_ptr<std::atomic<bool>> cancelled_ = std::make_shared<std::atomic<bool>>(false);
};

}  // namespace ferrovane
