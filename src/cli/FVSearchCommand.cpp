#include "cli/FVSearchCommand.h"

#include "cli/FVExitStatus.h"
#include "cli/FVOutput.h"
#include "cli/FVJsonText.h"

#include "engine/run/FVMainQueue.h"
#include "search/FVDestinationSearch.h"
#include "search/FVSearchText.h"

#include <fmt/format.h>

#include <dirent.h>
#include <sys/stat.h>

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

// The version's modification time (links not followed), null when it cannot be read.
std::string modifiedTime(const std::string& path) {
    struct stat st {};
    return lstat(path.c_str(), &st) == 0 ? FVJsonText::time(st.st_mtime) : "null";
}

}  // namespace

int main(const std::string& destination, const std::string& text, bool json) {
    DIR* folder = opendir(destination.c_str());
    if (!folder) {
        FVOutput::error("cannot read the destination {}: {}",
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
        FVOutput::error("the search text needs at least {} bytes.",
                   FVDestinationSearch::kMinimumSearchTextLength);
        return FVExitStatus::kUsage;
    }
    loop.run();
    for (const std::string& warning : search->warnings())
        FVOutput::warning("{}", FVSearchText::printable(warning));

    const auto& results = search->searchResults();
    if (json)
        fmt::print("{{{}, {}, \"results\": [", FVJsonText::formatVersionField(),
                   FVJsonText::pathFields("destination", destination));
    for (size_t k = 0; k < results.size() && json; ++k) {
        const auto& result = results[k];
        fmt::print("{}\n  {{{}, \"versions\": [", k ? "," : "", FVJsonText::pathFields("path", result.path));
        for (size_t v = 0; v < result.fullpaths.size(); ++v)
            fmt::print("{}{{\"current\": {}, \"run\": {}, \"modified\": {}, {}}}", v ? ", " : "",
                       result.runs[v].empty() ? "true" : "false",
                       result.runs[v].empty() ? "null" : FVJsonText::quoted(result.runs[v]),
                       modifiedTime(result.fullpaths[v]),
                       FVJsonText::pathFields("location", result.fullpaths[v]));
        fmt::print("]}}");
    }
    if (json) fmt::print("{}]}}\n", results.empty() ? "" : "\n");
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
        FVOutput::warning("stopped after {} matches; a longer text finds fewer.",
                   FVDestinationSearch::kMaximumMatchCount);
    if (results.empty()) {
        fmt::print(stderr, "ferrovane search: no file name in {} contains \"{}\".\n",
                   FVSearchText::printable(destination), FVSearchText::printable(text));
        return FVExitStatus::kIncomplete;
    }
    return FVExitStatus::kOk;
}

}  // namespace ferrovane::FVSearchCommand
