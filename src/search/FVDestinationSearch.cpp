#include "search/FVDestinationSearch.h"

#include <algorithm>

namespace ferrovane {

std::shared_ptr<FVDestinationSearch> FVDestinationSearch::create(FVMainQueue& mainQueue) {
    return std::shared_ptr<FVDestinationSearch>(new FVDestinationSearch(mainQueue));
}

void FVDestinationSearch::searchFieldChanged(const std::string& searchText) {
    // The cancelled search still reports its end; matches it had already posted are dropped.
    cancelAllOperations();
    removeAllResults();
    warnings_.clear();
    reachedMatchLimit_ = false;
    if (searchText.size() < kMinimumSearchTextLength) {
        setSearching(false);
        return;
    }
    setSearching(true);
    auto operation = std::make_shared<FVDirectorySearchBlockOperation>(mainQueue_, searchFolderPath_,
                                                                       searchText, shared_from_this(),
                                                                       kMaximumMatchCount + 1);
    operations_.push_back(operation);
    searchQueue_.async([operation] { operation->main(); });
}

void FVDestinationSearch::closePanel() {
    cancelAllOperations();
    removeAllResults();
}

void FVDestinationSearch::didFindMatch(const std::string& path) {
    if (matchPaths_.size() >= kMaximumMatchCount) {
        cancelAllOperations();
        reachedMatchLimit_ = true;
        return;
    }
    matchPaths_.push_back(path);
    searchResults_ = FVSearchResultParser::parsedResults(matchPaths_, searchFolderPath_);
    if (observer_) observer_->searchResultsDidChange();
}

void FVDestinationSearch::didWarn(const std::string& message) { warnings_.push_back(message); }

void FVDestinationSearch::didFinish() { setSearching(false); }

void FVDestinationSearch::cancelAllOperations() {
    std::erase_if(operations_, [](const auto& weak) { return weak.expired(); });
    for (const auto& weak : operations_)
        if (auto operation = weak.lock()) operation->cancel();
}

void FVDestinationSearch::removeAllResults() {
    matchPaths_.clear();
    searchResults_.clear();
    if (observer_) observer_->searchResultsDidChange();
}

void FVDestinationSearch::setSearching(bool searching) {
    searching_ = searching;
    if (observer_) observer_->searchProgressDidChange(searching);
}

}  // namespace ferrovane
