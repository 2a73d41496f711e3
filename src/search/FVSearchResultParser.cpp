#include "search/FVSearchResultParser.h"

#include "engine/config/FVMirrorLayout.h"
#include "engine/record/FVVersionCatalog.h"
#include "fs/FVFileStatus.h"
#include "fs/FVText.h"

#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <string_view>

namespace ferrovane {

namespace {

// Where the layout places the hit's current copy; the hit itself when it is not in the destination.
std::string pathInMirror(const FVMirrorLayout& layout, const std::string& hit) {
    std::string path = FVText::standardizedPath(hit);
    std::optional<std::string> relative = layout.relativePathOfDestinationPath(path);
    return relative ? layout.destinationPath(*relative) : path;
}

}  // namespace

std::string FVSearchResultParser::timestamp(const std::string& hit) {
    struct stat st {};
    if (FVFileStatus::lstat(hit.c_str(), &st) != 0) return "";
    std::tm local {};
    if (!localtime_r(&st.st_mtim.tv_sec, &local)) return "";
    char buffer[64];
    size_t n = std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M", &local);
    return std::string(buffer, n);
}

std::vector<FVSearchResult> FVSearchResultParser::parsedResults(const std::vector<std::string>& hits,
                                                                const std::string& destination) {
    const FVMirrorLayout layout = FVMirrorLayout::archivesOf(destination);
    struct Version {
        std::string timestamp;
        const std::string* fullpath;
        std::string run;  // "" for the current copy
        std::time_t runTime = 0;
    };
    std::map<std::string, std::vector<Version>> byPath;
    for (const auto& hit : hits) {
        std::string run = layout.archiveStampOfDestinationPath(FVText::standardizedPath(hit)).value_or("");
        // A stamp that is no time (a folder someone made there) sorts after every run.
        std::time_t runTime = run.empty() ? 0 : FVVersionCatalog::stampTime(run).value_or(0);
        byPath[pathInMirror(layout, hit)].push_back({timestamp(hit), &hit, std::move(run), runTime});
    }

    std::vector<FVSearchResult> results;
    results.reserve(byPath.size());
    for (auto& [path, versions] : byPath) {
        std::stable_sort(versions.begin(), versions.end(), [](const Version& a, const Version& b) {
            if (a.run.empty() != b.run.empty()) return a.run.empty();
            return a.runTime != b.runTime ? a.runTime > b.runTime : a.run > b.run;
        });
        FVSearchResult result;
        result.path = path;
        for (const auto& v : versions) {
            result.timestamps.push_back(v.timestamp);
            result.fullpaths.push_back(*v.fullpath);
            result.runs.push_back(v.run);
        }
        result.hasMultipleVersions = versions.size() >= 2;
        results.push_back(std::move(result));
    }
    return results;
}

}  // namespace ferrovane
