#pragma once
// The logic behind the search sheet, without the sheet: each change of the search text starts a
// new search of the destination (cancelling the previous one), matches are collected on the main
// thread up to a cap and regrouped into files with versions after every match.

#include "engine/run/FVMainQueue.h"
#include "engine/run/FVSerialQueue.h"
#include "search/FVDirectorySearchBlockOperation.h"
#include "search/FVSearchResultParser.h"

#include <memory>
#include <string>
#include <vector>

namespace ferrovane {

class FVDestinationSearchObserver {
public:
    virtual ~FVDestinationSearchObserver() = default;
    // The result list was rebuilt or cleared.
    virtual void searchResultsDidChange() {}
    // The progress indicator should spin (a search started) or stop (a search ended, or the text
    // was too short to search).
    virtual void searchProgressDidChange(bool searching) {}
};

class FVDestinationSearch final : public FVDirectorySearchBlockOperationDelegate,
                                  public std::enable_shared_from_this<FVDestinationSearch> {
public:
    static constexpr size_t kMaximumMatchCount = 250;
    static constexpr size_t kMinimumSearchTextLength = 3;  // bytes of UTF-8

    // Shared because running searches keep their delegate alive until their last message.
    static std::shared_ptr<FVDestinationSearch> create(FVMainQueue& mainQueue);

    // All of the following, and the observer's calls, happen on the main thread.
    void setObserver(FVDestinationSearchObserver* observer) { observer_ = observer; }
    void setSearchFolderPath(std::string path) { searchFolderPath_ = std::move(path); }
    const std::string& searchFolderPath() const { return searchFolderPath_; }

    // A new search for the text; shorter than the minimum, the list is only cleared.
    void searchFieldChanged(const std::string& searchText);
    // Cancels the running search and clears the results.
    void closePanel();

    const std::vector<FVSearchResult>& searchResults() const { return searchResults_; }
    const std::vector<std::string>& matchPaths() const { return matchPaths_; }
    bool isSearching() const { return searching_; }
    // Whether the current search was stopped at the cap with matches left over.
    bool reachedMatchLimit() const { return reachedMatchLimit_; }
    // What the current search could not use of the destination's record of runs.
    const std::vector<std::string>& warnings() const { return warnings_; }

    void didFindMatch(const std::string& path) override;
    void didWarn(const std::string& message) override;
    void didFinish() override;

private:
    explicit FVDestinationSearch(FVMainQueue& mainQueue) : mainQueue_(mainQueue) {}
    void cancelAllOperations();
    void removeAllResults();
    void setSearching(bool searching);

    FVMainQueue& mainQueue_;
    FVDestinationSearchObserver* observer_ = nullptr;
    std::string searchFolderPath_;
    std::vector<std::string> matchPaths_;
    std::vector<FVSearchResult> searchResults_;
    std::vector<std::string> warnings_;
    bool searching_ = false;
    bool reachedMatchLimit_ = false;
    // Searches that may still run; each is owned by its queued task.
    std::vector<std::weak_ptr<FVDirectorySearchBlockOperation>> operations_;
    FVSerialQueue searchQueue_;  // last: joined before the rest goes
};

}  // namespace ferrovane
