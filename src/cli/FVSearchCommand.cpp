#include "cli/FVSearchCommand.h"

#include "cli/FVExitStatus.h"
#include "cli/FVJsonText.h"

#include "engine/FVMainQueue.h"
#include "search/FVDestinationSearch.h"
#include "search/FVSearchText.h"

#include <fmt/format.h>

#include <dirent.h>

#include <cerrno>
#include <cstring>

namespace ferrovane::FVSearchCommand {

namespace {

class StopWhenFinished final : public FVDestinationSearchObserver {
public:
    explicit StopWhenFinished(FVRunLoop& loop) : loop_(loop) {}
    void searchProgressDidChange(bool searching) override {
        if (!searching) loop_.stop(0);
    }

private:
    FVRunLoop& loop_;
};

}  // namespace

int main(const std::string& destination, const std::string& text, bool json) {
    DIR* folder = opendir(destination.c_str());
    if (!folder) {
        fmt::print(stderr, "ferrovane search: cannot read the destination {}: {}\n",
                   FVSearchText::printable(destination), std::strerror(errno));
        return FVExitStatus::kUsage;
    }
    closedir(folder);

    FVRunLoop loop;
    StopWhenFinished observer(loop);
    auto search = FVDestinationSearch::create(loop);
    search->setObserver(&observer);
    search->setSearchFolderPath(destination);
    search->searchFieldChanged(text);
    if (!search->isSearching()) {
        fmt::print(stderr, "ferrovane search: the search text needs at least {} bytes.\n",
                   FVDestinationSearch::kMinimumSearchTextLength);
        return FVExitStatus::kUsage;
    }
    loop.run();
    for (const std::string& warning : search->warnings())
        fmt::print(stderr, "ferrovane search: warning: {}\n", FVSearchText::printable(warning));

    const auto& results = search->searchResults();
    for (size_t k = 0; k < results.size() && json; ++k) {
        const auto& result = results[k];
        fmt::print("{}\n  {{{}, \"versions\": [", k ? "," : "[", FVJsonText::pathFields("path", result.path));
        for (size_t v = 0; v < result.fullpaths.size(); ++v)
            fmt::print("{}{{\"current\": {}, \"run\": {}, \"date\": {}, {}}}", v ? ", " : "",
                       result.runs[v].empty() ? "true" : "false",
                       result.runs[v].empty() ? "null" : FVJsonText::quoted(result.runs[v]),
                       result.timestamps[v].empty() ? "null" : FVJsonText::quoted(result.timestamps[v]),
                       FVJsonText::pathFields("location", result.fullpaths[v]));
        fmt::print("]}}");
    }
    if (json) fmt::print("{}]\n", results.empty() ? "[" : "\n");
    for (size_t k = 0; k < results.size() && !json; ++k) {
        const auto& result = results[k];
        fmt::print("{}{}\n", k ? "\n" : "", FVSearchText::printable(result.path));
        // As "ferrovane versions" labels them: the name a restore's --version takes.
        for (size_t v = 0; v < result.fullpaths.size(); ++v) {
            const std::string& modified = result.timestamps[v];
            fmt::print("  {:<26}  {:<16}  {}\n", result.runs[v].empty() ? "current" : FVSearchText::printable(result.runs[v]),
                       modified.empty() ? "(gone)" : modified, FVSearchText::printable(result.fullpaths[v]));
        }
    }
    if (search->reachedMatchLimit())
        fmt::print(stderr, "ferrovane search: stopped after {} matches; a longer text finds fewer.\n",
                   FVDestinationSearch::kMaximumMatchCount);
    if (results.empty()) {
        fmt::print(stderr, "ferrovane search: no file name in {} contains \"{}\".\n",
                   FVSearchText::printable(destination), FVSearchText::printable(text));
        return FVExitStatus::kIncomplete;
    }
    return FVExitStatus::kOk;
}

}  // namespace ferrovane::FVSearchCommand
