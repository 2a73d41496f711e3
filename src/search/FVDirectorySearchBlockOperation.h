#pragma once
// One search of a destination by file name, reporting every match, and then its end, to a
// delegate on the front end's main thread. A destination with a record of its runs is answered
// from it, and only what the record cannot tell is walked; one without is walked whole. The search
// runs on a background worker; cancellation is cooperative and checked before every entry.

#include "engine/run/FVMainQueue.h"
#include "search/FVRecordedSearch.h"
#include "search/FVSearchQuery.h"

#include <atomic>
#include <cstddef>
#include <limits>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

namespace ferrovane {

class FVDirectorySearchBlockOperationDelegate {
public:
    virtual ~FVDirectorySearchBlockOperationDelegate() = default;
    // The full path of one match.
    virtual void didFindMatch(const std::string& path) = 0;
    // A part of the record could not be used; the search went on by walking that part.
    virtual void didWarn(const std::string& message) {}
    // Once per search, however it ended (completed, cancelled, or the folder could not be read).
    virtual void didFinish() = 0;
};

class FVDirectorySearchBlockOperation final : private FVRecordedSearchSink {
public:
    // The delegate is kept alive until its last message has been delivered; the main queue must
    // outlive the operation and the messages it posted. The search ends by itself after
    // matchLimit matches.
    FVDirectorySearchBlockOperation(FVMainQueue& mainQueue, std::string searchFolderPath,
                                    std::string searchString,
                                    std::shared_ptr<FVDirectorySearchBlockOperationDelegate> delegate,
                                    size_t matchLimit = std::numeric_limits<size_t>::max());
    FVDirectorySearchBlockOperation(const FVDirectorySearchBlockOperation&) = delete;
    FVDirectorySearchBlockOperation& operator=(const FVDirectorySearchBlockOperation&) = delete;

    // Runs the search on the calling thread, then posts didFinish. Call once. A search cancelled
    // before it starts posts only didFinish.
    void main();
    // Matches already posted but not yet delivered are dropped too, so that a new search on the
    // main thread never receives the old one's.
    void cancel() { cancelled_->store(true, std::memory_order_relaxed); }
    bool isCancelled() const { return cancelled_->load(std::memory_order_relaxed); }

private:
    void search();
    bool stopped() const override;
    void report(const std::string& path) override;
    // Walks a folder; the destination's own folders (__changed, __removed and their run folders,
    // __runs) are no candidates when the whole destination is walked. Folders in skipped are
    // candidates but not entered.
    void walk(const std::string& folder, bool wholeDestination, const std::vector<std::string>& skipped) override;
    void warn(const std::string& message) override;

    FVMainQueue& mainQueue_;
    const std::string searchFolderPath_;
    const FVSearchQuery query_;
    std::shared_ptr<FVDirectorySearchBlockOperationDelegate> delegate_;
    const size_t matchLimit_;
    size_t matchCount_ = 0;
    // Once the record has answered part of the search, a walk after a damaged manifest must not
    // report a match twice.
    bool deduplicates_ = false;
    std::unordered_set<std::string> reported_;
    // Shared with the posted matches, which may outlive the operation.
    std::shared_ptr<std::atomic<bool>> cancelled_ = std::make_shared<std::atomic<bool>>(false);
};

}  // namespace ferrovane
