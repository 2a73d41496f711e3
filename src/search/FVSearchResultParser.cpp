#include "search/FVSearchResultParser.h"

#include "engine/FVMirrorLayout.h"

#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <string_view>

namespace ferrovane {

namespace {

std::vector<std::string_view> pathComponents(std::string_view path) {
    std::vector<std::string_view> parts;
    size_t i = 0;
    while (i < path.size()) {
        size_t end = path.find('/', i);
        if (end == std::string_view::npos) end = path.size();
        if (end > i) parts.push_back(path.substr(i, end - i));
        i = end + 1;
    }
    return parts;
}

// Removes the component equal to name (first occurrence) and the one after it, if present.
bool removeArchivePart(std::vector<std::string_view>& parts, std::string_view name) {
    auto it = std::find(parts.begin(), parts.end(), name);
    if (it == parts.end()) return false;
    parts.erase(it, it + std::min<std::ptrdiff_t>(2, parts.end() - it));
    return true;
}

}  // namespace

std::string FVSearchResultParser::pathWithoutArchivePart(const std::string& hit) {
    auto parts = pathComponents(hit);
    if (!removeArchivePart(parts, FVMirrorLayout::kRemovedFolder)) removeArchivePart(parts, FVMirrorLayout::kChangedFolder);
    bool absolute = !hit.empty() && hit.front() == '/';
    std::string out = absolute ? "/" : "";
    for (size_t k = 0; k < parts.size(); ++k) {
        if (k) out += '/';
        out += parts[k];
    }
    return out;
}

std::string FVSearchResultParser::timestamp(const std::string& hit) {
    struct stat st {};
    if (lstat(hit.c_str(), &st) != 0) return "";
    std::tm local {};
    if (!localtime_r(&st.st_mtim.tv_sec, &local)) return "";
    char buffer[64];
    size_t n = std::strftime(buffer, sizeof buffer, "%Y-%m-%d %H:%M", &local);
    return std::string(buffer, n);
}

std::vector<FVSearchResult> FVSearchResultParser::parsedResults(const std::vector<std::string>& hits) {
    struct Version {
        std::string timestamp;
        const std::string* fullpath;
    };
    std::map<std::string, std::vector<Version>> byPath;
    for (const auto& hit : hits) byPath[pathWithoutArchivePart(hit)].push_back({timestamp(hit), &hit});

    std::vector<FVSearchResult> results;
    results.reserve(byPath.size());
    for (auto& [path, versions] : byPath) {
        // The stamps are fixed-width numbers, so byte order is time order.
        std::stable_sort(versions.begin(), versions.end(),
                         [](const Version& a, const Version& b) { return a.timestamp > b.timestamp; });
        FVSearchResult result;
        result.path = path;
        for (const auto& v : versions) {
            result.timestamps.push_back(v.timestamp);
            result.fullpaths.push_back(*v.fullpath);
        }
        result.hasMultipleVersions = versions.size() >= 2;
        results.push_back(std::move(result));
    }
    return results;
}

}  // namespace ferrovane
